// A React-controlled textarea, the way DeepSeek and 智谱清言 build their input: the text lives in
// React state, so a value set behind React's back is lost on the next render.
import { createElement as h, useState } from 'react';
import { flushSync } from 'react-dom';
import { createRoot } from 'react-dom/client';

export function mountReactTextarea(mount, attributes) {
  const model = { value: '', set: null, listeners: [] };
  function Composer() {
    const [value, setValue] = useState('');
    model.set = setValue;
    return h('textarea', {
      ...attributes, value,
      onChange: (event) => {
        model.value = event.target.value;
        setValue(event.target.value);
        model.listeners.forEach((listener) => listener());
      },
    });
  }
  flushSync(() => createRoot(mount).render(h(Composer)));
  return {
    input: mount.querySelector('textarea'),
    editor: {
      modelText: () => model.value,
      clear: () => {
        flushSync(() => model.set(''));
        model.value = '';
      },
      onChange: (listener) => model.listeners.push(listener),
    },
  };
}
