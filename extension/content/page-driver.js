// Runs inside a chat page (isolated world). Finds the page's input, types the message so the page
// sees real input, and sends it. Loaded as a classic script so the unit tests can run it on saved
// page structures; everything it exports hangs off globalThis.VelnoraPageDriver.
(function (root) {
  'use strict';
  if (root.VelnoraPageDriver) {
    return;
  }

  const NOTICE_ID = 'velnora-bridge-notice';
  const LOGIN_WORDS = ['登录', '立即登录', '登录/注册', '登录 / 注册', '扫码登录', '手机号登录'];

  const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

  // Set by the extension when the delivery's deadline passed: nothing may be typed or pressed after.
  let cancelled = false;
  let stopAt = Infinity;
  const stopped = () => cancelled || Date.now() >= stopAt;

  // Polls until the probe returns something truthy; every wait in here ends at its deadline.
  async function waitFor(probe, timeoutMs, intervalMs = 100) {
    const deadline = Math.min(Date.now() + timeoutMs, stopAt);
    for (;;) {
      const value = probe();
      if (value || stopped()) {
        return value || null;
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
    return el.disabled === true || el.readOnly === true || attr(el, 'aria-disabled') === 'true' ||
      attr(el, 'contenteditable') === 'false';
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

  function firstVisible(doc, selectors) {
    for (const selector of selectors || []) {
      const found = queryAll(doc, selector).find((el) => isVisible(el) && !insideNotice(el));
      if (found) {
        return found;
      }
    }
    return null;
  }

  // A selector may name the editor's wrapper; the editable element is then inside it.
  function editableWithin(el) {
    if (isTextControl(el) || isContentEditable(el)) {
      return el;
    }
    return el.querySelector('[contenteditable="true"], [contenteditable="plaintext-only"], textarea');
  }

  // Only the site's own markers: a stale one must end in the notice, not in some other field.
  function findInput(doc, site) {
    for (const selector of site.input || []) {
      for (const match of queryAll(doc, selector)) {
        const el = editableWithin(match);
        if (el && !insideNotice(el) && isVisible(el)) {
          return el;
        }
      }
    }
    return null;
  }

  // The send control, unless it is showing its Stop state.
  function findSubmit(doc, site) {
    const found = firstVisible(doc, site.submit);
    return found && !isAnswering(doc, site, found) ? found : null;
  }

  function isAnswering(doc, site, candidate = null) {
    return (site.stop || []).some((selector) =>
      queryAll(doc, selector).some((el) => isVisible(el) && !insideNotice(el) &&
        (candidate === null || el === candidate || el.contains(candidate) || candidate.contains(el))));
  }

  function visibleMatch(doc, selector) {
    return queryAll(doc, selector).some((el) => isVisible(el) && !insideNotice(el));
  }

  // Decisive signs: the site's own sign-in address or a sign-in wall.
  function loginRequired(doc, href, site) {
    let url = null;
    try {
      url = new URL(String(href || ''));
    } catch (error) {
      url = null;
    }
    if (url && ((site.loginHosts || []).includes(url.hostname) ||
      (site.loginUrl || []).some((fragment) => url.pathname.includes(fragment)))) {
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

  function signedOut(doc, site) {
    return (site.signedOut || []).some((selector) =>
      queryAll(doc, selector).some((el) => isVisible(el) && /登录/.test(el.textContent || attr(el, 'aria-label') || '')));
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

  const lines = (text) => String(text).split('\n').map((line) => line.trim()).filter((line) => line !== '');

  // Whole lines, in order: some editors take the characters but drop the line breaks.
  function holdsLines(el, text) {
    return lines(textOf(el)).join('\n') === lines(text).join('\n');
  }

  function selectContents(doc, el) {
    if (isTextControl(el)) {
      el.select();
      return;
    }
    const selection = doc.getSelection();
    const range = doc.createRange();
    range.selectNodeContents(el);
    selection.removeAllRanges();
    selection.addRange(range);
  }

  // Rich editors (Lexical, Slate) take the selection from "selectionchange", which comes later.
  async function selectAll(doc, input) {
    input.focus();
    selectContents(doc, input);
    await sleep(50);
  }

  // Through the editing pipeline, so the editor's own model hears of it.
  async function clear(doc, input) {
    if (squash(textOf(input)) !== '') {
      await selectAll(doc, input);
      doc.execCommand('delete', false);
      await sleep(50);
    }
  }

  // Each stage leaves the box empty or holding the whole text; the page's own send control
  // waking up is the sign that the editor's model (not just its DOM) received it.
  const INSERT_STAGES = [
    {
      name: 'insertText',
      run: (doc, input, text) => doc.execCommand('insertText', false, text),
    },
    {
      name: 'paste',
      run: (doc, input, text) => {
        const data = new DataTransfer();
        data.setData('text/plain', text);
        input.dispatchEvent(new ClipboardEvent('paste', { clipboardData: data, bubbles: true, cancelable: true }));
      },
    },
    {
      name: 'value',
      textareaOnly: true,
      run: (doc, input, text) => {
        const setter = Object.getOwnPropertyDescriptor(Object.getPrototypeOf(input), 'value');
        setter.set.call(input, text);
        input.dispatchEvent(new InputEvent('input', { bubbles: true, inputType: 'insertText', data: text }));
      },
    },
  ];

  async function insertText(doc, site, input, text) {
    const hadControl = firstVisible(doc, site.submit) !== null;
    for (const stage of INSERT_STAGES) {
      if (stopped()) {
        return null;
      }
      if (stage.textareaOnly && !isTextControl(input)) {
        continue;
      }
      await clear(doc, input);
      await selectAll(doc, input);
      stage.run(doc, input, text);
      const accepted = await waitFor(() => {
        const current = input.isConnected ? input : findInput(doc, site);
        if (!current || !holdsLines(current, text)) {
          return null;
        }
        const control = firstVisible(doc, site.submit);
        return !hadControl || (control && !isDisabledControl(control)) ? current : null;
      }, 1500, 50);
      if (accepted) {
        return accepted;
      }
    }
    if (!stopped()) {
      await clear(doc, input);
    }
    return null;
  }

  function pressEnter(input) {
    for (const type of ['keydown', 'keypress', 'keyup']) {
      input.dispatchEvent(new KeyboardEvent(type, {
        key: 'Enter', code: 'Enter', keyCode: 13, which: 13, bubbles: true, cancelable: true,
      }));
    }
  }

  function pointerClick(el) {
    const box = el.getBoundingClientRect();
    const at = { bubbles: true, cancelable: true, composed: true, clientX: box.x + box.width / 2, clientY: box.y + box.height / 2 };
    el.dispatchEvent(new PointerEvent('pointerdown', { ...at, pointerType: 'mouse', isPrimary: true }));
    el.dispatchEvent(new MouseEvent('mousedown', at));
    el.dispatchEvent(new PointerEvent('pointerup', { ...at, pointerType: 'mouse', isPrimary: true }));
    el.dispatchEvent(new MouseEvent('mouseup', at));
    el.dispatchEvent(new MouseEvent('click', at));
  }

  // How often a line of the message shows on the page outside the input.
  function probeLine(text) {
    return squash(lines(text).reduce((longest, line) => (line.length > longest.length ? line : longest), '')).slice(0, 24);
  }

  function shownOutside(doc, input, probe) {
    const all = squash(doc.body ? doc.body.innerText : '');
    const inside = input && input.isConnected ? squash(textOf(input)) : '';
    const count = (haystack) => (probe === '' ? 0 : haystack.split(probe).length - 1);
    return count(all) - count(inside);
  }

  // Proof comes from the page: a new message with the text, a stop control, or a new address.
  function sentProof(doc, site, input, before) {
    if (root.location.href !== before.href) {
      return 'address';
    }
    if (!before.answering && isAnswering(doc, site)) {
      return 'stop';
    }
    return shownOutside(doc, input, before.probe) > before.shown ? 'message' : null;
  }

  const SEND_STAGES = [
    { name: 'click', needsControl: true, run: (control) => control.click() },
    { name: 'pointer', needsControl: true, run: (control) => pointerClick(control) },
    { name: 'enter', needsControl: false, run: (control, input) => { input.focus(); pressEnter(input); } },
  ];

  async function submit(doc, site, input, text) {
    const before = {
      href: root.location.href, answering: isAnswering(doc, site), probe: probeLine(text), shown: 0,
    };
    before.shown = shownOutside(doc, input, before.probe);
    for (const stage of SEND_STAGES) {
      if (stopped()) {
        return 'cancelled';
      }
      const field = input.isConnected ? input : findInput(doc, site);
      if (!field || !holdsText(field, text)) {
        // The text left the box without proof: sending again could send it twice.
        return (await waitFor(() => sentProof(doc, site, field, before), 3000)) ? 'sent' : 'unconfirmed';
      }
      const control = findSubmit(doc, site);
      if (stage.needsControl && (!control || isDisabledControl(control))) {
        continue;
      }
      stage.run(control, field);
      if (await waitFor(() => sentProof(doc, site, field, before), 2500)) {
        return 'sent';
      }
    }
    return 'filled';
  }

  const NOTICES = {
    login: (site) => `澜镜：请先在这个页面登录${site.title}。登录后重新划词，解释请求就会发到这里。`,
    broken: (site) =>
      `澜镜：没能在这个页面找到${site.title}的输入框，网页可能改版了。可以复制下面的内容手动发送，` +
      '或在澜镜设置里换一个网页服务。',
    filled: (site) => `澜镜：内容已填入${site.title}的输入框，但没能自动发送，请按回车发送。`,
    unconfirmed: (site) => `澜镜：内容已从输入框发出，但${site.title}的页面没有显示这条提问，请确认后再试。`,
    busy: (site) => `澜镜：${site.title}还在回答上一个问题，等它答完后，这条解释请求会自动发出。`,
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

  // The whole delivery. Statuses: sent, unconfirmed (the text left the box, the page shows nothing),
  // filled (typed, the user presses Enter), login, busy (answering, or the input takes no text now),
  // no-input and insert-failed (the adapter no longer fits), cancelled (the deadline passed).
  async function deliver(site, text, options = {}) {
    const doc = root.document;
    cancelled = false;
    stopAt = options.stopAt ?? Infinity;
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
      showNotice(doc, 'login', site, text);
      return { status: 'login' };
    }
    if (stopped()) {
      return { status: 'cancelled' };
    }
    if (!input) {
      showNotice(doc, 'broken', site, text);
      return { status: 'no-input' };
    }
    // Never interrupt an answer: its Stop control is often the very send button.
    const ready = () => {
      const current = findInput(doc, site);
      return current && !isBusy(current) && !isAnswering(doc, site) ? current : null;
    };
    input = await waitFor(ready, options.busyTimeoutMs ?? 30000, 200);
    if (stopped()) {
      return { status: 'cancelled' };
    }
    if (!input) {
      showNotice(doc, 'busy', site);
      return { status: 'busy' };
    }
    const field = await insertText(doc, site, input, text);
    if (stopped()) {
      return { status: 'cancelled' };
    }
    if (!field) {
      showNotice(doc, 'broken', site, text);
      return { status: 'insert-failed' };
    }
    const status = await submit(doc, site, field, text);
    if (status === 'filled' || status === 'unconfirmed') {
      showNotice(doc, status, site);
    }
    return { status };
  }

  // Read-only: what a delivery would find on this page now. Nothing is typed or pressed.
  function inspect(site) {
    const doc = root.document;
    if (loginRequired(doc, root.location.href, site)) {
      return { signInPage: true, input: false, submit: false, signedIn: false };
    }
    const input = findInput(doc, site);
    return {
      input: input !== null,
      submit: firstVisible(doc, site.submit) !== null || isAnswering(doc, site),
      signedIn: !signedOut(doc, site) && !(input === null && looksLikeLogin(doc)),
    };
  }

  function cancel() {
    cancelled = true;
  }

  root.VelnoraPageDriver = {
    deliver, inspect, cancel, findInput, findSubmit, isAnswering, loginRequired, looksLikeLogin, isBusy,
  };
})(globalThis);
