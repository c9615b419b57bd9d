// Browser mode end to end: a real headless Chromium with the companion extension, the real
// `velnora --native-host` started by Chromium, and loopback pages standing in for the seven chat
// sites. Each stand-in carries its site's markers around the editor that site uses (Tiptap, Lexical,
// Slate with React, Quill, React-controlled textareas; bundled from npm by standins/), and reports
// what the editor's own model held when it was sent. The stand-ins also run the page driver's
// lookups on themselves, so the adapters are checked against the browser's DOM.
import { after, before, describe, test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { existsSync, mkdirSync, readFileSync, readdirSync } from 'node:fs';
import { join } from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';

import {
  DELIVERY_DEADLINE_MS, DEPTH, EXPECTED_ID, FLAKY, PROVIDERS, SIGN_IN, VELNORA, assertExtensionStatus, cleanUp,
  composeExplainMessage, enqueue, enqueueExplain, lines, queued, sandbox, serveStandIns, startNewSession,
  startWakeSelfTest, statusOnceDisconnected, velnora, waitUntil,
} from './harness.mjs';

const CHROMIUM = process.env.VELNORA_CHROMIUM || '/usr/lib/chromium/chromium';

describe('browser mode through a real Chromium', { timeout: 180_000 }, () => {
  const box = sandbox('velnora-e2e-');
  const { root, env, dataDir } = box;
  const profile = join(box.home, '.config', 'chromium');
  let standIns;
  let chromium = null;
  let wake = null;
  const submissionsFor = (provider) => standIns.submissionsFor(provider);

  before(async () => {
    assert.ok(existsSync(CHROMIUM), `${CHROMIUM} is missing: scripts/install-deps.sh installs chromium`);
    mkdirSync(profile, { recursive: true });
    mkdirSync(join(root, 'empty-bin'));
    standIns = await serveStandIns(root);
  });

  after(() => cleanUp(box, standIns, [wake, chromium]));

  test('the wake self-test installs the host manifest and its request reaches the extension', async () => {
    // No browser on PATH: the self-test must not start one of its own; the test starts Chromium.
    const wakeRun = startWakeSelfTest(env, join(root, 'empty-bin'), 50_000);
    wake = wakeRun.child;

    const manifestPath = join(profile, 'NativeMessagingHosts', 'com.tarnwick.velnora.domestic.json');
    await waitUntil(() => existsSync(manifestPath), 10_000, 'host manifest in the Chromium profile');
    const hostManifest = JSON.parse(readFileSync(manifestPath, 'utf8'));
    assert.equal(hostManifest.path, VELNORA);
    assert.deepEqual(hostManifest.allowed_origins, [`chrome-extension://${EXPECTED_ID}/`],
      'the build admits another extension ID than the bundled one (reconfigure the build directory)');

    chromium = spawn(CHROMIUM, [
      '--headless=new', `--user-data-dir=${profile}`, '--no-sandbox', '--disable-gpu', '--no-first-run',
      '--no-default-browser-check', '--disable-background-networking', '--disable-component-update',
      '--disable-sync', '--disable-default-apps', '--disable-breakpad', '--metrics-recording-only',
      '--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1, EXCLUDE localhost',
      '--disable-features=DisableLoadExtensionCommandLineSwitch',
      `--load-extension=${join(root, 'extension')}`, 'about:blank',
    ], { env, stdio: ['ignore', 'ignore', 'inherit'], detached: true });

    await wakeRun.finished();
    assert.ok(standIns.state.pageLoads.some((load) => load.provider === 'kimi'), 'the Kimi page was never opened');
  });

  test('the host records the extension status; --bridge-status and the repair see the connection', async () => {
    const status = await assertExtensionStatus(dataDir, EXPECTED_ID);
    assert.ok(Math.abs(Date.now() / 1000 - status.updatedAt) < 120, `updatedAt ${status.updatedAt} is not seconds of now`);

    const result = await velnora(['--bridge-status'], env);
    assert.equal(result.code, 0, result.stdout + result.stderr);
    assert.equal(result.stdout.split('\n')[0], '● Chrome 已连接');
    const repair = await velnora(['--browser-repair-self-test'], { ...env, PATH: join(root, 'empty-bin') });
    assert.equal(repair.code, 0, repair.stdout + repair.stderr);
    assert.equal(repair.stdout.trim(), 'browser-repair-self-test: ok');
  });

  test('every site gets a multi-line request into its editor\'s model once, after the answer on screen', async () => {
    const sent = PROVIDERS.map((provider, index) => {
      const text = `  第 ${index + 1} 段：${provider} 的“边际效用递减”\n是什么意思？ <b>不是标签</b>\n`;
      return enqueueExplain(dataDir, provider, text);
    });
    await waitUntil(() => PROVIDERS.every((provider) => submissionsFor(provider).length > 0), 90_000,
      () => `submissions from every site (got ${JSON.stringify(standIns.state.submissions.map((s) => s.provider))}, ` +
        `notices ${JSON.stringify(standIns.state.notices)})`);
    await waitUntil(() => sent.every((record) => !queued(dataDir, record.id)), 10_000, 'every record acknowledged');
    // Retries and late answers would show up here.
    await sleep(2_500);
    assert.deepEqual(standIns.state.faults, [], 'a Stop control or another control was pressed');
    for (const { provider, text } of sent) {
      const [submission, ...more] = submissionsFor(provider);
      const expected = composeExplainMessage(text, DEPTH);
      assert.equal(more.length, 0, `${provider} submitted twice`);
      assert.deepEqual(lines(submission.text), lines(expected), provider);
      if (['deepseek', 'glm'].includes(provider)) {
        assert.equal(submission.text, expected, `${provider}: a textarea keeps the message exactly`);
      }
      // 千问's control acts on the pointer sequence only; the others take a click.
      assert.equal(submission.how, provider === 'qwen' ? 'pointer' : 'click', `${provider} was sent by ${submission.how}`);
    }
    // The first page load failed, the extension refused the request and the host sent it again.
    const flakyLoads = standIns.state.pageLoads.filter((load) => load.provider === FLAKY).length;
    assert.ok(flakyLoads >= 2, `${FLAKY} page loaded ${flakyLoads} time(s)`);
  });

  test('the adapters find each page\'s input and send control by their own selectors in the browser', () => {
    for (const provider of PROVIDERS) {
      const probe = standIns.state.probes.find((entry) => entry.provider === provider);
      assert.deepEqual(probe?.failed, [], `${provider}: failed page-driver checks or unreadable selectors`);
    }
  });

  test('the chosen provider is stored and serves requests that name none; a new session reloads its page', async () => {
    const choice = enqueue(dataDir, { provider: 'ernie', type: 'SET_BROWSER_PROVIDER' });
    const explain = enqueueExplain(dataDir, undefined, '没有指定服务的请求');
    await waitUntil(() => submissionsFor('ernie').length === 2, 30_000, 'the second ernie submission');
    assert.ok(submissionsFor('ernie')[1].text.includes(explain.text));
    const fresh = enqueue(dataDir, { type: 'NEW_SESSION' });
    await waitUntil(() => standIns.state.pageLoads.some((load) => load.provider === 'ernie' && load.page === 'new'),
      30_000, 'the new-session page of the stored provider');
    await waitUntil(() => [choice, explain, fresh].every((record) => !queued(dataDir, record.id)), 10_000,
      'provider, explain and new-session records acknowledged');
    assert.deepEqual(readdirSync(join(dataDir, 'PendingRequests')).filter((name) => name.endsWith('.json')), []);
  });

  test('the page self-check finds input, send control and sign-in without sending anything', async () => {
    const before = standIns.state.submissions.length;
    const result = await velnora(['--browser-page-check', 'kimi'], env);
    assert.equal(result.stdout, 'Kimi网页正常：已登录，输入框和发送按钮都找到了。\n', result.stderr);
    assert.equal(result.code, 0);
    const unknown = await velnora(['--browser-page-check', 'chatgpt'], env);
    assert.equal(unknown.code, 2);
    assert.match(unknown.stderr, /不认识的网页服务“chatgpt”，可选：doubao、deepseek/);
    assert.equal(standIns.state.submissions.length, before, 'the check sent something');
  });

  test('a page answering past the delivery deadline is left alone and gets the request once it is done', async () => {
    const provider = 'hunyuan';
    standIns.state.longAnswer.set(provider, DELIVERY_DEADLINE_MS + 5_000);
    await startNewSession(dataDir, provider);
    const openedAt = Date.now();
    const before = submissionsFor(provider).length;
    const explain = enqueueExplain(dataDir, provider, '回答很长的时候');
    await waitUntil(() => submissionsFor(provider).length > before, DELIVERY_DEADLINE_MS + 30_000, 'the delivery after the answer');
    assert.ok(Date.now() - openedAt >= DELIVERY_DEADLINE_MS, 'sent before the answer on screen ended');
    await waitUntil(() => !queued(dataDir, explain.id), 10_000, 'the record acknowledged');
    // The attempt the deadline ended must not type or send late.
    await sleep(3_000);
    assert.equal(submissionsFor(provider).length, before + 1);
    assert.ok(submissionsFor(provider).at(-1).text.includes(explain.text));
    assert.deepEqual(standIns.state.faults, []);
    standIns.state.longAnswer.delete(provider);
  });

  test('a page that no longer fits its markers degrades to a notice or to Enter, never to a wrong click', async (t) => {
    t.after(() => {
      standIns.state.stale.clear();
      standIns.state.swallow.clear();
    });
    const cases = [
      {
        name: 'input markers changed', provider: 'glm', notice: '没能在这个页面找到智谱清言的输入框', sent: [],
        stale: [['id="search-input-box"', 'id="chat-box-v3"'], ['main-chat-search', 'chat-search-v3']],
      },
      { name: 'send control marker changed', provider: 'ernie', stale: [['id="sendBtn"', 'id="sendBtnV2"']], sent: ['enter'] },
      {
        name: 'the box empties but nothing shows up', provider: 'kimi', swallow: true, sent: ['click'],
        notice: 'Kimi的页面没有显示这条提问',
      },
    ];
    for (const row of cases) {
      standIns.state.stale.set(row.provider, row.stale ?? []);
      if (row.swallow) {
        standIns.state.swallow.add(row.provider);
      }
      await startNewSession(dataDir, row.provider);
      const before = submissionsFor(row.provider).length;
      const noticesBefore = standIns.state.notices.length;
      const explain = enqueueExplain(dataDir, row.provider, row.name);
      // Answered either way: retrying could not help, and could send twice.
      await waitUntil(() => !queued(dataDir, explain.id), 40_000, `${row.name}: the record answered`);
      await sleep(2_500);
      const notices = standIns.state.notices.slice(noticesBefore).filter((entry) => entry.provider === row.provider);
      assert.equal(notices.length, row.notice ? 1 : 0, row.name);
      assert.ok(!row.notice || notices[0].text.includes(row.notice), `${row.name}: ${notices[0]?.text}`);
      assert.deepEqual(submissionsFor(row.provider).slice(before).map((entry) => entry.how), row.sent, row.name);
      assert.deepEqual(standIns.state.faults, [], row.name);
    }
  });

  test('a sign-in on another host keeps the request queued in the same tab and delivers it once after', async () => {
    standIns.state.signedOut.add(SIGN_IN);
    await startNewSession(dataDir, SIGN_IN);
    const loads = () => standIns.state.pageLoads.filter((load) => [SIGN_IN, 'passport'].includes(load.provider)).length;
    const loadsBefore = loads();
    const explain = enqueueExplain(dataDir, SIGN_IN, '需要先登录的请求');
    // Three host retries (2, 4 s): no new tab, no reload, nothing sent, the record still queued.
    await sleep(7_000);
    assert.equal(loads(), loadsBefore, 'the site or its sign-in page was loaded again');
    assert.ok(queued(dataDir, explain.id), 'the request was dropped while the user was signing in');
    assert.equal(submissionsFor(SIGN_IN).filter((entry) => entry.text.includes(explain.text)).length, 0);
    const check = await velnora(['--browser-page-check', SIGN_IN], env);
    assert.equal(check.stdout, '文心一言（ERNIE）需要登录：请在浏览器里打开的页面上登录，再点「检测网页」。\n', check.stderr);
    assert.equal(check.code, 1);
    assert.equal(loads(), loadsBefore, 'the self-check opened the site again');

    standIns.state.signedOut.delete(SIGN_IN);
    standIns.state.passport = 'signed-in';
    await waitUntil(() => submissionsFor(SIGN_IN).some((entry) => entry.text.includes(explain.text)), 30_000,
      'the delivery after signing in');
    await waitUntil(() => !queued(dataDir, explain.id), 10_000, 'the delivered record acknowledged');
    await sleep(2_500);
    assert.equal(submissionsFor(SIGN_IN).filter((entry) => entry.text.includes(explain.text)).length, 1);
    assert.equal(loads(), loadsBefore + 1, 'only the way back from the sign-in page loaded the site');
    assert.deepEqual(standIns.state.faults, []);
  });

  test('once the browser is gone --bridge-status no longer reports connected', async () => {
    const exited = chromium.exitCode === null ? once(chromium, 'exit', { signal: AbortSignal.timeout(15_000) }) : null;
    process.kill(-chromium.pid, 'SIGTERM');
    await exited?.catch(() => process.kill(-chromium.pid, 'SIGKILL'));
    assert.notEqual((await statusOnceDisconnected(env))[0], '● Chrome 已连接');
  });
});
