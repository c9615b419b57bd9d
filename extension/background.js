// Service worker: keeps the native port to the desktop app open and carries its requests to the
// chat page of the chosen service.
import { DEFAULT_PROVIDER, SITES, isSignInAddress } from './lib/sites.js';
import { composeExplainMessage } from './lib/compose.js';
import { isBelowMinimum } from './lib/version.js';

const HOST_NAME = 'com.tarnwick.velnora.domestic';
const RECONNECT_MS = 30_000;
const RECONNECT_ALARM = 'velnora-reconnect';
const PAGE_LOAD_TIMEOUT_MS = 30_000;
const DELIVERY_TIMEOUT_MS = 60_000;
// The page stops typing and pressing a little before the worker stops waiting for it.
const PAGE_STOP_MARGIN_MS = 5_000;
const REMEMBERED_IDS = 100;
const VERSION = chrome.runtime.getManifest().version;
const REQUEST_TYPES = new Set(['EXPLAIN_TEXT', 'OPEN_WORKBENCH', 'NEW_SESSION', 'SET_BROWSER_PROVIDER', 'CHECK_PAGE']);
const CHECK_INPUT_WAIT_MS = 10_000;

let port = null;
let reconnectTimer = null;
let work = Promise.resolve();
const inProgress = new Set();
// Requests that met a sign-in page, by the tab they wait in: sent again once the user is back.
const awaitingSignIn = new Map();
// Requests for sites the extension may not script yet, by id: sent again once access is granted.
const awaitingPermission = new Map();

// --- connection -------------------------------------------------------------------------------

function connect() {
  if (port) {
    return;
  }
  clearTimeout(reconnectTimer);
  reconnectTimer = null;
  let candidate;
  try {
    candidate = chrome.runtime.connectNative(HOST_NAME);
  } catch (error) {
    console.warn('澜镜：无法连接桌面应用', error);
    scheduleReconnect();
    return;
  }
  port = candidate;
  candidate.onMessage.addListener((message) => onHostMessage(message));
  candidate.onDisconnect.addListener(() => {
    // Firefox says why on the port, Chrome in lastError.
    const reason = candidate.error?.message ?? chrome.runtime.lastError?.message ?? '';
    if (port === candidate) {
      port = null;
    }
    console.info('澜镜：与桌面应用的连接已断开', reason);
    showState('disconnected');
    scheduleReconnect();
  });
  post({ type: 'EXTENSION_STATUS', extensionID: chrome.runtime.id, version: VERSION });
}

// The timer covers a worker that stays awake; the alarm wakes one that Chrome has suspended.
function scheduleReconnect() {
  if (!reconnectTimer) {
    reconnectTimer = setTimeout(() => {
      reconnectTimer = null;
      connect();
    }, RECONNECT_MS);
  }
}

function post(message) {
  if (!port) {
    return false;
  }
  try {
    port.postMessage(message);
    return true;
  } catch (error) {
    return false;
  }
}

function showState(state, detail = {}) {
  const titles = {
    connected: '澜镜 · 网页会话桥：已连接桌面应用',
    disconnected: '澜镜 · 网页会话桥：未连接桌面应用，每半分钟自动重连一次',
    outdated: `澜镜 · 网页会话桥：扩展版本 ${VERSION} 低于桌面应用要求的 ${detail.minimum}，请更新扩展`,
    permission: `澜镜 · 网页会话桥：没有访问「${detail.site}」的权限，点此图标允许后，排队的请求会自动发出`,
  };
  chrome.action.setTitle({ title: titles[state] }).catch(() => {});
  const warning = state === 'outdated' || state === 'permission';
  chrome.action.setBadgeText({ text: warning ? '!' : state === 'disconnected' ? '…' : '' })
    .catch(() => {});
  if (warning) {
    chrome.action.setBadgeBackgroundColor({ color: '#d93025' }).catch(() => {});
  }
  chrome.storage.local.set({ bridgeState: { state, ...detail, at: Date.now() } }).catch(() => {});
}

// --- requests ---------------------------------------------------------------------------------

