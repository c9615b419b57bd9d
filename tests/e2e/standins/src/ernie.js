// 文心一言: a Lexical editor with its own class names.
import { mountLexical } from './lexical-editor.js';
import { mountChat } from './shell.js';

const input = document.querySelector('#dialogue-input .yc-editor');
// Found by its place, so the page still works when the test renames its id.
const control = document.querySelector('#dialogue-input .tools > div');
mountChat({
  editor: mountLexical(input, { paragraph: 'yc-editor-paragraph' }),
  control,
  input,
  look: (button, state) => {
    button.className = state === 'empty' ? 'send-disabled' : state === 'answering' ? 'stopBtn-x' : 'send-ready';
  },
});
