// 千问: a Slate editor (React); the send control is one of several operateBtn divs and acts on the
// pointer sequence.
import { createElement as h, useState } from 'react';
import { flushSync } from 'react-dom';
import { createRoot } from 'react-dom/client';
import { Editor, Node, Transforms, createEditor } from 'slate';
import { withHistory } from 'slate-history';
import { Editable, Slate, withReact } from 'slate-react';
import { classes, mountChat } from './shell.js';

const editor = withHistory(withReact(createEditor()));
const empty = [{ type: 'paragraph', children: [{ text: '' }] }];
const listeners = [];

function Composer() {
  const [value] = useState(empty);
  return h(Slate, { editor, initialValue: value, onChange: () => listeners.forEach((listener) => listener()) },
    h(Editable, { placeholder: '向千问提问', className: 'chatTextarea-Xy12' }));
}

const mount = document.querySelector('#composer');
flushSync(() => createRoot(mount).render(h(Composer)));
const control = document.querySelector('[data-icon-type="qwpcicon-sendChat"]').parentElement;
mountChat({
  editor: {
    modelText: () => editor.children.map((node) => Node.string(node)).join('\n'),
    clear: () => {
      Transforms.delete(editor, { at: { anchor: Editor.start(editor, []), focus: Editor.end(editor, []) } });
    },
    onChange: (listener) => listeners.push(listener),
  },
  control,
  input: mount.querySelector('[data-slate-editor="true"]'),
  sendOn: 'pointer',
  look: (button, state) => {
    classes(button, state === 'empty' ? ['disabled-Qa7k'] : [], ['disabled-Qa7k']);
    button.querySelector('[data-icon-type]').setAttribute('data-icon-type',
      state === 'answering' ? 'qwpcicon-stopChat' : 'qwpcicon-sendChat');
  },
});
