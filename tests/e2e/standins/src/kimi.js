// Kimi: a Lexical editor; the send container is the Stop control while answering.
import { mountLexical } from './lexical-editor.js';
import { classes, mountChat } from './shell.js';

const input = document.querySelector('.chat-input-editor');
const control = document.querySelector('.send-button-container');
mountChat({
  editor: mountLexical(input, {}),
  control,
  input,
  look: (container, state) => {
    classes(container, state === 'empty' ? ['disabled'] : state === 'answering' ? ['stop'] : [], ['disabled', 'stop']);
    container.querySelector('svg').setAttribute('name', state === 'answering' ? 'Stop' : 'Send');
  },
});
