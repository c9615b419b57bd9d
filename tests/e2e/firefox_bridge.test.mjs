// Browser mode end to end in Debian's firefox-esr, headless: a throwaway profile (found through
// profiles.ini, as the app finds the user's) with the unsigned extension installed from a proxy file
// in its extensions/ folder and signatures off; the app wakes Firefox itself through a `firefox-esr`
// on PATH, and Firefox starts the real host from ~/.mozilla/native-messaging-hosts.
import { after, before, describe, test } from 'node:test';
import assert from 'node:assert/strict';
import { chmodSync, existsSync, mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';

import {
  DEPTH, VELNORA, buildStandIns, composeExplainMessage, enqueue, extensionCopy, queued, read, standInSites,
  startWakeSelfTest,
  startStandIns, velnora, waitUntil,
} from './harness.mjs';

const FIREFOX = process.env.VELNORA_FIREFOX || '/usr/bin/firefox-esr';
const GECKO_ID = process.env.VELNORA_CONFIGURED_FIREFOX_EXTENSION_ID;

const PREFERENCES = {
  'xpinstall.signatures.required': false,
  // Add-ons dropped into the profile are enabled without asking.
  'extensions.autoDisableScopes': 0,
  'extensions.enabledScopes': 15,
  'browser.shell.checkDefaultBrowser': false,
  'browser.aboutwelcome.enabled': false,
  'browser.startup.homepage_override.mstone': 'ignore',
  'datareporting.policy.dataSubmissionEnabled': false,
  'toolkit.telemetry.reportingpolicy.firstRun': false,
  'app.update.enabled': false,
};

const isAlive = (pid) => {
  try {
    process.kill(pid, 0);
    return true;
  } catch {
    return false;
  }
};

describe('browser mode through a real Firefox', { timeout: 150_000 }, () => {
  let root;
  let env;
  let dataDir;
  let standIns;
  let firefoxPid = null;
  let wake = null;

  const submissionsFor = (provider) => standIns.state.submissions.filter((entry) => entry.provider === provider);

  before(async () => {
    assert.ok(existsSync(FIREFOX), `${FIREFOX} is missing: scripts/install-deps.sh installs firefox-esr`);
    assert.ok(GECKO_ID, 'VELNORA_CONFIGURED_FIREFOX_EXTENSION_ID is not set (run through ctest)');
    root = mkdtempSync(join(tmpdir(), 'velnora-firefox-e2e-'));
    const home = join(root, 'home');
    dataDir = join(root, 'data');
    const profiles = join(home, '.mozilla', 'firefox');
    const profile = join(profiles, 'e2e.default');
    for (const dir of [join(root, 'tmp'), join(root, 'bin'), join(profile, 'extensions'), join(home, '.config'),
      join(home, '.local/share'), join(home, '.cache')]) {
      mkdirSync(dir, { recursive: true });
    }
    writeFileSync(join(profiles, 'profiles.ini'),
      '[Profile0]\nName=e2e\nIsRelative=1\nPath=e2e.default\nDefault=1\n\n[General]\nStartWithLastProfile=1\nVersion=2\n');
    writeFileSync(join(profile, 'user.js'),
      Object.entries(PREFERENCES).map(([name, value]) => `user_pref(${JSON.stringify(name)}, ${JSON.stringify(value)});\n`).join(''));
    // The firefox-esr the app finds on PATH: the real one, headless, in the throwaway profile.
    const wrapper = join(root, 'bin', 'firefox-esr');
    writeFileSync(wrapper, `#!/bin/sh\necho $$ > '${join(root, 'firefox.pid')}'\nPATH=/usr/bin:/bin exec '${FIREFOX}' ` +
      `--headless --no-remote --profile '${profile}' "$@"\n`);
    chmodSync(wrapper, 0o755);
    env = {
      ...process.env,
      HOME: home,
      TMPDIR: join(root, 'tmp'),
      XDG_CONFIG_HOME: join(home, '.config'),
      XDG_DATA_HOME: join(home, '.local/share'),
      XDG_CACHE_HOME: join(home, '.cache'),
      VELNORA_DATA_DIR: dataDir,
      MOZ_CRASHREPORTER_DISABLE: '1',
    };
    buildStandIns(join(root, 'bundles'));
    standIns = await startStandIns(join(root, 'bundles'));
    standIns.state.sites = standInSites(standIns.origin);
    // One site on a host the extension was not granted, as when the user refused it site access.
    const { qwen } = standIns.state.sites;
    const unlisted = (address) => address.replace('127.0.0.1', 'localhost');
    Object.assign(qwen, { url: unlisted(qwen.url), newChatUrl: unlisted(qwen.newChatUrl), matches: qwen.matches.map(unlisted) });
    extensionCopy(join(root, 'extension'), standIns.state.sites, GECKO_ID);
    // A proxy file: named after the add-on's ID, holding the folder it loads from.
    writeFileSync(join(profile, 'extensions', GECKO_ID), join(root, 'extension'));
  });

  after(() => {
    if (wake && wake.exitCode === null && wake.signalCode === null) {
      process.kill(-wake.pid, 'SIGKILL');
    }
    if (firefoxPid && isAlive(firefoxPid)) {
      process.kill(firefoxPid, 'SIGKILL');
    }
    standIns?.server.close();
    if (root) {
      rmSync(root, { recursive: true, force: true });
    }
  });

  test('the app writes the Firefox host manifest, wakes Firefox, and the extension carries its request', async () => {
    const wakeRun = startWakeSelfTest(env, join(root, 'bin'), 60_000);
    wake = wakeRun.child;
    const woken = wakeRun.finished();
    await woken.catch(() => {});
    firefoxPid = existsSync(join(root, 'firefox.pid')) ? Number(readFileSync(join(root, 'firefox.pid'), 'utf8')) : null;
    assert.ok(firefoxPid, 'the app did not start firefox-esr from PATH');
    await woken;
    assert.ok(standIns.state.pageLoads.some((load) => load.provider === 'kimi'), 'the Kimi page was never opened');

    const hostManifest = JSON.parse(readFileSync(
      join(env.HOME, '.mozilla', 'native-messaging-hosts', 'com.tarnwick.velnora.domestic.json'), 'utf8'));
    assert.equal(hostManifest.path, VELNORA);
    assert.deepEqual(hostManifest.allowed_extensions, [GECKO_ID]);
    assert.equal(hostManifest.allowed_origins, undefined);
  });

  test('the extension reports its status and --bridge-status reads "Firefox 已连接"', async () => {
    const statusPath = join(dataDir, 'extension-status.json');
    await waitUntil(() => existsSync(statusPath), 10_000, 'extension-status.json');
    const status = JSON.parse(readFileSync(statusPath, 'utf8'));
    assert.equal(status.extensionID, GECKO_ID);
    assert.equal(status.version, JSON.parse(read('extension/manifest.json')).version);

    const result = await velnora(['--bridge-status'], env);
    assert.equal(result.code, 0, result.stdout + result.stderr);
    assert.deepEqual(result.stdout.split('\n').slice(0, 2),
      ['● Firefox 已连接', 'Firefox 扩展已连接，划词即可发到网页会话。']);
  });

  test('explanations reach the stand-in pages\' editors once and leave the queue', async () => {
    // A plain textarea and a rich editor.
    const sent = ['deepseek', 'doubao'].map((provider) => enqueue(dataDir, {
      depthInstruction: DEPTH, provider, text: `Firefox 里的 ${provider}：“机会成本”\n是什么意思？`, type: 'EXPLAIN_TEXT',
    }));
    await waitUntil(() => sent.every((record) => !queued(dataDir, record.id)), 60_000,
      () => `every record acknowledged (submissions ${JSON.stringify(standIns.state.submissions)}, ` +
        `notices ${JSON.stringify(standIns.state.notices)})`);
    const lines = (message) => message.split('\n').map((line) => line.trim()).filter(Boolean);
    for (const { provider, text } of sent) {
      const submissions = submissionsFor(provider);
      assert.equal(submissions.length, 1, `${provider} submitted ${submissions.length} time(s)`);
      assert.deepEqual(lines(submissions[0].text), lines(composeExplainMessage(text, DEPTH)), provider);
    }
    assert.deepEqual(standIns.state.faults, []);
  });

  test('a site the extension may not access keeps its request queued and its page is not reloaded', async () => {
    const loads = () => standIns.state.pageLoads.filter((load) => load.provider === 'qwen').length;
    const record = enqueue(dataDir, { depthInstruction: DEPTH, provider: 'qwen', text: '没有访问权限', type: 'EXPLAIN_TEXT' });
    await waitUntil(() => loads() > 0, 10_000, 'the site shown to the user');
    // Two host retries (2 s, 4 s) come and go.
    await sleep(7_000);
    assert.equal(loads(), 1, 'the page was loaded again');
    assert.ok(queued(dataDir, record.id), 'the request was dropped');
    assert.deepEqual(submissionsFor('qwen'), []);
  });

  test('once Firefox stops, --bridge-status says so and exits 2', async () => {
    process.kill(firefoxPid, 'SIGTERM');
    await waitUntil(() => !isAlive(firefoxPid), 20_000, 'Firefox to exit');
    const result = await waitUntil(async () => {
      const status = await velnora(['--bridge-status'], env);
      return status.code !== 0 ? status : null;
    }, 15_000, '--bridge-status to stop reporting connected');
    assert.equal(result.code, 2);
    assert.deepEqual(result.stdout.split('\n').slice(0, 2),
      ['○ 未连接 · Firefox 没有运行', 'Firefox 没有运行。点「修复连接」会在后台把它唤起。']);
  });
});
