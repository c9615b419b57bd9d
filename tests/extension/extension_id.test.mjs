// The host manifest admits exactly one extension ID, so the build's default must be the ID Chrome
// derives from the key in the bundled extension's manifest.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { createHash } from 'node:crypto';
import { readFileSync } from 'node:fs';
import { join } from 'node:path';

const source = process.env.VELNORA_SOURCE_DIR ?? new URL('../..', import.meta.url).pathname;

function extensionIdFromKey(base64Key) {
  const digest = createHash('sha256').update(Buffer.from(base64Key, 'base64')).digest('hex');
  return [...digest.slice(0, 32)].map((digit) => String.fromCharCode(97 + parseInt(digit, 16))).join('');
}

const manifest = JSON.parse(readFileSync(join(source, 'extension/manifest.json'), 'utf8'));
const derived = extensionIdFromKey(manifest.key);

test('the key in the manifest is a DER public key and yields a well-formed ID', () => {
  const der = Buffer.from(manifest.key, 'base64');
  assert.ok(der.length > 200, 'key too short for an RSA public key');
  assert.equal(der[0], 0x30, 'not a DER sequence');
  assert.match(derived, /^[a-p]{32}$/);
});

test('the build option defaults to the ID derived from the key', () => {
  const cmake = readFileSync(join(source, 'CMakeLists.txt'), 'utf8');
  const match = cmake.match(/set\(VELNORA_EXTENSION_ID\s+"([^"]*)"\s+CACHE/);
  assert.ok(match, 'no cache default for VELNORA_EXTENSION_ID in CMakeLists.txt');
  assert.equal(match[1], derived);
});

test('this build was configured for the bundled extension', { skip: !process.env.VELNORA_CONFIGURED_EXTENSION_ID }, () => {
  assert.equal(process.env.VELNORA_CONFIGURED_EXTENSION_ID, derived);
});
