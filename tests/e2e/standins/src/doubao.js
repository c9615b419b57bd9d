// 豆包 as of 2026-09: a Tiptap (ProseMirror) editor.
import { Editor } from '@tiptap/core';
import StarterKit from '@tiptap/starter-kit';
import { mountChat } from './shell.js';

const editor = new Editor({
  element: document.querySelector('#editor-mount'),
  extensions: [StarterKit],
  editorProps: { attributes: { role: 'textbox', 'aria-label': '发消息' } },
});
const control = document.querySelector('button[data-testid="chat_input_send_button"]');
const listeners = [];
editor.on('update', () => listeners.forEach((listener) => listener()));
mountChat({
  editor: {
    modelText: () => editor.getText({ blockSeparator: '\n' }),
    clear: () => editor.commands.clearContent(true),
    onChange: (listener) => listeners.push(listener),
  },
  control,
  input: editor.view.dom,
  look: (button, state) => {
    button.disabled = state === 'empty';
    if (state === 'answering') {
      button.setAttribute('data-testid', 'chat_input_stop_button');
    } else {
      button.setAttribute('data-testid', 'chat_input_send_button');
    }
  },
});
