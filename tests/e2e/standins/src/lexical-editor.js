// A Lexical rich-text editor on the element, the way Kimi and 文心一言 mount theirs.
import { registerRichText } from '@lexical/rich-text';
import { $getRoot, createEditor } from 'lexical';

export function mountLexical(element, theme) {
  const editor = createEditor({ namespace: 'chat', theme, onError: (error) => { throw error; } });
  editor.setRootElement(element);
  registerRichText(editor);
  const listeners = [];
  editor.registerUpdateListener(() => listeners.forEach((listener) => listener()));
  return {
    // Lexical separates paragraphs with a blank line; the lines are what count.
    modelText: () => editor.getEditorState().read(() => $getRoot().getTextContent()).replace(/\n\n/g, '\n'),
    clear: () => editor.update(() => $getRoot().clear(), { discrete: true }),
    onChange: (listener) => listeners.push(listener),
  };
}
