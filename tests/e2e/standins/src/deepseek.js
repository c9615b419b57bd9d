// DeepSeek: a React-controlled textarea; the send button turns into the Stop button.
import { mountReactTextarea } from './react-textarea.js';
import { mountChat } from './shell.js';

const SEND_PATH = 'M8.3125 0.981587C8.66767 1.0545 8.97902 1.20558 9.2627 1.43374';
const STOP_PATH = 'M2 4.88006C2 3.68015 2 3.08019 2.30557 2.6596';

const { editor, input } = mountReactTextarea(document.querySelector('#composer'),
  { id: 'chat-input', className: 'ds-scroll-area', placeholder: '给 DeepSeek 发送消息 ', rows: 2 });
const control = document.querySelector('#send-control');
const path = control.querySelector('path');
mountChat({
  editor,
  control,
  input,
  look: (button, state) => {
    button.setAttribute('aria-disabled', String(state === 'empty'));
    button.classList.toggle('ds-icon-button--disabled', state === 'empty');
    path.setAttribute('d', state === 'answering' ? STOP_PATH : SEND_PATH);
  },
});
