// Browser mode end to end: a real headless Chromium with the companion extension, the real
// `velnora --native-host` started by Chromium, and loopback pages standing in for the seven chat
// sites (built from the extension's saved page structures).
import { after, before, describe, test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { randomUUID } from 'node:crypto';
import {
  cpSync, existsSync, mkdirSync, mkdtempSync, readFileSync, readdirSync, renameSync, rmSync, writeFileSync,
} from 'node:fs';
import http from 'node:http';
import { tmpdir } from 'node:os';
import { join, relative } from 'node:path';
import { pathToFileURL } from 'node:url';

const SOURCE = process.env.VELNORA_SOURCE_DIR;
const VELNORA = process.env.VELNORA_BINARY;
const CHROMIUM = process.env.VELNORA_CHROMIUM || '/usr/lib/chromium/chromium';
const EXPECTED_ID = process.env.VELNORA_CONFIGURED_EXTENSION_ID;
const HOST_MANIFEST = 'com.tarnwick.velnora.domestic.json';

const { SITES } = await import(pathToFileURL(join(SOURCE, 'extension/lib/sites.js')));
const { composeExplainMessage } = await import(pathToFileURL(join(SOURCE, 'extension/lib/compose.js')));
const PROVIDERS = Object.keys(SITES);
// This stand-in drops the connection on its first page load, so its first delivery fails.
const FLAKY = 'glm';
const DEPTH = '先用一句话说明核心含义，再根据材料难度补充关键词、逻辑和必要例子。';

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
// A deadline that does not keep the test process alive once everything else is done.
const deadline = (ms, value) => new Promise((resolve) => setTimeout(resolve, ms, value).unref());

async function waitUntil(probe, timeoutMs, what) {
  const deadline = Date.now() + timeoutMs;
  for (;;) {
    const value = await probe();
    if (value) {
      return value;
    }
    if (Date.now() > deadline) {
      throw new Error(`等待超时（${timeoutMs} ms）：${what}`);
    }
    await sleep(100);
  }
}

function run(command, args, env, timeoutMs) {
  return new Promise((resolve, reject) => {
    const child = spawn(command, args, { env, stdio: ['ignore', 'pipe', 'pipe'] });
    let stdout = '';
    let stderr = '';
    child.stdout.on('data', (chunk) => { stdout += chunk; });
    child.stderr.on('data', (chunk) => { stderr += chunk; });
    const timer = setTimeout(() => child.kill('SIGKILL'), timeoutMs);
    child.on('error', (error) => { clearTimeout(timer); reject(error); });
    child.on('close', (code, signal) => { clearTimeout(timer); resolve({ code, signal, stdout, stderr }); });
  });
}

// --- stand-in chat sites ------------------------------------------------------------------------

// Behaves like a chat page: the send control wakes up on input, sending posts what the input
// holds and empties it. Whether every input event was trusted is reported too.
const PAGE_SCRIPT = `
(() => {
  new MutationObserver(() => {
    const notice = document.getElementById('velnora-bridge-notice');
    if (notice && !notice.dataset.reported) {
      notice.dataset.reported = 'yes';
      fetch('/notice', { method: 'POST', body: JSON.stringify({
        provider: PROVIDER, kind: notice.getAttribute('data-kind'), text: notice.shadowRoot.textContent }) });
    }
  }).observe(document.documentElement, { childList: true, subtree: true });
  const input = document.querySelector('[data-expect="input"]');
  const submit = document.querySelector('[data-expect="submit"]');
  if (!input) return;
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
    fetch('/submitted', { method: 'POST', body: JSON.stringify({ provider: PROVIDER, text, trusted, inputEvents, how }) });
    if (input.tagName === 'TEXTAREA') input.value = ''; else input.innerHTML = '<p><br></p>';
    setEnabled(false);
  };
  if (submit) submit.addEventListener('click', () => { if (!disabled()) send('click'); });
  input.addEventListener('keydown', (event) => {
    if (event.key === 'Enter' && !event.shiftKey) { event.preventDefault(); send('enter'); }
  });
})();`;

function startStandIns() {
  const fixture = (name) => readFileSync(join(SOURCE, 'extension/test/fixtures', `${name}.html`), 'utf8');
  const fixtures = Object.fromEntries(PROVIDERS.map((provider) => [provider, fixture(provider)]));
  const loginWall = fixture('kimi-login');
  const state = { pageLoads: [], submissions: [], notices: [], loginWall: new Set() };
  const server = http.createServer((request, response) => {
    const url = new URL(request.url, 'http://127.0.0.1');
    if (request.method === 'POST' && (url.pathname === '/submitted' || url.pathname === '/notice')) {
      const list = url.pathname === '/notice' ? state.notices : state.submissions;
      let body = '';
      request.setEncoding('utf8');
      request.on('data', (chunk) => { body += chunk; });
      request.on('end', () => {
        try {
          list.push(JSON.parse(body));
        } catch (error) {
          list.push({ malformed: body });
        }
        response.end('ok');
      });
      return;
    }
    const [, provider, page] = url.pathname.split('/');
    if (request.method === 'GET' && fixtures[provider] && (page === 'chat' || page === 'new')) {
      const earlier = state.pageLoads.filter((load) => load.provider === provider).length;
      state.pageLoads.push({ provider, page });
      if (provider === FLAKY && earlier === 0) {
        request.socket.destroy();
        return;
      }
      const script = `<script>const PROVIDER = ${JSON.stringify(provider)};${PAGE_SCRIPT}</script>`;
      response.writeHead(200, { 'content-type': 'text/html; charset=utf-8', 'cache-control': 'no-store' });
      const html = state.loginWall.has(provider) ? loginWall : fixtures[provider];
      response.end(html.replace('</body>', `${script}</body>`));
      return;
    }
    response.writeHead(404).end();
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
  const original = readFileSync(join(SOURCE, 'extension/lib/sites.js'), 'utf8');
  const defaultProvider = original.match(/DEFAULT_PROVIDER = '(\w+)'/)[1];
  writeFileSync(join(target, 'lib/sites.js'),
    `export const DEFAULT_PROVIDER = ${JSON.stringify(defaultProvider)};\n` +
    `export const SITES = ${JSON.stringify(sites, null, 2)};\n`);
  const manifest = JSON.parse(readFileSync(join(target, 'manifest.json'), 'utf8'));
  manifest.host_permissions = ['http://127.0.0.1/*'];
  writeFileSync(join(target, 'manifest.json'), JSON.stringify(manifest, null, 2));
}

// --- the queue, written the way the application writes it -------------------------------------

function enqueue(dataDir, fields) {
  const queue = join(dataDir, 'PendingRequests');
  mkdirSync(queue, { recursive: true, mode: 0o700 });
  const record = { createdAt: performance.timeOrigin + performance.now(), id: randomUUID(), ...fields };
  const sorted = Object.fromEntries(Object.keys(record).sort().map((key) => [key, record[key]]));
  const temporary = join(queue, `.${record.id}.tmp`);
  writeFileSync(temporary, JSON.stringify(sorted), { mode: 0o600 });
  renameSync(temporary, join(queue, `${record.id}.json`));
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
  let chromiumLog = '';
  let wake = null;
  const explained = new Map();

  const bridgeStatus = () => run(VELNORA, ['--bridge-status'], env, 15_000);
  const submissionsFor = (provider) => standIns.state.submissions.filter((entry) => entry.provider === provider);

  before(async () => {
    assert.ok(SOURCE && VELNORA, 'VELNORA_SOURCE_DIR and VELNORA_BINARY must be set (ctest sets them)');
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
    delete env.BRINKWELL_DATA_DIR;
    standIns = await startStandIns();
    extensionCopy(join(root, 'extension'), standIns.origin);
  });

  after(async () => {
    for (const child of [wake, chromium]) {
      if (child && child.exitCode === null && child.signalCode === null) {
        try {
          process.kill(-child.pid, 'SIGKILL');
        } catch (error) {
          // already gone
        }
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
      env: { ...env, PATH: join(root, 'empty-bin') }, stdio: ['ignore', 'pipe', 'pipe'], detached: true,
    });
    let wakeOutput = '';
    wake.stdout.on('data', (chunk) => { wakeOutput += chunk; });
    wake.stderr.on('data', (chunk) => { wakeOutput += chunk; });
    const wakeDone = new Promise((resolve) => wake.on('close', (code) => resolve(code)));

    const manifestPath = join(profile, 'NativeMessagingHosts', HOST_MANIFEST);
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
    ], { env, stdio: ['ignore', 'ignore', 'pipe'], detached: true });
    chromium.stderr.on('data', (chunk) => { chromiumLog = (chromiumLog + chunk).slice(-8000); });

    const code = await Promise.race([wakeDone, deadline(40_000, 'timeout')]);
    assert.equal(code, 0, `wake self-test: ${wakeOutput}\nChromium: ${chromiumLog}`);
    assert.match(wakeOutput, /^browser-wake-self-test: ok$/m);
    assert.ok(standIns.state.pageLoads.some((load) => load.provider === 'kimi'), 'the Kimi page was never opened');
  });

  test('the host records the extension status; --bridge-status and the repair see the connection', async () => {
    const statusPath = join(dataDir, 'extension-status.json');
    await waitUntil(() => existsSync(statusPath), 10_000, 'extension-status.json');
    const status = JSON.parse(readFileSync(statusPath, 'utf8'));
    assert.equal(status.extensionID, EXPECTED_ID);
    assert.equal(status.version, JSON.parse(readFileSync(join(SOURCE, 'extension/manifest.json'), 'utf8')).version);
    assert.ok(Math.abs(Date.now() / 1000 - status.updatedAt) < 120, `updatedAt ${status.updatedAt} is not seconds of now`);

    const result = await bridgeStatus();
    assert.equal(result.code, 0, result.stdout + result.stderr);
    assert.equal(result.stdout.split('\n')[0], '● Chrome 已连接');

    const repair = await run(VELNORA, ['--browser-repair-self-test'], { ...env, PATH: join(root, 'empty-bin') }, 30_000);
    assert.equal(repair.code, 0, repair.stdout + repair.stderr);
    assert.equal(repair.stdout.trim(), 'browser-repair-self-test: ok');
  });

  test('an explanation for each of the seven sites is typed, submitted and leaves the queue', async () => {
    for (const [index, provider] of PROVIDERS.entries()) {
      const text = `  第 ${index + 1} 段：${provider} 的“边际效用递减”\n是什么意思？ <b>不是标签</b>\n`;
      const record = enqueue(dataDir, { depthInstruction: DEPTH, provider, text, type: 'EXPLAIN_TEXT' });
      explained.set(provider, { record, expected: composeExplainMessage(text, DEPTH) });
    }
    await waitUntil(() => PROVIDERS.every((provider) => submissionsFor(provider).length > 0), 90_000,
      `submissions from every site (got ${JSON.stringify(standIns.state.submissions.map((s) => s.provider))})`);
    for (const provider of PROVIDERS) {
      const [submission, ...more] = submissionsFor(provider);
      const { expected } = explained.get(provider);
      assert.equal(more.length, 0, `${provider} submitted twice`);
      // Rich editors turn each line into a paragraph; line structure and characters must survive.
      const lines = (text) => text.split('\n').map((line) => line.trim()).filter(Boolean);
      assert.deepEqual(lines(submission.text), lines(expected), provider);
      if (SITES[provider].input.some((selector) => selector.includes('textarea'))) {
        assert.equal(submission.text, expected, `${provider}: a textarea keeps the message exactly`);
      }
      assert.equal(submission.trusted, true, `${provider}: the page saw untrusted input`);
      assert.ok(submission.inputEvents > 0, `${provider}: the page saw no input event`);
    }
    await waitUntil(() => PROVIDERS.every((provider) => !queued(dataDir, explained.get(provider).record.id)),
      10_000, 'every record acknowledged');
    assert.equal(submissionsFor('deepseek')[0].how, 'enter', 'DeepSeek sends with Enter');
    assert.equal(submissionsFor('doubao')[0].how, 'click', 'Doubao sends with its button');
  });

  test('a request refused while its page failed to load is retried by the host and then delivered', () => {
    const loads = standIns.state.pageLoads.filter((load) => load.provider === FLAKY);
    assert.ok(loads.length >= 2, `${FLAKY} page loaded ${loads.length} time(s)`);
    assert.equal(submissionsFor(FLAKY).length, 1);
  });

  test('the chosen provider is stored and serves requests that name none; a new session reloads its page', async () => {
    const choice = enqueue(dataDir, { provider: 'ernie', type: 'SET_BROWSER_PROVIDER' });
    const text = '没有指定服务的请求';
    const explain = enqueue(dataDir, { depthInstruction: DEPTH, text, type: 'EXPLAIN_TEXT' });
    await waitUntil(() => submissionsFor('ernie').length === 2, 30_000, 'the second ernie submission');
    assert.ok(submissionsFor('ernie')[1].text.includes(text));
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
    assert.match(notice.text, /请先在这个页面登录Kimi/);
    await waitUntil(() => !queued(dataDir, explain.id), 10_000, 'the login-blocked record acknowledged');
    // Two more host scans: a refused request would come back after 2 s and load the page again.
    await sleep(2_500);
    assert.equal(standIns.state.pageLoads.length, loadsBefore, 'the page was loaded again');
    assert.equal(submissionsFor('kimi').length, 1);
  });

  test('once the browser is gone --bridge-status no longer reports connected', async () => {
    process.kill(-chromium.pid, 'SIGTERM');
    const stopped = await Promise.race([
      new Promise((resolve) => (chromium.exitCode !== null ? resolve(true) : chromium.on('exit', () => resolve(true)))),
      deadline(15_000, false),
    ]);
    if (!stopped) {
      process.kill(-chromium.pid, 'SIGKILL');
    }
    const result = await waitUntil(async () => {
      const status = await bridgeStatus();
      return status.code !== 0 ? status : null;
    }, 15_000, '--bridge-status to stop reporting connected');
    assert.equal(result.code, 2);
    assert.notEqual(result.stdout.split('\n')[0], '● Chrome 已连接');
  });
});
