// Browser mode end to end: a real headless Chromium with the companion extension, the real
// `velnora --native-host` started by Chromium, and loopback pages standing in for the seven chat
// sites (built from the extension's saved page structures). The stand-ins also load the page driver
// into their own page, so the site adapters are checked against the browser's DOM, not a copy of it.
import { after, before, describe, test } from 'node:test';
import assert from 'node:assert/strict';
import { execFile, spawn } from 'node:child_process';
import { randomUUID } from 'node:crypto';
import { once } from 'node:events';
import {
  cpSync, existsSync, mkdirSync, mkdtempSync, readFileSync, readdirSync, renameSync, rmSync, writeFileSync,
} from 'node:fs';
import http from 'node:http';
import { tmpdir } from 'node:os';
import { join, relative } from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';
import { pathToFileURL } from 'node:url';
import { promisify } from 'node:util';

const SOURCE = process.env.VELNORA_SOURCE_DIR;
const VELNORA = process.env.VELNORA_BINARY;
const CHROMIUM = process.env.VELNORA_CHROMIUM || '/usr/lib/chromium/chromium';
const EXPECTED_ID = process.env.VELNORA_CONFIGURED_EXTENSION_ID;

const { DEFAULT_PROVIDER, SITES } = await import(pathToFileURL(join(SOURCE, 'extension/lib/sites.js')));
const { composeExplainMessage } = await import(pathToFileURL(join(SOURCE, 'extension/lib/compose.js')));
const PROVIDERS = Object.keys(SITES);
// This stand-in drops the connection on its first page load, so its first delivery fails.
const FLAKY = 'glm';
const DEPTH = '先用一句话说明核心含义，再根据材料难度补充关键词、逻辑和必要例子。';
const read = (path) => readFileSync(join(SOURCE, path), 'utf8');
const fixture = (name) => read(`extension/test/fixtures/${name}.html`);

// Exit code and output of a finished run, whatever the code.
const velnora = (args, env) =>
  promisify(execFile)(VELNORA, args, { env, timeout: 30_000 }).then((out) => ({ code: 0, ...out }), (error) => error);

async function waitUntil(probe, timeoutMs, what) {
  const end = Date.now() + timeoutMs;
  let value;
  while (!(value = await probe())) {
    if (Date.now() > end) {
      throw new Error(`等待超时（${timeoutMs} ms）：${what}`);
    }
    await sleep(100);
  }
  return value;
}

// --- stand-in chat sites ------------------------------------------------------------------------

// Behaves like a chat page: the send control wakes up on input, sending reports what the input
// holds and empties it. Whether every input event was trusted is reported too. Before any of
// that, the page driver's lookups run on this page and on fragments briefly inserted into it
// (so that visibility is the browser's); they are gone before the extension looks.
const PAGE_SCRIPT = `
(() => {
  const report = (kind, fields) =>
    fetch('/' + kind + '?' + new URLSearchParams({ json: JSON.stringify({ provider: PROVIDER, ...fields }) }));
  new MutationObserver(() => {
    const notice = document.getElementById('velnora-bridge-notice');
    if (notice && !notice.dataset.reported) {
      notice.dataset.reported = 'yes';
      report('notices', { kind: notice.getAttribute('data-kind'), text: notice.shadowRoot.textContent });
    }
  }).observe(document.documentElement, { childList: true, subtree: true });
  const expected = (scope, role) => scope.querySelector('[data-expect="' + role + '"]');
  const input = expected(document, 'input');
  const submit = expected(document, 'submit');
  if (!input) return;
  const driver = VelnoraPageDriver;
  const bare = { input: [], submit: [] };
  const inFragment = (name, check) => {
    const box = document.body.appendChild(document.createElement('div'));
    box.innerHTML = FRAGMENTS[name];
    try {
      return check(box, expected(box, 'input'), expected(box, 'submit'));
    } finally {
      box.remove();
    }
  };
  const checks = {
    input: driver.findInput(document, SITES[PROVIDER], { fallback: false }) === input,
    submit: driver.findSubmit(document, SITES[PROVIDER], input) === submit,
    fallbackSkipsSearchAndReadOnly: inFragment('generic-chat', (box, field, button) =>
      driver.findInput(box, bare) === field && driver.findSubmit(box, bare, field) === button),
    disabledFieldIsBusy: inFragment('busy', (box) =>
      driver.findInput(box, bare) === null && driver.isBusy(driver.findInput(box, SITES.glm))),
    loginWall: inFragment('login-wall', (box) =>
      driver.findInput(box, SITES.doubao) === null && driver.looksLikeLogin(box)),
  };
  const selectors = Object.values(SITES).flatMap((site) => [...site.input, ...site.submit, ...site.login]);
  report('probes', { failed: [
    ...Object.keys(checks).filter((name) => checks[name] !== true),
    ...selectors.filter((selector) => !CSS.supports('selector(' + selector + ')')),
  ] });
  let trusted = true;
  let inputEvents = 0;
  const textOf = () => (input.tagName === 'TEXTAREA' ? input.value : input.innerText);
  const disabled = () => submit.disabled === true || /disabled/.test(submit.getAttribute('class') || '');
  const setEnabled = (on) => {
    if (!submit) return;
    if (submit.tagName === 'BUTTON') submit.disabled = !on;
    const classes = (submit.getAttribute('class') || '').split(/\\s+/).filter((c) => c && !/disabled/.test(c));
    if (!on) classes.push('disabled');
    submit.setAttribute('class', classes.join(' '));
  };
  input.addEventListener('input', (event) => {
    inputEvents += 1;
    trusted = trusted && event.isTrusted;
    setEnabled(textOf().trim() !== '');
  });
  const send = (how) => {
    const text = textOf();
    if (text.trim() === '') return;
    report('submissions', { text, trusted, inputEvents, how });
    if (input.tagName === 'TEXTAREA') input.value = ''; else input.innerHTML = '<p><br></p>';
    setEnabled(false);
  };
  if (submit) submit.addEventListener('click', () => { if (!disabled()) send('click'); });
  input.addEventListener('keydown', (event) => {
    if (event.key === 'Enter' && !event.shiftKey) { event.preventDefault(); send('enter'); }
  });
})();`;

