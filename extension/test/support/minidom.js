// A small DOM for saved page structures: enough HTML parsing and CSS selector matching (type, id,
// class, attribute selectors with = ~= ^= $= *=, descendant and child combinators, selector
// lists) for the page driver's lookups. Visibility follows the hidden attribute and inline
// display:none. Anything outside that subset throws, so an adapter selector that this cannot read
// fails its test instead of silently matching nothing.

const VOID = new Set(['area', 'base', 'br', 'col', 'embed', 'hr', 'img', 'input', 'link', 'meta', 'source', 'wbr']);
const RAW_TEXT = new Set(['script', 'style']);

class Node {
  constructor() {
    this.parentNode = null;
    this.childNodes = [];
  }
  get parentElement() {
    return this.parentNode instanceof Element ? this.parentNode : null;
  }
  get textContent() {
    return this.childNodes.map((child) => child.textContent).join('');
  }
  get isConnected() {
    return true;
  }
  contains(other) {
    for (let node = other; node; node = node.parentNode) {
      if (node === this) {
        return true;
      }
    }
    return false;
  }
  *descendants() {
    for (const child of this.childNodes) {
      if (child instanceof Element) {
        yield child;
        yield* child.descendants();
      }
    }
  }
  querySelectorAll(selector) {
    const list = parseSelectorList(selector);
    return [...this.descendants()].filter((el) => list.some((complex) => matchesComplex(el, complex)));
  }
  querySelector(selector) {
    return this.querySelectorAll(selector)[0] ?? null;
  }
}

class Text extends Node {
  constructor(data) {
    super();
    this.data = data;
  }
  get textContent() {
    return this.data;
  }
}

class Element extends Node {
  constructor(tag, attributes, ownerDocument) {
    super();
    this.localName = tag;
    this.tagName = tag.toUpperCase();
    this.attributes = attributes;
    this.ownerDocument = ownerDocument;
  }
  getAttribute(name) {
    return this.attributes.has(name) ? this.attributes.get(name) : null;
  }
  hasAttribute(name) {
    return this.attributes.has(name);
  }
  get id() {
    return this.getAttribute('id') ?? '';
  }
  get classList() {
    return (this.getAttribute('class') ?? '').split(/\s+/).filter(Boolean);
  }
  get disabled() {
    return ['button', 'textarea', 'input', 'select'].includes(this.localName) && this.hasAttribute('disabled');
  }
  get readOnly() {
    return ['textarea', 'input'].includes(this.localName) && this.hasAttribute('readonly');
  }
  get value() {
    return this.localName === 'textarea' ? this.textContent : this.getAttribute('value') ?? '';
  }
  get innerText() {
    return this.textContent;
  }
  get isContentEditable() {
    for (let el = this; el instanceof Element; el = el.parentNode) {
      const value = el.getAttribute('contenteditable');
      if (value !== null) {
        return value !== 'false';
      }
    }
    return false;
  }
  getClientRects() {
    for (let el = this; el instanceof Element; el = el.parentNode) {
      if (/display\s*:\s*none/i.test(el.getAttribute('style') ?? '')) {
        return [];
      }
    }
    return [{ width: 1, height: 1 }];
  }
  matches(selector) {
    return parseSelectorList(selector).some((complex) => matchesComplex(this, complex));
  }
  closest(selector) {
    for (let el = this; el instanceof Element; el = el.parentNode) {
      if (el.matches(selector)) {
        return el;
      }
    }
    return null;
  }
}

class Document extends Node {
  constructor() {
    super();
    this.defaultView = null;
  }
  getElementById(id) {
    return [...this.descendants()].find((el) => el.id === id) ?? null;
  }
  get body() {
    return this.querySelector('body');
  }
}

