// Runs inside a chat page (isolated world). Finds the page's input, types the message so the page
// sees real input, and sends it. Loaded as a classic script so the unit tests can run it on saved
// page structures; everything it exports hangs off globalThis.VelnoraPageDriver.
(function (root) {
  'use strict';
  if (root.VelnoraPageDriver) {
    return;
  }

  const NOTICE_ID = 'velnora-bridge-notice';
  const GENERIC_INPUTS = [
    'textarea',
    '[contenteditable="true"][role="textbox"]',
    '[contenteditable="true"]',
    '[contenteditable="plaintext-only"]',
    'input[type="text"]',
  ];
  const GENERIC_SUBMITS = [
    'button[type="submit"]',
    '[aria-label*="发送"]',
    '[title*="发送"]',
    '[data-testid*="send"]',
    '[class*="send"]',
    '[class*="Send"]',
  ];
  const LOGIN_WORDS = ['登录', '立即登录', '登录/注册', '登录 / 注册', '扫码登录', '手机号登录'];

  const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

  // Polls until the probe returns something truthy; every wait in here ends at its deadline.
  async function waitFor(probe, timeoutMs, intervalMs = 100) {
    const deadline = Date.now() + timeoutMs;
    for (;;) {
      const value = probe();
      if (value) {
        return value;
      }
      if (Date.now() >= deadline) {
        return null;
      }
      await sleep(intervalMs);
    }
  }

  function attr(el, name) {
    return el.getAttribute ? el.getAttribute(name) : null;
  }

  function isTextControl(el) {
    const tag = (el.tagName || '').toLowerCase();
    return tag === 'textarea' || tag === 'input';
  }

  function isContentEditable(el) {
    const value = attr(el, 'contenteditable');
    return value === 'true' || value === '' || value === 'plaintext-only' || el.isContentEditable === true;
  }

  function insideNotice(el) {
    return typeof el.closest === 'function' && el.closest(`#${NOTICE_ID}`) !== null;
  }

  function isVisible(el) {
    if (typeof el.closest === 'function' && el.closest('[hidden], [aria-hidden="true"]')) {
      return false;
    }
    if (typeof el.getClientRects === 'function' && el.getClientRects().length === 0) {
      return false;
    }
    const view = el.ownerDocument && el.ownerDocument.defaultView;
    if (view && typeof view.getComputedStyle === 'function') {
      const style = view.getComputedStyle(el);
      if (style.visibility === 'hidden' || style.display === 'none') {
        return false;
      }
    }
    return true;
  }

  function isBusy(el) {
    return el.disabled === true || el.readOnly === true || attr(el, 'aria-disabled') === 'true';
  }

  function isDisabledControl(el) {
    if (el.disabled === true || attr(el, 'aria-disabled') === 'true') {
      return true;
    }
    return /(^|[\s_-])disabled/i.test(attr(el, 'class') || '');
  }

  function queryAll(scope, selector) {
    try {
      return Array.from(scope.querySelectorAll(selector));
    } catch (error) {
      return [];
    }
  }

  // A selector may name the editor's wrapper; the editable element is then inside it.
  function editableWithin(el) {
    if (isTextControl(el) || isContentEditable(el)) {
      return el;
    }
    return el.querySelector('[contenteditable="true"], [contenteditable="plaintext-only"], textarea');
  }

  function findInput(doc, site, { fallback = true } = {}) {
    for (const selector of site.input || []) {
      for (const match of queryAll(doc, selector)) {
        const el = editableWithin(match);
        if (el && !insideNotice(el) && isVisible(el)) {
          return el;
        }
      }
    }
    if (!fallback) {
      return null;
    }
    // Generic fallback: the first visible field that takes text right now.
    for (const selector of GENERIC_INPUTS) {
      for (const el of queryAll(doc, selector)) {
        if (!insideNotice(el) && isVisible(el) && !isBusy(el)) {
          return el;
        }
      }
    }
    return null;
  }

  function findSubmit(doc, site, input) {
    for (const selector of site.submit || []) {
      const found = queryAll(doc, selector).find((el) => isVisible(el) && !insideNotice(el));
      if (found) {
        return found;
      }
    }
    // Near the input: walk up a few levels and look for something that says "send".
    let scope = input.parentElement;
    for (let level = 0; scope && level < 5; level += 1, scope = scope.parentElement) {
      for (const selector of GENERIC_SUBMITS) {
        const found = queryAll(scope, selector).find(
          (el) => el !== input && !el.contains(input) && isVisible(el) && !insideNotice(el));
        if (found) {
          return found;
        }
      }
    }
    return null;
  }

  function visibleMatch(doc, selector) {
    return queryAll(doc, selector).some((el) => isVisible(el) && !insideNotice(el));
  }

  // Decisive signs: the site's own sign-in address or dialog.
  function loginRequired(doc, href, site) {
    if ((site.loginUrl || []).some((fragment) => String(href || '').includes(fragment))) {
      return true;
    }
    return (site.login || []).some((selector) => visibleMatch(doc, selector));
  }

  // Weaker signs, only believed when no input turned up at all.
  function looksLikeLogin(doc) {
    if (visibleMatch(doc, 'input[type="password"]') || visibleMatch(doc, 'input[type="tel"]')) {
      return true;
    }
    return queryAll(doc, 'button, a, [role="button"]').some(
      (el) => isVisible(el) && LOGIN_WORDS.includes((el.textContent || '').trim()));
  }

  function textOf(el) {
    if (isTextControl(el)) {
      return el.value || '';
    }
    return el.innerText !== undefined ? el.innerText : el.textContent || '';
  }

  const squash = (text) => String(text).replace(/\s+/g, '');

  function holdsText(el, text) {
    return squash(textOf(el)).includes(squash(text));
  }

  function selectContents(doc, el) {
    const selection = doc.getSelection();
    const range = doc.createRange();
    range.selectNodeContents(el);
    selection.removeAllRanges();
    selection.addRange(range);
  }

  // execCommand("insertText") goes through the browser's editing pipeline, so pages and rich
  // editors see trusted beforeinput/input events. The other paths cover editors that ignore it.
  async function insertText(doc, input, text) {
    input.focus();
    if (isTextControl(input)) {
      input.select();
      doc.execCommand('insertText', false, text);
      if (textOf(input) === text) {
        return true;
      }
      const proto = Object.getPrototypeOf(input);
      const setter = Object.getOwnPropertyDescriptor(proto, 'value');
      if (setter && setter.set) {
        setter.set.call(input, text);
      } else {
        input.value = text;
      }
      input.dispatchEvent(new InputEvent('input', { bubbles: true, inputType: 'insertText', data: text }));
      return textOf(input) === text;
    }
    selectContents(doc, input);
    doc.execCommand('insertText', false, text);
    await sleep(50);
    if (holdsText(input, text)) {
      return true;
    }
    selectContents(doc, input);
    const data = new DataTransfer();
    data.setData('text/plain', text);
    input.dispatchEvent(new ClipboardEvent('paste', { clipboardData: data, bubbles: true, cancelable: true }));
    await sleep(100);
    return holdsText(input, text);
  }

  function pressEnter(input) {
    for (const type of ['keydown', 'keypress', 'keyup']) {
      input.dispatchEvent(new KeyboardEvent(type, {
        key: 'Enter', code: 'Enter', keyCode: 13, which: 13, bubbles: true, cancelable: true,
      }));
    }
  }

  // Chat pages empty their input once a message is on its way; some replace the element.
  function wasSent(doc, site, input) {
    const current = input.isConnected ? input : findInput(doc, site);
    return current !== null && squash(textOf(current)) === '';
  }

  async function submit(doc, site, input) {
    if (findSubmit(doc, site, input)) {
      const button = await waitFor(() => {
        const candidate = findSubmit(doc, site, input);
        return candidate && !isDisabledControl(candidate) ? candidate : null;
      }, 5000);
      if (button) {
        button.click();
        if (await waitFor(() => wasSent(doc, site, input), 4000)) {
          return true;
        }
      }
    }
    const field = input.isConnected ? input : findInput(doc, site) || input;
    field.focus();
    pressEnter(field);
    return (await waitFor(() => wasSent(doc, site, input), 3000)) !== null;
  }

  const NOTICES = {
    login: (site) => `澜镜：请先在这个页面登录${site.title}。登录后重新划词，解释请求就会发到这里。`,
    broken: (site) =>
      `澜镜：没能在这个页面找到${site.title}的输入框，网页可能改版了。可以复制下面的内容手动发送，` +
      '或在澜镜设置里换一个网页服务。',
    filled: (site) => `澜镜：内容已填入${site.title}的输入框，但没能自动发送，请按回车发送。`,
  };

  function removeNotice(doc) {
    const old = doc.getElementById(NOTICE_ID);
    if (old) {
      old.remove();
    }
  }

  function showNotice(doc, kind, site, text) {
    removeNotice(doc);
    const host = doc.createElement('div');
    host.id = NOTICE_ID;
    host.setAttribute('data-kind', kind);
    host.style.cssText = 'position:fixed;top:12px;left:50%;transform:translateX(-50%);' +
      'z-index:2147483647;max-width:560px;width:calc(100% - 32px);';
    const shadow = host.attachShadow({ mode: 'open' });
    const box = doc.createElement('div');
    box.style.cssText = 'font:14px/1.6 system-ui,sans-serif;color:#1f2328;background:#fff8e6;' +
      'border:1px solid #e0b252;border-radius:8px;padding:12px 14px;box-shadow:0 4px 16px rgba(0,0,0,.15);';
    const message = doc.createElement('div');
    message.className = 'message';
    message.textContent = NOTICES[kind](site);
    box.append(message);
    if (text) {
      const area = doc.createElement('textarea');
      area.readOnly = true;
      area.value = text;
      area.style.cssText = 'width:100%;height:96px;margin-top:8px;box-sizing:border-box;font:inherit;';
      const copy = doc.createElement('button');
      copy.textContent = '复制内容';
      copy.addEventListener('click', () => {
        area.select();
        doc.execCommand('copy');
        copy.textContent = '已复制';
      });
      box.append(area, copy);
    }
    const close = doc.createElement('button');
    close.textContent = '关闭';
    close.style.marginLeft = '8px';
    close.addEventListener('click', () => host.remove());
    box.append(close);
    shadow.append(box);
    (doc.body || doc.documentElement).append(host);
  }

  // The whole delivery. Statuses: sent, filled (typed, the user presses Enter), login, busy
  // (the page does not take input now), no-input and insert-failed (the adapter no longer fits).
  async function deliver(site, text, options = {}) {
    const doc = root.document;
    const inputTimeoutMs = options.inputTimeoutMs ?? 15000;
    removeNotice(doc);
    const found = await waitFor(() => {
      if (loginRequired(doc, root.location.href, site)) {
        return { login: true };
      }
      const field = findInput(doc, site);
      return field ? { field } : null;
    }, inputTimeoutMs, 200);
    let input = found && found.field ? found.field : null;
    if ((found && found.login) || (!input && looksLikeLogin(doc))) {
      showNotice(doc, 'login', site);
      return { status: 'login' };
    }
    if (!input) {
      showNotice(doc, 'broken', site, text);
      return { status: 'no-input' };
    }
    if (isBusy(input)) {
      input = await waitFor(() => {
        const current = findInput(doc, site);
        return current && !isBusy(current) ? current : null;
      }, options.busyTimeoutMs ?? 10000, 200);
      if (!input) {
        return { status: 'busy' };
      }
    }
    if (!(await insertText(doc, input, text))) {
      showNotice(doc, 'broken', site, text);
      return { status: 'insert-failed' };
    }
    if (await submit(doc, site, input)) {
      return { status: 'sent' };
    }
    showNotice(doc, 'filled', site);
    return { status: 'filled' };
  }

  root.VelnoraPageDriver = { deliver, findInput, findSubmit, loginRequired, looksLikeLogin, isBusy };
})(globalThis);