function startStandIns() {
  const pages = Object.fromEntries([...PROVIDERS, 'kimi-login'].map((name) => [name, fixture(name)]));
  const fragments = Object.fromEntries(['generic-chat', 'busy', 'login-wall'].map((name) => [name, fixture(name)]));
  const head = `<script>${read('extension/content/page-driver.js')}</script><script>const SITES = ` +
    `${JSON.stringify(SITES)}; const FRAGMENTS = ${JSON.stringify(fragments)};</script>`;
  const state = { pageLoads: [], submissions: [], notices: [], probes: [], loginWall: new Set() };
  const server = http.createServer((request, response) => {
    const url = new URL(request.url, 'http://127.0.0.1');
    const [, name, page] = url.pathname.split('/');
    if (['submissions', 'notices', 'probes'].includes(name)) {
      state[name].push(JSON.parse(url.searchParams.get('json')));
      response.end('ok');
      return;
    }
    if (!SITES[name] || (page !== 'chat' && page !== 'new')) {
      response.writeHead(404).end();
      return;
    }
    const earlier = state.pageLoads.filter((load) => load.provider === name).length;
    state.pageLoads.push({ provider: name, page });
    if (name === FLAKY && earlier === 0) {
      request.socket.destroy();
      return;
    }
    const script = `${head}<script>const PROVIDER = ${JSON.stringify(name)};${PAGE_SCRIPT}</script>`;
    response.writeHead(200, { 'content-type': 'text/html; charset=utf-8', 'cache-control': 'no-store' });
    response.end(pages[state.loginWall.has(name) ? 'kimi-login' : name].replace('</body>', () => `${script}</body>`));
  });
  return new Promise((resolve) => {
    server.listen(0, '127.0.0.1', () => resolve({ server, state, origin: `http://127.0.0.1:${server.address().port}` }));
  });
}

// The extension as shipped, except that its site table and host permissions point at the stand-ins.
function extensionCopy(target, origin) {
  const shipped = join(SOURCE, 'extension');
  cpSync(shipped, target, { recursive: true, filter: (path) => !relative(shipped, path).startsWith('test') });
  const sites = Object.fromEntries(Object.entries(SITES).map(([provider, site]) => [provider, {
    ...site,
    url: `${origin}/${provider}/chat`,
    newChatUrl: `${origin}/${provider}/new`,
    matches: [`${origin}/${provider}/`],
  }]));
  writeFileSync(join(target, 'lib/sites.js'),
    `export const DEFAULT_PROVIDER = ${JSON.stringify(DEFAULT_PROVIDER)};\nexport const SITES = ${JSON.stringify(sites)};\n`);
  const manifest = JSON.parse(read('extension/manifest.json'));
  writeFileSync(join(target, 'manifest.json'), JSON.stringify({ ...manifest, host_permissions: ['http://127.0.0.1/*'] }));
}

