// Browser mode end to end in Debian's firefox-esr, headless: a throwaway profile (found through
// profiles.ini, as the app finds the user's) with the unsigned extension installed from a proxy file
// in its extensions/ folder and signatures off; the app wakes Firefox itself through a `firefox-esr`
// on PATH, and Firefox starts the real host from ~/.mozilla/native-messaging-hosts.
import { after, before, describe, test } from 'node:test';
import assert from 'node:assert/strict';
import { chmodSync, existsSync, mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';

import {
  DEPTH, VELNORA, assertExtensionStatus, cleanUp, composeExplainMessage, enqueueExplain, isAlive, lines, queued,
  sandbox, serveStandIns, startWakeSelfTest, statusOnceDisconnected, velnora, waitUntil,
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

describe('browser mode through a real Firefox', { timeout: 150_000 }, () => {
  const box = sandbox('velnora-firefox-e2e-', { MOZ_CRASHREPORTER_DISABLE: '1' });
  const { root, env, dataDir } = box;
  let standIns;
  let firefoxPid = null;
  let wake = null;
  const submissionsFor = (provider) => standIns.submissionsFor(provider);

  before(async () => {
    assert.ok(existsSync(FIREFOX), `${FIREFOX} is missing: scripts/install-deps.sh installs firefox-esr`);
    assert.ok(GECKO_ID, 'VELNORA_CONFIGURED_FIREFOX_EXTENSION_ID is not set (run through ctest)');
    const profiles = join(box.home, '.mozilla', 'firefox');
    const profile = join(profiles, 'e2e.default');
    mkdirSync(join(root, 'bin'));
    mkdirSync(join(profile, 'extensions'), { recursive: true });
    writeFileSync(join(profiles, 'profiles.ini'),
      '[Profile0]\nName=e2e\nIsRelative=1\nPath=e2e.default\nDefault=1\n\n[General]\nStartWithLastProfile=1\nVersion=2\n');
    writeFileSync(join(profile, 'user.js'),
      Object.entries(PREFERENCES).map(([name, value]) => `user_pref(${JSON.stringify(name)}, ${JSON.stringify(value)});\n`).join(''));
    // The firefox-esr the app finds on PATH: the real one, headless, in the throwaway profile.
    const wrapper = join(root, 'bin', 'firefox-esr');
    writeFileSync(wrapper, `#!/bin/sh\necho $$ > '${join(root, 'firefox.pid')}'\nPATH=/usr/bin:/bin exec '${FIREFOX}' ` +
      `--headless --no-remote --profile '${profile}' "$@"\n`);
    chmodSync(wrapper, 0o755);
    // One site on a host the extension was not granted, as when the user refused it site access.
    const unlisted = (address) => address.replace('127.0.0.1', 'localhost');
    const adjust = ({ qwen }) => Object.assign(qwen,
      { url: unlisted(qwen.url), newChatUrl: unlisted(qwen.newChatUrl), matches: qwen.matches.map(unlisted) });
    standIns = await serveStandIns(root, { adjust, geckoId: GECKO_ID });
    // A proxy file: named after the add-on's ID, holding the folder it loads from.
    writeFileSync(join(profile, 'extensions', GECKO_ID), join(root, 'extension'));
  });

  after(() => cleanUp(box, standIns, [wake], [firefoxPid]));

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
    await assertExtensionStatus(dataDir, GECKO_ID);

    const result = await velnora(['--bridge-status'], env);
    assert.equal(result.code, 0, result.stdout + result.stderr);
    assert.equal(result.stdout.split('\n')[0], '● Firefox 已连接');
  });

  test('explanations reach the stand-in pages\' editors once and leave the queue', async () => {
    // A plain textarea and a rich editor.
    const sent = ['deepseek', 'doubao'].map((provider) =>
      enqueueExplain(dataDir, provider, `Firefox 里的 ${provider}：“机会成本”\n是什么意思？`));
    await waitUntil(() => sent.every((record) => !queued(dataDir, record.id)), 60_000,
      () => `every record acknowledged (submissions ${JSON.stringify(standIns.state.submissions)}, ` +
        `notices ${JSON.stringify(standIns.state.notices)})`);
    for (const { provider, text } of sent) {
      const submissions = submissionsFor(provider);
      assert.equal(submissions.length, 1, `${provider} submitted ${submissions.length} time(s)`);
      assert.deepEqual(lines(submissions[0].text), lines(composeExplainMessage(text, DEPTH)), provider);
    }
    assert.deepEqual(standIns.state.faults, []);
  });

  test('a site the extension may not access keeps its request queued and its page is not reloaded', async () => {
    const loads = () => standIns.state.pageLoads.filter((load) => load.provider === 'qwen').length;
    const record = enqueueExplain(dataDir, 'qwen', '没有访问权限');
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
    assert.equal((await statusOnceDisconnected(env))[0], '○ 未连接 · Firefox 没有运行');
  });
});