function onHostMessage(message) {
  if (!message || typeof message !== 'object') {
    return;
  }
  if (message.type === 'HOST_READY') {
    const minimum = message.minimumExtensionVersion;
    if (isBelowMinimum(VERSION, minimum)) {
      console.warn(`澜镜：扩展版本 ${VERSION} 低于桌面应用要求的 ${minimum}`);
      showState('outdated', { minimum });
    } else {
      showState('connected');
    }
    return;
  }
  if (!REQUEST_TYPES.has(message.type) || typeof message.requestId !== 'string') {
    return;
  }
  const id = message.requestId;
  if (inProgress.has(id)) {
    return;
  }
  inProgress.add(id);
  // One request at a time: two explanations must not type into the same page at once.
  work = work
    .then(async () => {
      if (await wasFinished(id)) {
        return 'ack';
      }
      const attempt = { stopAt: Date.now() + DELIVERY_TIMEOUT_MS - PAGE_STOP_MARGIN_MS, tabId: null };
      return withDeadline(carryOut(message, attempt), DELIVERY_TIMEOUT_MS).catch((error) => {
        console.warn('澜镜：请求暂时无法完成，稍后重试', message.type, error?.message ?? error);
        // What the deadline bounded must stop too, or a late send would follow the refusal.
        if (attempt.tabId !== null) {
          cancelInTab(attempt.tabId);
        }
        return 'nack';
      });
    })
    .then(async (outcome) => {
      if (outcome === 'ack') {
        await rememberFinished(id);
      }
      post({ type: outcome === 'ack' ? 'ACK_REQUEST' : 'NACK_REQUEST', requestId: id });
    })
    .finally(() => inProgress.delete(id));
}

// A new host resends what it never saw answered; an ACK lost with the old port must not mean a
// second submission.
async function wasFinished(id) {
  const { finishedIds = [] } = await chrome.storage.session.get('finishedIds');
  return finishedIds.includes(id);
}

async function rememberFinished(id) {
  const { finishedIds = [] } = await chrome.storage.session.get('finishedIds');
  finishedIds.push(id);
  await chrome.storage.session.set({ finishedIds: finishedIds.slice(-REMEMBERED_IDS) });
}

async function chosenProvider(requested) {
  if (typeof requested === 'string' && Object.hasOwn(SITES, requested)) {
    return requested;
  }
  const { browserProvider } = await chrome.storage.local.get('browserProvider');
  return Object.hasOwn(SITES, browserProvider) ? browserProvider : DEFAULT_PROVIDER;
}

// 'ack' when done (or never doable: retrying would not help), 'nack' when it may work later.
async function carryOut(message, attempt) {
  if (message.type === 'SET_BROWSER_PROVIDER') {
    if (Object.hasOwn(SITES, message.provider)) {
      await chrome.storage.local.set({ browserProvider: message.provider });
    }
    return 'ack';
  }
  const site = SITES[await chosenProvider(message.provider)];
  if (message.type === 'OPEN_WORKBENCH') {
    await showSite(site);
    return 'ack';
  }
  if (message.type === 'NEW_SESSION') {
    await showSite(site, site.newChatUrl);
    return 'ack';
  }
  if (message.type === 'CHECK_PAGE') {
    post({ type: 'PAGE_CHECK_RESULT', requestId: message.requestId, ...(await checkPage(site)) });
    return 'ack';
  }
  const text = composeExplainMessage(message.text, message.depthInstruction);
  if (text === null) {
    return 'ack';
  }
  // While the user signs in elsewhere, a retry must not pull the site's tab to the front again.
  const signingIn = await tabAwayForSignIn(site);
  if (signingIn !== null) {
    awaitingSignIn.set(signingIn, { message, site });
    return 'nack';
  }
  // Without access to the site (refused at install in Firefox, or limited to clicks in Chrome) the
  // page cannot be scripted: reloading it on every retry would only disturb the user.
  if (!(await chrome.permissions.contains({ origins: siteOrigins(site) }))) {
    showState('permission', { site: site.title });
    if (!awaitingPermission.has(message.requestId)) {
      awaitingPermission.set(message.requestId, message);
      await showSite(site);
    }
    return 'nack';
  }
  const tab = await showSite(site);
  attempt.tabId = tab.id;
  let status;
  if (isSignInAddress(site, tab.url ?? '')) {
    // Often another host than the site's: the notice is shown where the browser lets us.
    deliverInTab(tab.id, site, text, attempt).catch(() => {});
    status = 'login';
  } else {
    try {
      status = await deliverInTab(tab.id, site, text, attempt);
    } catch (error) {
      const now = await chrome.tabs.get(tab.id).catch(() => null);
      if (now && !site.matches.some((prefix) => (now.url ?? '').startsWith(prefix))) {
        // Gone to a host we may not script, most likely to sign in: wait for the user there.
        status = 'login';
      } else {
        // Typically the browser's error page after a failed load: reload now so the retry finds
        // the real page in the tab we reuse.
        chrome.tabs.reload(tab.id).catch(() => {});
        throw error;
      }
    }
  }
  console.info('澜镜：', site.title, status);
  if (status === 'login') {
    awaitingSignIn.set(tab.id, { message, site });
  }
  // Sign-in and a busy page may pass; the request stays queued for them.
  return ['busy', 'login', 'cancelled'].includes(status) ? 'nack' : 'ack';
}

