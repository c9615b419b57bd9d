// 智谱清言: a React-controlled textarea inside #search-input-box.
import { mountReactTextarea } from './react-textarea.js';
import { classes, mountChat } from './shell.js';

const { editor, input } = mountReactTextarea(document.querySelector('[data-mount]'),
  { placeholder: '向 GLM 提问', rows: 2 });
const control = document.querySelector('.enter-icon-container');
mountChat({
  editor,
  control,
  input,
  look: (container, state) => {
    classes(container, state === 'empty' ? ['empty'] : [], ['empty']);
    classes(container.querySelector('.enter'), state === 'answering' ? ['searching'] : [], ['searching']);
  },
});
