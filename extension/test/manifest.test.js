// The manifest and the site table must agree: a site outside the host permissions cannot be
// scripted, and a selector the page cannot parse finds nothing.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';

import { DEFAULT_PROVIDER, SITES } from '../lib/sites.js';
import { compareVersions } from '../lib/version.js';
import { parseHTML } from './support/minidom.js';

const manifest = JSON.parse(readFileSync(new URL('../manifest.json', import.meta.url), 'utf8'));
const PROVIDERS = ['doubao', 'deepseek', 'qwen', 'kimi', 'glm', 'hunyuan', 'ernie'];

function permitted(url) {
  return manifest.host_permissions.some((pattern) => {
    const [, scheme, host, path] = pattern.match(/^(\w+):\/\/([^/]+)(\/.*)$/);
    const target = new URL(url);
    const pathPattern = new RegExp(`^${path.replace(/[.+?^${}()|[\]\\]/g, '\\$&').replace(/\*/g, '.*')}$`);
    return target.protocol === `${scheme}:` && target.hostname === host && pathPattern.test(target.pathname);
  });
}

test('the manifest names the extension the diagnosis points users to, at a version the host accepts', () => {
  assert.equal(manifest.manifest_version, 3);
  assert.equal(manifest.name, '澜镜 · 网页会话桥');
  assert.ok(compareVersions(manifest.version, '2.11.1') >= 0);
  assert.match(manifest.key, /^[A-Za-z0-9+/]+=*$/);
  assert.deepEqual(new Set(manifest.permissions),
    new Set(['nativeMessaging', 'tabs', 'scripting', 'storage', 'background', 'alarms']));
});

test('the site table covers the seven services and nothing else', () => {
  assert.deepEqual(Object.keys(SITES).sort(), [...PROVIDERS].sort());
  assert.ok(PROVIDERS.includes(DEFAULT_PROVIDER));
});

test('every site is reachable: its pages match its own prefixes and lie inside the host permissions', () => {
  for (const [provider, site] of Object.entries(SITES)) {
    for (const url of [site.url, site.newChatUrl]) {
      assert.ok(site.matches.some((prefix) => url.startsWith(prefix)), `${provider}: ${url}`);
      assert.ok(permitted(url), `${provider}: ${url} lacks a host permission`);
    }
    for (const prefix of site.matches) {
      assert.ok(permitted(prefix), `${provider}: ${prefix} lacks a host permission`);
    }
    assert.ok(site.title && site.input.length > 0, provider);
  }
});

test('every adapter selector is well formed', () => {
  const doc = parseHTML('<div></div>');
  for (const [provider, site] of Object.entries(SITES)) {
    for (const selector of [...site.input, ...site.submit, ...site.login]) {
      assert.doesNotThrow(() => doc.querySelectorAll(selector), `${provider}: ${selector}`);
    }
  }
});
