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
import { existsSync, mkdirSync, mkdtempSync, readFileSync, readdirSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';

import {
  DELIVERY_DEADLINE_MS, DEPTH, EXPECTED_ID, FLAKY, PROVIDERS, SIGN_IN, VELNORA, buildStandIns, composeExplainMessage,
  enqueue, extensionCopy, startWakeSelfTest, queued, read, standInSites, startStandIns, velnora, waitUntil,
} from './harness.mjs';

const CHROMIUM = process.env.VELNORA_CHROMIUM || '/usr/lib/chromium/chromium';

// --- the run ------------------------------------------------------------------------------------

describe('browser mode through a real Chromium', { timeout: 180_000 }, () => {
  let root;
  let env;
  let dataDir;
  let profile;
  let standIns;
  let chromium = null;
  let wake = null;

  const submissionsFor = (provider) => standIns.state.submissions.filter((entry) => entry.provider === provider);

  before(async () => {
    assert.ok(existsSync(CHROMIUM), `${CHROMIUM} is missing: scripts/install-deps.sh installs chromium`);
    root = mkdtempSync(join(tmpdir(), 'velnora-e2e-'));
    const home = join(root, 'home');
    dataDir = join(root, 'data');
    profile = join(home, '.config', 'chromium');
    for (const dir of [join(root, 'tmp'), join(root, 'empty-bin'), profile, join(home, '.local/share'), join(home, '.cache')]) {
      mkdirSync(dir, { recursive: true });
    }
    env = {
      ...process.env,
      HOME: home,
      TMPDIR: join(root, 'tmp'),
      XDG_CONFIG_HOME: join(home, '.config'),
      XDG_DATA_HOME: join(home, '.local/share'),
      XDG_CACHE_HOME: join(home, '.cache'),
      VELNORA_DATA_DIR: dataDir,
    };
    buildStandIns(join(root, 'bundles'));
    standIns = await startStandIns(join(root, 'bundles'));
    standIns.state.sites = standInSites(standIns.origin);
    extensionCopy(join(root, 'extension'), standIns.state.sites);
  });

  after(() => {
    for (const child of [wake, chromium]) {
      if (child && child.exitCode === null && child.signalCode === null) {
        process.kill(-child.pid, 'SIGKILL');
      }
    }
    standIns?.server.close();
    if (root) {
      rmSync(root, { recursive: true, force: true });
    }
  });

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
    const statusPath = join(dataDir, 'extension-status.json');
    await waitUntil(() => existsSync(statusPath), 10_000, 'extension-status.json');
    const status = JSON.parse(readFileSync(statusPath, 'utf8'));
    assert.equal(status.extensionID, EXPECTED_ID);
    assert.equal(status.version, JSON.parse(read('extension/manifest.json')).version);
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
      return enqueue(dataDir, { depthInstruction: DEPTH, provider, text, type: 'EXPLAIN_TEXT' });
    });
    await waitUntil(() => PROVIDERS.every((provider) => submissionsFor(provider).length > 0), 90_000,
      () => `submissions from every site (got ${JSON.stringify(standIns.state.submissions.map((s) => s.provider))}, ` +
        `notices ${JSON.stringify(standIns.state.notices)})`);
    await waitUntil(() => sent.every((record) => !queued(dataDir, record.id)), 10_000, 'every record acknowledged');
    // Retries and late answers would show up here.
    await sleep(2_500);
    assert.deepEqual(standIns.state.faults, [], 'a Stop control or another control was pressed');
    const lines = (message) => message.split('\n').map((line) => line.trim()).filter(Boolean);
    for (const { provider, text } of sent) {
      const [submission, ...more] = submissionsFor(provider);
      const expected = composeExplainMessage(text, DEPTH);
      assert.equal(more.length, 0, `${provider} submitted twice`);
      // Rich editors keep lines as paragraphs; characters and line structure must survive.
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
    const explain = enqueue(dataDir, { depthInstruction: DEPTH, text: '没有指定服务的请求', type: 'EXPLAIN_TEXT' });
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
    const fresh = enqueue(dataDir, { provider, type: 'NEW_SESSION' });
    await waitUntil(() => !queued(dataDir, fresh.id), 30_000, 'the new-session record acknowledged');
    const openedAt = Date.now();
    const before = submissionsFor(provider).length;
    const explain = enqueue(dataDir, { depthInstruction: DEPTH, provider, text: '回答很长的时候', type: 'EXPLAIN_TEXT' });
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
        name: 'input markers changed', provider: 'glm',
        stale: [['id="search-input-box"', 'id="chat-box-v3"'], ['main-chat-search', 'chat-search-v3']],
        notice: '澜镜：没能在这个页面找到智谱清言的输入框，网页可能改版了。可以复制下面的内容手动发送，' +
          '或在澜镜设置里换一个网页服务。复制内容关闭',
        sent: [],
      },
      { name: 'send control marker changed', provider: 'ernie', stale: [['id="sendBtn"', 'id="sendBtnV2"']], sent: ['enter'] },
      {
        name: 'the box empties but nothing shows up', provider: 'kimi', swallow: true,
        notice: '澜镜：内容已从输入框发出，但Kimi的页面没有显示这条提问，请确认后再试。关闭',
        sent: ['click'],
      },
    ];
    for (const row of cases) {
      standIns.state.stale.set(row.provider, row.stale ?? []);
      if (row.swallow) {
        standIns.state.swallow.add(row.provider);
      }
      const fresh = enqueue(dataDir, { provider: row.provider, type: 'NEW_SESSION' });
      await waitUntil(() => !queued(dataDir, fresh.id), 30_000, `${row.name}: the new-session record acknowledged`);
      const before = submissionsFor(row.provider).length;
      const noticesBefore = standIns.state.notices.length;
      const explain = enqueue(dataDir, { depthInstruction: DEPTH, provider: row.provider, text: row.name, type: 'EXPLAIN_TEXT' });
      // Answered either way: retrying could not help, and could send twice.
      await waitUntil(() => !queued(dataDir, explain.id), 40_000, `${row.name}: the record answered`);
      await sleep(2_500);
      const notices = standIns.state.notices.slice(noticesBefore).filter((entry) => entry.provider === row.provider);
      assert.deepEqual(notices.map((entry) => entry.text), row.notice ? [row.notice] : [], row.name);
      assert.deepEqual(submissionsFor(row.provider).slice(before).map((entry) => entry.how), row.sent, row.name);
      assert.deepEqual(standIns.state.faults, [], row.name);
    }
  });

  test('a sign-in on another host keeps the request queued in the same tab and delivers it once after', async () => {
    standIns.state.signedOut.add(SIGN_IN);
    const fresh = enqueue(dataDir, { provider: SIGN_IN, type: 'NEW_SESSION' });
    await waitUntil(() => !queued(dataDir, fresh.id), 30_000, 'the new-session record acknowledged');
    const loads = () => standIns.state.pageLoads.filter((load) => [SIGN_IN, 'passport'].includes(load.provider)).length;
    const loadsBefore = loads();
    const explain = enqueue(dataDir, { depthInstruction: DEPTH, provider: SIGN_IN, text: '需要先登录的请求', type: 'EXPLAIN_TEXT' });
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
    const result = await waitUntil(async () => {
      const status = await velnora(['--bridge-status'], env);
      return status.code !== 0 ? status : null;
    }, 15_000, '--bridge-status to stop reporting connected');
    assert.equal(result.code, 2);
    assert.notEqual(result.stdout.split('\n')[0], '● Chrome 已连接');
  });
});
