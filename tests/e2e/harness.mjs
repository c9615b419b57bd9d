// What the browser end-to-end tests share: the stand-in chat sites, the extension copy that points at
// them, the queue as the application writes it, and waiting with a deadline.
import assert from 'node:assert/strict';
import { execFile, execFileSync, spawn } from 'node:child_process';
import { randomUUID } from 'node:crypto';
import {
  cpSync, existsSync, mkdirSync, mkdtempSync, readFileSync, renameSync, rmSync, statSync, writeFileSync,
} from 'node:fs';
import { once } from 'node:events';
import http from 'node:http';
import { tmpdir } from 'node:os';
import { dirname, join, relative } from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';
import { fileURLToPath, pathToFileURL } from 'node:url';
import { promisify } from 'node:util';

export const SOURCE = process.env.VELNORA_SOURCE_DIR;
export const VELNORA = process.env.VELNORA_BINARY;
export const EXPECTED_ID = process.env.VELNORA_CONFIGURED_EXTENSION_ID;

export const { DEFAULT_PROVIDER, SITES } = await import(pathToFileURL(join(SOURCE, 'extension/lib/sites.js')));
export const { composeExplainMessage } = await import(pathToFileURL(join(SOURCE, 'extension/lib/compose.js')));
export const PROVIDERS = Object.keys(SITES);
// This stand-in drops the connection on its first page load, so its first delivery fails.
export const FLAKY = 'glm';
// This one sends visitors to sign in on another host (as 文心一言 does to passport.baidu.com).
export const SIGN_IN = 'ernie';
export const DEPTH = '先用一句话说明核心含义，再根据材料难度补充关键词、逻辑和必要例子。';
export const ANSWER_MS = 1500;
// The extension's 60 s delivery deadline, shortened so that a test can outlast it.
export const DELIVERY_DEADLINE_MS = 25_000;
const STANDINS = join(dirname(fileURLToPath(import.meta.url)), 'standins');
export const read = (path) => readFileSync(join(SOURCE, path), 'utf8');
const standInPage = (name) => readFileSync(join(STANDINS, 'pages', `${name}.html`), 'utf8');

// Exit code and output of a finished run, whatever the code.
export const velnora = (args, env) =>
  promisify(execFile)(VELNORA, args, { env, timeout: 30_000 }).then((out) => ({ code: 0, ...out }), (error) => error);

export async function waitUntil(probe, timeoutMs, what) {
  const end = Date.now() + timeoutMs;
  let value;
  while (!(value = await probe())) {
    if (Date.now() > end) {
      throw new Error(`等待超时（${timeoutMs} ms）：${typeof what === 'function' ? what() : what}`);
    }
    await sleep(100);
  }
  return value;
}

// A throwaway root: home, data folder and temporary folder, and the environment the app runs in.
export function sandbox(prefix, extraEnv = {}) {
  const root = mkdtempSync(join(tmpdir(), prefix));
  const home = join(root, 'home');
  const dataDir = join(root, 'data');
  for (const dir of [join(root, 'tmp'), join(home, '.config'), join(home, '.local/share'), join(home, '.cache')]) {
    mkdirSync(dir, { recursive: true });
  }
  const env = {
    ...process.env, HOME: home, TMPDIR: join(root, 'tmp'), XDG_CONFIG_HOME: join(home, '.config'),
    XDG_DATA_HOME: join(home, '.local/share'), XDG_CACHE_HOME: join(home, '.cache'), VELNORA_DATA_DIR: dataDir, ...extraEnv,
  };
  return { root, home, dataDir, env };
}

// Ends what a run started (children that lead a process group of their own, and plain pids) and
// removes its root.
export function cleanUp({ root }, standIns, children, pids = []) {
  for (const child of children) {
    if (child && child.exitCode === null && child.signalCode === null) {
      process.kill(-child.pid, 'SIGKILL');
    }
  }
  for (const pid of pids) {
    if (pid && isAlive(pid)) {
      process.kill(pid, 'SIGKILL');
    }
  }
  standIns?.server.close();
  if (root) {
    rmSync(root, { recursive: true, force: true });
  }
}

export const isAlive = (pid) => {
  try {
    process.kill(pid, 0);
    return true;
  } catch {
    return false;
  }
};

// Characters and line structure; rich editors keep lines as paragraphs.
export const lines = (message) => message.split('\n').map((line) => line.trim()).filter(Boolean);

// --- stand-in chat sites ------------------------------------------------------------------------

