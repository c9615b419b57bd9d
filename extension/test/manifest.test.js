// What the manifest must agree with: the sites the extension scripts, and the extension ID the
// desktop build admits.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { createHash } from 'node:crypto';
import { readFileSync } from 'node:fs';

import { SITES } from '../lib/sites.js';

const read = (path) => readFileSync(new URL(path, import.meta.url), 'utf8');
const manifest = JSON.parse(read('../manifest.json'));

function permitted(url) {
  return manifest.host_permissions.some((pattern) => {
    const [, scheme, host, path] = pattern.match(/^(\w+):\/\/([^/]+)(\/.*)$/);
    const target = new URL(url);
    const pathPattern = new RegExp(`^${path.replace(/[.+?^${}()|[\]\\]/g, '\\$&').replace(/\*/g, '.*')}$`);
    return target.protocol === `${scheme}:` && target.hostname === host && pathPattern.test(target.pathname);
  });
}

// The page shows its sign-in notice (with the text to copy) on the sign-in hosts too.
test('every site is reachable: its pages match its own prefixes, and they and its sign-in hosts lie inside the host permissions', () => {
  for (const [provider, site] of Object.entries(SITES)) {
    for (const url of [site.url, site.newChatUrl]) {
      assert.ok(site.matches.some((prefix) => url.startsWith(prefix)), `${provider}: ${url}`);
    }
    const signIn = site.loginHosts.map((host) => `https://${host}/login`);
    for (const url of [site.url, site.newChatUrl, ...site.matches, ...signIn]) {
      assert.ok(permitted(url), `${provider}: ${url} lacks a host permission`);
    }
  }
});

// Firefox runs the service worker's file as its background script, and knows the extension by the
// gecko ID that the build admits.
test('Chrome and Firefox start the same background file, and the gecko ID is the build\'s', () => {
  assert.deepEqual(manifest.background.scripts, [manifest.background.service_worker]);
  const cmakeDefault = read('../../CMakeLists.txt').match(/set\(VELNORA_FIREFOX_EXTENSION_ID\s+"([^"]*)"\s+CACHE/);
  assert.equal(manifest.browser_specific_settings?.gecko?.id, cmakeDefault?.[1]);
});

// The host manifest admits exactly one extension ID: the one Chrome derives from the manifest key.
test('the build option and this build name the ID Chrome derives from the manifest key', () => {
  const key = Buffer.from(manifest.key, 'base64');
  assert.ok(key.length > 200 && key[0] === 0x30, 'the manifest key is not a DER-encoded RSA public key');
  const digest = createHash('sha256').update(key).digest('hex');
  const derived = [...digest.slice(0, 32)].map((digit) => String.fromCharCode(97 + parseInt(digit, 16))).join('');
  const cmakeDefault = read('../../CMakeLists.txt').match(/set\(VELNORA_EXTENSION_ID\s+"([^"]*)"\s+CACHE/);
  assert.equal(cmakeDefault?.[1], derived, 'the cache default of VELNORA_EXTENSION_ID in CMakeLists.txt');
  const configured = process.env.VELNORA_CONFIGURED_EXTENSION_ID;
  assert.equal(configured ?? derived, derived, 'this build directory was configured for another extension');
});
