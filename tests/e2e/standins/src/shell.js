// What every stand-in chat page does around its editor: the send control wakes up when the
// editor's own model holds text, sending reports what that model holds, shows the question as a
// new message and answers for a while, during which the control is a Stop control. Pressing it
// then, or any control that is not the send control, is reported as a fault.
const config = window.STANDIN;

export function report(kind, fields) {
  return fetch(`/${kind}?${new URLSearchParams({ json: JSON.stringify({ provider: config.provider, ...fields }) })}`);
}

new MutationObserver(() => {
  const notice = document.getElementById('velnora-bridge-notice');
  if (notice && !notice.dataset.reported) {
    notice.dataset.reported = 'yes';
    report('notices', { kind: notice.getAttribute('data-kind'), text: notice.shadowRoot.textContent });
  }
}).observe(document.documentElement, { childList: true, subtree: true });

// editor: { modelText(), clear(), onChange(callback) }; look: how the site marks its control.
// look.setState(control, state) with state 'empty' | 'ready' | 'answering'.
export function mountChat({ editor, control, look, sendOn = 'click', enterSends = true, input }) {
  let answering = false;
  let state = null;
  const messages = document.querySelector('.message-list');
  const setState = (next) => {
    state = next;
    look(control, next);
  };
  const refresh = () => {
    if (!answering) {
      setState(editor.modelText().trim() === '' ? 'empty' : 'ready');
    }
  };
  const answer = (ms, then = () => {}) => {
    answering = true;
    setState('answering');
    setTimeout(() => {
      answering = false;
      refresh();
      then();
    }, ms);
  };
  const send = (how) => {
    if (answering) {
      report('faults', { fault: `pressed while answering (${how})` });
      return;
    }
    const text = editor.modelText();
    if (text.trim() === '') {
      return;
    }
    report('submissions', { text, how, swallowed: config.swallow });
    if (config.swallow) {
      // Like a visitor's page: the box empties and nothing else happens.
      editor.clear();
      return;
    }
    const bubble = document.createElement('div');
    bubble.className = 'user-message';
    bubble.textContent = text;
    messages.append(bubble);
    editor.clear();
    answer(config.answerMs);
  };
  editor.onChange(refresh);
  if (sendOn === 'click') {
    control.addEventListener('click', () => state !== 'empty' && send('click'));
  } else {
    // Like a page that acts on the pointer sequence, not on a bare click().
    let pressed = false;
    control.addEventListener('mousedown', () => { pressed = true; });
    control.addEventListener('mouseup', () => {
      if (pressed && state !== 'empty') {
        send('pointer');
      }
      pressed = false;
    });
  }
  for (const decoy of document.querySelectorAll('[data-decoy]')) {
    decoy.addEventListener('click', () => report('faults', { fault: `clicked ${decoy.dataset.decoy}` }));
    decoy.addEventListener('mouseup', () => report('faults', { fault: `pressed ${decoy.dataset.decoy}` }));
  }
  if (enterSends) {
    input.addEventListener('keydown', (event) => {
      if (event.key === 'Enter' && !event.shiftKey) {
        event.preventDefault();
        send('enter');
      }
    }, true);
  }
  refresh();
  // Every page is still answering when it opens: the delivery must wait for it.
  let probe = null;
  answer(config.answerAtLoadMs, () => probe());
  probe = probeDriver(input, control);
}

// The page driver's own lookups on this page while it answers (now) and once it is quiet (the
// returned step): the input and the send control by the site's markers, and the Stop control never
// taken for a send control.
function probeDriver(input, control) {
  const driver = window.VelnoraPageDriver;
  const site = window.SITES[config.provider];
  const failed = [];
  const check = (name, ok) => ok || failed.push(name);
  check('input', driver.findInput(document, site) === input);
  check('answering seen', driver.isAnswering(document, site));
  check('stop control not taken for send', driver.findSubmit(document, site) === null);
  return () => {
    check('not answering afterwards', !driver.isAnswering(document, site));
    check('send control', driver.findSubmit(document, site) === control);
    check('signed in', driver.inspect(site).signedIn);
    const selectors = Object.values(window.SITES).flatMap((entry) =>
      [...entry.input, ...entry.submit, ...entry.stop, ...entry.login, ...entry.signedOut]);
    failed.push(...selectors.filter((selector) => !CSS.supports(`selector(${selector})`)));
    report('probes', { failed });
  };
}

// Class-list helper for hashed class names: swaps the state classes.
export function classes(el, on, off) {
  el.classList.remove(...off);
  el.classList.add(...on);
}
