import { test } from 'node:test';
import assert from 'node:assert/strict';

import { compareVersions, isBelowMinimum } from '../lib/version.js';

test('versions compare part by part as numbers, a missing part counting as 0', () => {
  const cases = [['2.11.1', '2.11.1', 0], ['2.9.9', '2.11.0', -1], ['2.11.10', '2.11.9', 1], ['2.11', '2.11.0', 0]];
  for (const [left, right, order] of cases) {
    assert.equal(compareVersions(left, right), order, `${left} vs ${right}`);
  }
});

test('the outdated report fires only below a readable minimum', () => {
  for (const [minimum, below] of [['2.11.1', true], ['2.11.0', false], [undefined, false], ['x.y', false]]) {
    assert.equal(isBelowMinimum('2.11.0', minimum), below, String(minimum));
  }
});