async function deliverInTab(tabId, site, text, attempt) {
  await chrome.scripting.executeScript({ target: { tabId }, files: ['content/page-driver.js'] });
  const [injection] = await chrome.scripting.executeScript({
    target: { tabId },
    func: (entry, message, options) => globalThis.VelnoraPageDriver.deliver(entry, message, options),
    args: [site, text, { stopAt: attempt.stopAt }],
  });
  const status = injection?.result?.status;
  if (typeof status !== 'string') {
    throw new Error('页面没有返回结果');
  }
  return status;
}

// The self-check: what a delivery would find on the page, without typing or pressing anything.
async function checkPage(site) {
  const verdict = { reachable: false, signInPage: false, input: false, submit: false, signedIn: false };
  let tab;
  try {
    tab = await showSite(site);
  } catch {
    return verdict;
  }
  verdict.reachable = true;
  if (isSignInAddress(site, tab.url ?? '')) {
    return { ...verdict, signInPage: true };
  }
  const end = Date.now() + CHECK_INPUT_WAIT_MS;
  for (;;) {
    try {
      await chrome.scripting.executeScript({ target: { tabId: tab.id }, files: ['content/page-driver.js'] });
      const [injection] = await chrome.scripting.executeScript({
        target: { tabId: tab.id },
        func: (entry) => globalThis.VelnoraPageDriver.inspect(entry),
        args: [site],
      });
      const seen = injection?.result ?? {};
      Object.assign(verdict, {
        signInPage: seen.signInPage === true, input: seen.input === true, submit: seen.submit === true,
        signedIn: seen.signedIn === true,
      });
    } catch {
      // The browser's error page.
      return { ...verdict, reachable: false };
    }
    if ((verdict.input && verdict.submit) || verdict.signInPage || Date.now() >= end) {
      return verdict;
    }
    await new Promise((resolve) => setTimeout(resolve, 500));
  }
}

async function tabAwayForSignIn(site) {
  for (const [tabId, waiting] of awaitingSignIn) {
    if (waiting.site.title !== site.title) {
      continue;
    }
    const tab = await chrome.tabs.get(tabId).catch(() => null);
    const url = tab ? tab.url ?? '' : '';
    if (tab && (isSignInAddress(site, url) || !site.matches.some((prefix) => url.startsWith(prefix)))) {
      return tabId;
    }
  }
  return null;
}

function cancelInTab(tabId) {
  chrome.scripting.executeScript({
    target: { tabId },
    func: () => globalThis.VelnoraPageDriver?.cancel(),
  }).catch(() => {});
}

// --- tabs -------------------------------------------------------------------------------------

// The tab we opened for a site is followed by its id, also while it shows a sign-in page on
// another host: a retry must not open the site again beside it.
async function findSiteTab(site) {
  const { siteTabs = {} } = await chrome.storage.session.get('siteTabs');
  const remembered = siteTabs[site.title];
  if (typeof remembered === 'number') {
    const tab = await chrome.tabs.get(remembered).catch(() => null);
    const url = tab ? tab.url || tab.pendingUrl || '' : '';
    if (tab && (site.matches.some((prefix) => url.startsWith(prefix)) || isSignInAddress(site, url))) {
      return tab;
    }
  }
  const tabs = await chrome.tabs.query({});
  return tabs.find((tab) => site.matches.some((prefix) => (tab.url || tab.pendingUrl || '').startsWith(prefix)));
}

async function rememberSiteTab(site, tabId) {
  const { siteTabs = {} } = await chrome.storage.session.get('siteTabs');
  siteTabs[site.title] = tabId;
  await chrome.storage.session.set({ siteTabs });
}

async function focusWindow(windowId) {
  await chrome.windows.update(windowId, { focused: true }).catch(() => {});
}

