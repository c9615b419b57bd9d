// 智谱清言: a React-controlled textarea inside #search-input-box.
import { createElement as h, useState } from 'react';
import { flushSync } from 'react-dom';
import { createRoot } from 'react-dom/client';
import { classes, mountChat } from './shell.js';

const model = { value: '', set: null, listeners: [] };

function Composer() {
  const [value, setValue] = useState('');
  model.set = setValue;
  return h('textarea', {
    placeholder: '向 GLM 提问', rows: 2, value,
    onChange: (event) => {
      model.value = event.target.value;
      setValue(event.target.value);
      model.listeners.forEach((listener) => listener());
    },
  });
}

const mount = document.querySelector('#search-input-box');
flushSync(() => createRoot(mount).render(h(Composer)));
const control = document.querySelector('.enter-icon-container');
mountChat({
  editor: {
    modelText: () => model.value,
    clear: () => {
      flushSync(() => model.set(''));
      model.value = '';
    },
    onChange: (listener) => model.listeners.push(listener),
  },
  control,
  input: mount.querySelector('textarea'),
  look: (container, state) => {
    classes(container, state === 'empty' ? ['empty'] : [], ['empty']);
    classes(container.querySelector('.enter'), state === 'answering' ? ['searching'] : [], ['searching']);
  },
});
