import { test } from 'node:test';
import assert from 'node:assert/strict';

import { compareVersions, isBelowMinimum } from '../lib/version.js';

test('versions compare part by part as numbers', () => {
  assert.equal(compareVersions('2.11.1', '2.11.1'), 0);
  assert.equal(compareVersions('2.9.9', '2.11.0'), -1);
  assert.equal(compareVersions('2.11.10', '2.11.9'), 1);
  assert.equal(compareVersions('2.11', '2.11.0'), 0);
  assert.equal(compareVersions('3', '2.99.99'), 1);
});

test('the outdated report fires only below a readable minimum', () => {
  assert.equal(isBelowMinimum('2.11.0', '2.11.1'), true);
  assert.equal(isBelowMinimum('2.11.1', '2.11.1'), false);
  assert.equal(isBelowMinimum('2.12.0', '2.11.1'), false);
  assert.equal(isBelowMinimum('2.11.1', undefined), false);
  assert.equal(isBelowMinimum('2.11.1', 'x.y'), false);
});