// Brings the site's tab forward (opening it when there is none, and a window when the browser
// was started without one) and resolves once the page has loaded.
async function showSite(site, navigateTo) {
  const existing = await findSiteTab(site);
  if (existing) {
    await rememberSiteTab(site, existing.id);
    const loaded = navigateTo ? tabLoaded(existing.id, { alreadyLoadedCounts: false }) : null;
    const tab = await chrome.tabs.update(existing.id, navigateTo ? { active: true, url: navigateTo } : { active: true });
    await focusWindow(tab.windowId);
    return loaded ?? tabLoaded(tab.id, { alreadyLoadedCounts: true });
  }
  const url = navigateTo ?? site.url;
  const windows = await chrome.windows.getAll({ windowTypes: ['normal'] });
  let tab;
  if (windows.length === 0) {
    const created = await chrome.windows.create({ url, focused: true, type: 'normal' });
    tab = created.tabs[0];
  } else {
    tab = await chrome.tabs.create({ url, active: true });
    await focusWindow(tab.windowId);
  }
  await rememberSiteTab(site, tab.id);
  return tabLoaded(tab.id, { alreadyLoadedCounts: true });
}

function tabLoaded(tabId, { alreadyLoadedCounts }) {
  return new Promise((resolve, reject) => {
    const finish = (outcome) => {
      clearTimeout(timer);
      chrome.tabs.onUpdated.removeListener(onUpdated);
      chrome.tabs.onRemoved.removeListener(onRemoved);
      outcome();
    };
    const onUpdated = (id, change, tab) => {
      if (id === tabId && change.status === 'complete') {
        finish(() => resolve(tab));
      }
    };
    const onRemoved = (id) => {
      if (id === tabId) {
        finish(() => reject(new Error('标签页已关闭')));
      }
    };
    const timer = setTimeout(() => finish(() => reject(new Error('网页加载超时'))), PAGE_LOAD_TIMEOUT_MS);
    chrome.tabs.onUpdated.addListener(onUpdated);
    chrome.tabs.onRemoved.addListener(onRemoved);
    if (alreadyLoadedCounts) {
      chrome.tabs.get(tabId).then(
        (tab) => tab.status === 'complete' && finish(() => resolve(tab)),
        () => finish(() => reject(new Error('标签页已关闭'))));
    }
  });
}

function withDeadline(promise, ms) {
  let timer;
  const deadline = new Promise((_, reject) => {
    timer = setTimeout(() => reject(new Error('请求处理超时')), ms);
  });
  return Promise.race([promise, deadline]).finally(() => clearTimeout(timer));
}

// Back from signing in: the waiting request goes out at once instead of at the host's next retry.
chrome.tabs.onUpdated.addListener((tabId, change, tab) => {
  const waiting = awaitingSignIn.get(tabId);
  if (!waiting || change.status !== 'complete') {
    return;
  }
  const url = tab.url ?? '';
  if (waiting.site.matches.some((prefix) => url.startsWith(prefix)) && !isSignInAddress(waiting.site, url)) {
    awaitingSignIn.delete(tabId);
    onHostMessage(waiting.message);
  }
});
chrome.tabs.onRemoved.addListener((tabId) => awaitingSignIn.delete(tabId));

// --- site access ------------------------------------------------------------------------------

// In the manifest's form: any port, any path.
function siteOrigins(site) {
  return [...new Set([site.url, ...site.matches].map((address) => {
    const url = new URL(address);
    return `${url.protocol}//${url.hostname}/*`;
  }))];
}

// Asking needs the user's click, and no await may come before the request in its handler.
chrome.action.onClicked.addListener(() => {
  chrome.permissions.request({ origins: chrome.runtime.getManifest().host_permissions }).catch(() => false);
});
chrome.permissions.onAdded.addListener(() => {
  const waiting = [...awaitingPermission.values()];
  awaitingPermission.clear();
  showState(port ? 'connected' : 'disconnected');
  waiting.forEach((message) => onHostMessage(message));
});

// --- start ------------------------------------------------------------------------------------

chrome.runtime.onStartup.addListener(connect);
chrome.runtime.onInstalled.addListener(connect);
chrome.alarms.onAlarm.addListener((alarm) => {
  if (alarm.name === RECONNECT_ALARM) {
    connect();
  }
});
chrome.alarms.create(RECONNECT_ALARM, { periodInMinutes: RECONNECT_MS / 60_000 });
connect();