function decode(text) {
  return text
    .replace(/&lt;/g, '<').replace(/&gt;/g, '>').replace(/&quot;/g, '"')
    .replace(/&#39;/g, "'").replace(/&nbsp;/g, '\u00a0').replace(/&amp;/g, '&');
}

export function parseHTML(html) {
  const doc = new Document();
  const stack = [doc];
  const top = () => stack[stack.length - 1];
  const tagPattern = /<!--[\s\S]*?-->|<!doctype[^>]*>|<\/([a-zA-Z][\w-]*)\s*>|<([a-zA-Z][\w-]*)((?:\s+[^\s=/>]+(?:\s*=\s*(?:"[^"]*"|'[^']*'|[^\s>]+))?)*)\s*(\/?)>/gi;
  let last = 0;
  let match;
  while ((match = tagPattern.exec(html)) !== null) {
    if (match.index > last) {
      append(top(), new Text(decode(html.slice(last, match.index))));
    }
    last = tagPattern.lastIndex;
    const [, closing, opening, attributeText, selfClosing] = match;
    if (closing) {
      const name = closing.toLowerCase();
      const at = stack.findLastIndex((node) => node instanceof Element && node.localName === name);
      if (at > 0) {
        stack.length = at;
      }
    } else if (opening) {
      const name = opening.toLowerCase();
      const el = new Element(name, parseAttributes(attributeText), doc);
      append(top(), el);
      if (RAW_TEXT.has(name)) {
        const end = html.toLowerCase().indexOf(`</${name}`, last);
        const stop = end < 0 ? html.length : end;
        append(el, new Text(html.slice(last, stop)));
        tagPattern.lastIndex = last = stop;
      } else if (!VOID.has(name) && !selfClosing) {
        stack.push(el);
      }
    }
  }
  if (last < html.length) {
    append(top(), new Text(decode(html.slice(last))));
  }
  return doc;
}

function append(parent, child) {
  child.parentNode = parent;
  parent.childNodes.push(child);
}

function parseAttributes(text) {
  const attributes = new Map();
  const pattern = /([^\s=/>]+)(?:\s*=\s*(?:"([^"]*)"|'([^']*)'|([^\s>]+)))?/g;
  let match;
  while ((match = pattern.exec(text)) !== null) {
    attributes.set(match[1].toLowerCase(), decode(match[2] ?? match[3] ?? match[4] ?? ''));
  }
  return attributes;
}

// --- selectors ----------------------------------------------------------------------------------

const cache = new Map();

function parseSelectorList(text) {
  if (!cache.has(text)) {
    cache.set(text, splitTopLevel(text, ',').map(parseComplex));
  }
  return cache.get(text);
}

function splitTopLevel(text, separator) {
  const parts = [];
  let depth = 0;
  let quote = null;
  let current = '';
  for (const ch of text) {
    if (quote) {
      quote = ch === quote ? null : quote;
    } else if (ch === '"' || ch === "'") {
      quote = ch;
    } else if (ch === '[') {
      depth += 1;
    } else if (ch === ']') {
      depth -= 1;
    } else if (ch === separator && depth === 0) {
      parts.push(current);
      current = '';
      continue;
    }
    current += ch;
  }
  parts.push(current);
  return parts.map((part) => part.trim());
}

// A complex selector as [compound, combinator, compound, ...], matched right to left.
function parseComplex(text) {
  const tokens = [];
  const pattern = /\s*(>)\s*|\s+|((?:[\w-]+|\*)?(?:#[\w-]+|\.[\w-]+|\[[^\]]+\])*)/gy;
  let match;
  let pendingDescendant = false;
  while (pattern.lastIndex < text.length) {
    const start = pattern.lastIndex;
    match = pattern.exec(text);
    if (!match || pattern.lastIndex === start) {
      throw new SyntaxError(`minidom cannot read selector: ${text}`);
    }
    if (match[1]) {
      tokens.push('>');
      pendingDescendant = false;
    } else if (match[2]) {
      if (pendingDescendant) {
        tokens.push(' ');
      }
      tokens.push(parseCompound(match[2], text));
      pendingDescendant = false;
    } else if (tokens.length > 0 && tokens[tokens.length - 1] !== '>') {
      pendingDescendant = true;
    }
  }
  if (tokens.length === 0 || typeof tokens[tokens.length - 1] === 'string') {
    throw new SyntaxError(`minidom cannot read selector: ${text}`);
  }
  return tokens;
}

function parseCompound(text, whole) {
  const compound = { tag: null, ids: [], classes: [], attributes: [] };
  const pattern = /^([\w-]+|\*)|#([\w-]+)|\.([\w-]+)|\[\s*([\w-]+)\s*(?:([~^$*|]?=)\s*(?:"([^"]*)"|'([^']*)'|([^\]\s]+)))?\s*\]/gy;
  let match;
  while (pattern.lastIndex < text.length) {
    const start = pattern.lastIndex;
    match = pattern.exec(text);
    if (!match || pattern.lastIndex === start) {
      throw new SyntaxError(`minidom cannot read selector: ${whole}`);
    }
    if (match[1]) {
      compound.tag = match[1] === '*' ? null : match[1].toLowerCase();
    } else if (match[2]) {
      compound.ids.push(match[2]);
    } else if (match[3]) {
      compound.classes.push(match[3]);
    } else {
      compound.attributes.push({ name: match[4].toLowerCase(), op: match[5] ?? null, value: match[6] ?? match[7] ?? match[8] ?? '' });
    }
  }
  return compound;
}

function matchesCompound(el, compound) {
  if (compound.tag && el.localName !== compound.tag) {
    return false;
  }
  if (compound.ids.some((id) => el.id !== id)) {
    return false;
  }
  const classes = el.classList;
  if (compound.classes.some((name) => !classes.includes(name))) {
    return false;
  }
  return compound.attributes.every(({ name, op, value }) => {
    const actual = el.getAttribute(name);
    if (actual === null) {
      return false;
    }
    switch (op) {
      case null: return true;
      case '=': return actual === value;
      case '~=': return actual.split(/\s+/).includes(value);
      case '^=': return value !== '' && actual.startsWith(value);
      case '$=': return value !== '' && actual.endsWith(value);
      case '*=': return value !== '' && actual.includes(value);
      case '|=': return actual === value || actual.startsWith(`${value}-`);
      default: return false;
    }
  });
}

function matchesComplex(el, tokens, index = tokens.length - 1) {
  if (!matchesCompound(el, tokens[index])) {
    return false;
  }
  if (index === 0) {
    return true;
  }
  const combinator = tokens[index - 1];
  if (combinator === '>') {
    const parent = el.parentElement;
    return parent !== null && matchesComplex(parent, tokens, index - 2);
  }
  for (let ancestor = el.parentElement; ancestor; ancestor = ancestor.parentElement) {
    if (matchesComplex(ancestor, tokens, index - 2)) {
      return true;
    }
  }
  return false;
}
