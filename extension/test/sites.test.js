import { test } from 'node:test';
import assert from 'node:assert/strict';

import { SITES, isSignInAddress } from '../lib/sites.js';

test('a tab counts as signing in on the site\'s sign-in hosts and its own sign-in paths only', () => {
  const cases = [
    ['ernie', 'https://passport.baidu.com/v2/?login&u=https%3A%2F%2Fyiyan.baidu.com%2F', true],
    ['ernie', 'https://yiyan.baidu.com/chat/123', false],
    ['hunyuan', 'https://graph.qq.com/oauth2.0/show?which=Login', true],
    ['hunyuan', 'https://yuanbao.tencent.com/login', true],
    ['hunyuan', 'https://yuanbao.tencent.com/chat/login-help', true],
    ['deepseek', 'https://chat.deepseek.com/sign_in', true],
    ['deepseek', 'https://chat.deepseek.com/a/chat/s/1', false],
    // Another site's sign-in page, or a query that only mentions one, is not this site's.
    ['deepseek', 'https://passport.baidu.com/v2/', false],
    ['doubao', 'https://www.doubao.com/chat/?from=/login', false],
    ['kimi', 'not a url', false],
  ];
  for (const [provider, url, expected] of cases) {
    assert.equal(isSignInAddress(SITES[provider], url), expected, `${provider} ${url}`);
  }
});
