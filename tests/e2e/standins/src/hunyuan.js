// 腾讯元宝: a Quill editor; the send div turns into 「停止回答」, and a second Stop link carries a
// "send-btn" class fragment.
import Quill from 'quill';
import { classes, mountChat } from './shell.js';

const quill = new Quill('#quill-mount', { placeholder: '有问题，尽管问' });
const control = document.querySelector('#yuanbao-send-btn');
const stopLink = document.querySelector('a[class*="style__send-btn___"]');
const listeners = [];
quill.on('text-change', () => listeners.forEach((listener) => listener()));
mountChat({
  editor: {
    modelText: () => quill.getText().replace(/\n$/, ''),
    clear: () => quill.setText(''),
    onChange: (listener) => listeners.push(listener),
  },
  control,
  input: quill.root,
  look: (button, state) => {
    classes(button, state === 'empty' ? ['SendButton_disabled__k2'] : state === 'answering' ? ['SendButton_sendStop__k2'] : [],
      ['SendButton_disabled__k2', 'SendButton_sendStop__k2']);
    if (state === 'answering') {
      button.setAttribute('aria-label', '停止回答');
    } else {
      button.setAttribute('aria-label', '发送');
    }
    stopLink.hidden = state !== 'answering';
  },
});