// A queue record written the way the application writes it: a private file renamed into place.
// The host serves records by createdAt, so records written in the same millisecond must still differ.
function enqueue(dataDir, fields) {
  const queue = join(dataDir, 'PendingRequests');
  mkdirSync(queue, { recursive: true, mode: 0o700 });
  const record = { createdAt: performance.timeOrigin + performance.now(), id: randomUUID(), ...fields };
  writeFileSync(join(queue, `.${record.id}.tmp`), JSON.stringify(record), { mode: 0o600 });
  renameSync(join(queue, `.${record.id}.tmp`), join(queue, `${record.id}.json`));
  return record;
}

const queued = (dataDir, id) => existsSync(join(dataDir, 'PendingRequests', `${id}.json`));

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
    standIns = await startStandIns();
    extensionCopy(join(root, 'extension'), standIns.origin);
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
    wake = spawn(VELNORA, ['--browser-wake-self-test'], {
      env: { ...env, PATH: join(root, 'empty-bin') }, stdio: ['ignore', 'pipe', 'inherit'], detached: true,
    });
    let wakeOutput = '';
    wake.stdout.on('data', (chunk) => { wakeOutput += chunk; });
    const wakeDone = once(wake, 'close', { signal: AbortSignal.timeout(50_000) }).catch(() => ['timeout']);

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
      '--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1',
      '--disable-features=DisableLoadExtensionCommandLineSwitch',
      `--load-extension=${join(root, 'extension')}`, 'about:blank',
    ], { env, stdio: ['ignore', 'ignore', 'inherit'], detached: true });

    const [code] = await wakeDone;
    // Its diagnosis and Chromium's log are on stderr, shown with the failure.
    assert.equal(code, 0, `wake self-test: ${wakeOutput}`);
    assert.match(wakeOutput, /^browser-wake-self-test: ok$/m);
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

  test('every site gets its explanation typed and sent once, the one whose page failed after a retry', async () => {
    const sent = PROVIDERS.map((provider, index) => {
      const text = `  第 ${index + 1} 段：${provider} 的“边际效用递减”\n是什么意思？ <b>不是标签</b>\n`;
      return enqueue(dataDir, { depthInstruction: DEPTH, provider, text, type: 'EXPLAIN_TEXT' });
    });
    await waitUntil(() => PROVIDERS.every((provider) => submissionsFor(provider).length > 0), 90_000,
      `submissions from every site (got ${JSON.stringify(standIns.state.submissions.map((s) => s.provider))})`);
    for (const { provider, text } of sent) {
      const [submission, ...more] = submissionsFor(provider);
      const expected = composeExplainMessage(text, DEPTH);
      assert.equal(more.length, 0, `${provider} submitted twice`);
      // Rich editors turn each line into a paragraph; line structure and characters must survive.
      const lines = (message) => message.split('\n').map((line) => line.trim()).filter(Boolean);
      assert.deepEqual(lines(submission.text), lines(expected), provider);
      if (SITES[provider].input.some((selector) => selector.includes('textarea'))) {
        assert.equal(submission.text, expected, `${provider}: a textarea keeps the message exactly`);
      }
      assert.equal(submission.trusted, true, `${provider}: the page saw untrusted input`);
      assert.ok(submission.inputEvents > 0, `${provider}: the page saw no input event`);
      // The send control starts disabled: clicking it before the page enabled it would end in Enter.
      const how = fixture(provider).includes('data-expect="submit"') ? 'click' : 'enter';
      assert.equal(submission.how, how, `${provider} sends with ${how}`);
    }
    await waitUntil(() => sent.every((record) => !queued(dataDir, record.id)), 10_000, 'every record acknowledged');
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

  test('a page that wants a login shows the user a notice; the request is answered, not retried', async () => {
    standIns.state.loginWall.add('kimi');
    const fresh = enqueue(dataDir, { provider: 'kimi', type: 'NEW_SESSION' });
    await waitUntil(() => !queued(dataDir, fresh.id), 30_000, 'the Kimi new-session record acknowledged');
    const loadsBefore = standIns.state.pageLoads.length;
    const explain = enqueue(dataDir, { depthInstruction: DEPTH, provider: 'kimi', text: '需要登录', type: 'EXPLAIN_TEXT' });
    const notice = await waitUntil(() => standIns.state.notices.find((entry) => entry.provider === 'kimi'), 30_000,
      'the login notice on the Kimi page');
    assert.equal(notice.kind, 'login');
    assert.equal(notice.text, '澜镜：请先在这个页面登录Kimi。登录后重新划词，解释请求就会发到这里。关闭');
    await waitUntil(() => !queued(dataDir, explain.id), 10_000, 'the login-blocked record acknowledged');
    // Two more host scans: a refused request would come back after 2 s and load the page again.
    await sleep(2_500);
    assert.equal(standIns.state.pageLoads.length, loadsBefore, 'the page was loaded again');
    assert.equal(submissionsFor('kimi').length, 1);
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
