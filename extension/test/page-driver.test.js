// The adapters against saved structures of the chat pages: which element is the input, which is
// the send button, and when the page wants a login instead.
import { test, describe } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import vm from 'node:vm';

import { SITES } from '../lib/sites.js';
import { parseHTML } from './support/minidom.js';

const here = new URL('.', import.meta.url);
const context = vm.createContext({ setTimeout, clearTimeout });
vm.runInContext(readFileSync(new URL('../content/page-driver.js', here), 'utf8'), context);
const driver = context.VelnoraPageDriver;

const fixture = (name) => parseHTML(readFileSync(new URL(`fixtures/${name}.html`, here), 'utf8'));
const expected = (doc, role) => doc.querySelector(`[data-expect="${role}"]`);

describe('each site adapter on its saved page', () => {
  for (const provider of Object.keys(SITES)) {
    test(provider, () => {
      const doc = fixture(provider);
      const site = SITES[provider];
      const input = driver.findInput(doc, site, { fallback: false });
      assert.ok(input, 'the site selectors find no input');
      assert.equal(input, expected(doc, 'input'));
      assert.equal(driver.findSubmit(doc, site, input), expected(doc, 'submit'));
      assert.equal(driver.loginRequired(doc, site.url, site), false);
      assert.equal(driver.isBusy(input), false);
    });
  }
});

describe('input finding', () => {
  const bare = { title: '测试', input: [], submit: [], login: [], loginUrl: [] };

  test('the generic fallback skips search boxes, read-only and hidden fields', () => {
    const doc = fixture('generic-chat');
    const input = driver.findInput(doc, bare);
    assert.equal(input, expected(doc, 'input'));
    assert.equal(driver.findSubmit(doc, bare, input), expected(doc, 'submit'));
  });

  test('the generic fallback does not take a disabled field, the site selector does and reports it busy', () => {
    const doc = fixture('busy');
    assert.equal(driver.findInput(doc, bare), null);
    const input = driver.findInput(doc, SITES.glm);
    assert.ok(input);
    assert.equal(driver.isBusy(input), true);
  });

  test('a selector naming the editor wrapper yields the editable element inside it', () => {
    const doc = parseHTML('<div class="editor"><div class="toolbar"></div><div contenteditable="true" id="e"></div></div>');
    const input = driver.findInput(doc, { ...bare, input: ['.editor'] });
    assert.equal(input.id, 'e');
  });

  test('our own notice is never taken for the page input', () => {
    const doc = parseHTML('<div id="velnora-bridge-notice"><textarea readonly></textarea></div><div class="x"></div>');
    assert.equal(driver.findInput(doc, bare), null);
  });

  test('a DeepSeek page sends with Enter: no send button is guessed among its icon buttons', () => {
    const doc = fixture('deepseek');
    const input = driver.findInput(doc, SITES.deepseek);
    assert.equal(driver.findSubmit(doc, SITES.deepseek, input), null);
  });
});

describe('login detection', () => {
  test('a redirect to the sign-in page means login, whatever the page shows', () => {
    const doc = fixture('deepseek');
    assert.equal(driver.loginRequired(doc, 'https://chat.deepseek.com/sign_in', SITES.deepseek), true);
  });

  test('a visible login dialog means login even though the input exists', () => {
    assert.equal(driver.loginRequired(fixture('kimi-login'), SITES.kimi.url, SITES.kimi), true);
  });

  test('a page with a phone field and a login link and no chat input looks like a login wall', () => {
    const doc = fixture('login-wall');
    assert.equal(driver.findInput(doc, SITES.doubao), null);
    assert.equal(driver.looksLikeLogin(doc), true);
  });

  test('an ordinary chat page with a login button in a corner is not a login wall by itself', () => {
    const doc = parseHTML('<header><button>登录</button></header><textarea data-testid="chat_input_input"></textarea>');
    assert.equal(driver.loginRequired(doc, SITES.doubao.url, SITES.doubao), false);
    assert.ok(driver.findInput(doc, SITES.doubao));
  });
});