// Installs the editors from the lock file on a clean clone (again only when the lock changed) and
// bundles one script per page into the folder.
function buildStandIns(target) {
  const installed = join(STANDINS, 'node_modules', '.package-lock.json');
  const lock = join(STANDINS, 'package-lock.json');
  if (!existsSync(installed) || statSync(lock).mtimeMs > statSync(installed).mtimeMs) {
    execFileSync('npm', ['ci', '--no-audit', '--no-fund'], { cwd: STANDINS, stdio: 'inherit', timeout: 300_000 });
  }
  execFileSync(process.execPath, [join(STANDINS, 'build.mjs'), target], { cwd: STANDINS, stdio: 'inherit', timeout: 120_000 });
}

function startStandIns(bundles) {
  const pages = Object.fromEntries([...PROVIDERS, 'passport'].map((name) => [name, standInPage(name)]));
  const driver = `<script>${read('extension/content/page-driver.js')}</script>`;
  const state = {
    pageLoads: [], submissions: [], notices: [], probes: [], faults: [], signedOut: new Set(), passport: 'waiting',
    // Pages that answer longer when they open, pages whose markers changed (what to replace), and
    // pages that empty the box without sending.
    longAnswer: new Map(), stale: new Map(), swallow: new Set(),
  };
  const server = http.createServer((request, response) => {
    const url = new URL(request.url, 'http://127.0.0.1');
    const [, name, page] = url.pathname.split('/');
    if (['submissions', 'notices', 'probes', 'faults'].includes(name)) {
      state[name].push(JSON.parse(url.searchParams.get('json')));
      response.end('ok');
      return;
    }
    if (name === 'bundle' && PROVIDERS.includes(page?.replace(/\.js$/, ''))) {
      response.writeHead(200, { 'content-type': 'text/javascript; charset=utf-8' });
      response.end(readFileSync(join(bundles, page)));
      return;
    }
    if (name === 'passport') {
      state.pageLoads.push({ provider: 'passport', page: 'sign-in', host: request.headers.host });
      response.writeHead(200, { 'content-type': 'text/html; charset=utf-8', 'cache-control': 'no-store' });
      response.end(pages.passport);
      return;
    }
    if (name === 'passport-state') {
      response.end(state.passport);
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
    if (state.signedOut.has(name)) {
      const here = `http://127.0.0.1:${server.address().port}${url.pathname}`;
      response.writeHead(302, { location: `http://localhost:${server.address().port}/passport?u=${encodeURIComponent(here)}` });
      response.end();
      return;
    }
    const config = {
      provider: name, answerMs: ANSWER_MS, answerAtLoadMs: state.longAnswer.get(name) ?? ANSWER_MS,
      swallow: state.swallow.has(name),
    };
    const html = (state.stale.get(name) ?? []).reduce((page, [from, to]) => page.replaceAll(from, to), pages[name]);
    const script = `${driver}<script>window.SITES = ${JSON.stringify(state.sites)};</script><script>window.STANDIN = ${JSON.stringify(config)};</script><script src="/bundle/${name}.js"></script>`;
    response.writeHead(200, { 'content-type': 'text/html; charset=utf-8', 'cache-control': 'no-store' });
    response.end(html.replace('</body>', () => `${script}</body>`));
  });
  return new Promise((resolve) => {
    server.listen(0, '127.0.0.1', () => resolve({ server, state, origin: `http://127.0.0.1:${server.address().port}` }));
  });
}

// Builds and serves the stand-ins and writes the extension copy pointing at them; `adjust` may change
// the site table first.
export async function serveStandIns(root, { adjust = () => {}, geckoId = null } = {}) {
  buildStandIns(join(root, 'bundles'));
  const standIns = await startStandIns(join(root, 'bundles'));
  standIns.state.sites = standInSites(standIns.origin);
  adjust(standIns.state.sites);
  extensionCopy(join(root, 'extension'), standIns.state.sites, geckoId);
  standIns.submissionsFor = (provider) => standIns.state.submissions.filter((entry) => entry.provider === provider);
  return standIns;
}

// The site table pointed at the stand-ins; the sign-in host is "localhost", which the extension's
// host permissions (127.0.0.1 only) do not cover, like the real sign-in hosts.
function standInSites(origin) {
  return Object.fromEntries(Object.entries(SITES).map(([provider, site]) => [provider, {
    ...site,
    url: `${origin}/${provider}/chat`,
    newChatUrl: `${origin}/${provider}/new`,
    matches: [`${origin}/${provider}/`],
    loginHosts: provider === SIGN_IN ? ['localhost'] : [],
  }]));
}

// The extension as shipped, except that its site table and host permissions point at the stand-ins
// (and, for Firefox, its gecko ID is the one this build admits).
function extensionCopy(target, sites, geckoId = null) {
  const shipped = join(SOURCE, 'extension');
  cpSync(shipped, target, { recursive: true, filter: (path) => !relative(shipped, path).startsWith('test') });
  const table = read('extension/lib/sites.js');
  const background = read('extension/background.js');
  const shorter = background.replace('const DELIVERY_TIMEOUT_MS = 60_000;', `const DELIVERY_TIMEOUT_MS = ${DELIVERY_DEADLINE_MS};`);
  assert.notEqual(shorter, background, 'the delivery deadline of extension/background.js was not found');
  writeFileSync(join(target, 'background.js'), shorter);
  const rewritten = table.replace(/export const SITES = \{[\s\S]*?\n\};\n/, () => `export const SITES = ${JSON.stringify(sites)};\n`);
  assert.notEqual(rewritten, table, 'the site table of extension/lib/sites.js was not found');
  writeFileSync(join(target, 'lib/sites.js'), rewritten);
  const manifest = JSON.parse(read('extension/manifest.json'));
  const gecko = geckoId ? { browser_specific_settings: { gecko: { ...manifest.browser_specific_settings.gecko, id: geckoId } } } : {};
  writeFileSync(join(target, 'manifest.json'), JSON.stringify({ ...manifest, ...gecko, host_permissions: ['http://127.0.0.1/*'] }));
}

// A queue record written the way the application writes it: a private file renamed into place.
// The host serves records by createdAt, so records written in the same millisecond must still differ.
export function enqueue(dataDir, fields) {
  const queue = join(dataDir, 'PendingRequests');
  mkdirSync(queue, { recursive: true, mode: 0o700 });
  const record = { createdAt: performance.timeOrigin + performance.now(), id: randomUUID(), ...fields };
  writeFileSync(join(queue, `.${record.id}.tmp`), JSON.stringify(record), { mode: 0o600 });
  renameSync(join(queue, `.${record.id}.tmp`), join(queue, `${record.id}.json`));
  return record;
}

export const queued = (dataDir, id) => existsSync(join(dataDir, 'PendingRequests', `${id}.json`));

export const enqueueExplain = (dataDir, provider, text) =>
  enqueue(dataDir, { depthInstruction: DEPTH, provider, text, type: 'EXPLAIN_TEXT' });

// A new session on the provider's page, acknowledged.
export async function startNewSession(dataDir, provider) {
  const record = enqueue(dataDir, { provider, type: 'NEW_SESSION' });
  await waitUntil(() => !queued(dataDir, record.id), 30_000, `${provider}: the new-session record acknowledged`);
}

// What the host recorded of the extension once it connected: its ID and the shipped version.
export async function assertExtensionStatus(dataDir, extensionID) {
  const statusPath = join(dataDir, 'extension-status.json');
  await waitUntil(() => existsSync(statusPath), 10_000, 'extension-status.json');
  const status = JSON.parse(readFileSync(statusPath, 'utf8'));
  assert.equal(status.extensionID, extensionID);
  assert.equal(status.version, JSON.parse(read('extension/manifest.json')).version);
  return status;
}

// --bridge-status once the browser is gone: it must stop reporting connected and exit 2.
export async function statusOnceDisconnected(env) {
  const result = await waitUntil(async () => {
    const status = await velnora(['--bridge-status'], env);
    return status.code !== 0 ? status : null;
  }, 15_000, '--bridge-status to stop reporting connected');
  assert.equal(result.code, 2);
  return result.stdout.split('\n').slice(0, 2);
}

// The wake self-test with PATH narrowed to binDir (which browser it may start). `finished` checks it
// ended with "ok" within timeoutMs; its diagnosis is on stderr, shown with the failure.
export function startWakeSelfTest(env, binDir, timeoutMs) {
  const child = spawn(VELNORA, ['--browser-wake-self-test'], {
    env: { ...env, PATH: binDir }, stdio: ['ignore', 'pipe', 'inherit'], detached: true,
  });
  let output = '';
  child.stdout.on('data', (chunk) => { output += chunk; });
  const closed = once(child, 'close', { signal: AbortSignal.timeout(timeoutMs) }).catch(() => ['timeout']);
  const finished = async () => {
    const [code] = await closed;
    assert.equal(code, 0, `wake self-test: ${output}`);
    assert.match(output, /^browser-wake-self-test: ok$/m);
  };
  return { child, finished };
}
