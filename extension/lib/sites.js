// One entry per chat site. Pure data: the page driver gets an entry as JSON, and the end-to-end
// test rewrites the URLs of a copy of this file to point at local stand-ins.
//
// input:  selectors tried in order; the first visible, editable match is the input. A match that is
//         a wrapper is searched for the contenteditable inside it.
// submit: selectors for the send button, tried before the generic ones near the input.
// login:  selectors of sign-in dialogs; any visible match means the user must log in first.
// loginUrl: fragments of the address of a sign-in page the site redirects to.

export const DEFAULT_PROVIDER = 'doubao';

export const SITES = {
  doubao: {
    title: '豆包',
    url: 'https://www.doubao.com/chat/',
    newChatUrl: 'https://www.doubao.com/chat/',
    matches: ['https://www.doubao.com/chat'],
    input: [
      'textarea[data-testid="chat_input_input"]',
      '[data-testid="chat_input_input"] [contenteditable="true"]',
      '[data-testid="chat_input"] textarea',
    ],
    submit: ['button[data-testid="chat_input_send_button"]', '#flow-end-msg-send'],
    login: ['[data-testid="login_modal"]', '.semi-modal [data-testid="login_phone_input"]'],
    loginUrl: ['/login'],
  },
  deepseek: {
    title: 'DeepSeek',
    url: 'https://chat.deepseek.com/',
    newChatUrl: 'https://chat.deepseek.com/',
    matches: ['https://chat.deepseek.com/'],
    input: ['textarea#chat-input', 'textarea[placeholder*="DeepSeek"]'],
    // The send control is a div with role="button" and generated class names: found near the input.
    submit: [],
    login: [],
    loginUrl: ['/sign_in', '/sign_up'],
  },
  qwen: {
    title: '千问',
    url: 'https://www.qianwen.com/',
    newChatUrl: 'https://www.qianwen.com/',
    matches: ['https://www.qianwen.com/', 'https://qianwen.com/'],
    input: [
      'textarea[placeholder*="千问"]',
      '[data-slate-editor="true"]',
      'div[role="textbox"][contenteditable="true"]',
      'textarea.ant-input',
    ],
    submit: ['button[aria-label="发送"]', '[class*="operateBtn"]', '[class*="sendBtn"]'],
    login: ['.ant-modal [class*="login"]'],
    loginUrl: ['/login', 'passport.'],
  },
  kimi: {
    title: 'Kimi',
    url: 'https://www.kimi.com/',
    newChatUrl: 'https://www.kimi.com/',
    matches: ['https://www.kimi.com/', 'https://kimi.com/'],
    input: ['.chat-input-editor[contenteditable="true"]', '[data-lexical-editor="true"]'],
    submit: ['.send-button-container', '.send-button'],
    login: ['.login-modal', '.login-dialog'],
    loginUrl: ['/login'],
  },
  glm: {
    title: '智谱清言',
    url: 'https://chatglm.cn/main/alltoolsdetail',
    newChatUrl: 'https://chatglm.cn/main/alltoolsdetail',
    matches: ['https://chatglm.cn/'],
    input: ['.input-box-inner textarea', '.input-wrap textarea'],
    submit: ['.input-box-inner .enter', '.enter_icon'],
    login: ['.login-dialog', '.login-wrap'],
    loginUrl: ['/login'],
  },
  hunyuan: {
    title: '腾讯元宝',
    url: 'https://yuanbao.tencent.com/chat',
    newChatUrl: 'https://yuanbao.tencent.com/chat',
    matches: ['https://yuanbao.tencent.com/'],
    input: ['.chat-input-editor .ql-editor[contenteditable="true"]', '.ql-editor[contenteditable="true"]'],
    submit: ['#yuanbao-send-btn', '[class*="send-btn"]'],
    login: ['.hyc-login', '#hunyuan-login-dialog'],
    loginUrl: ['/login', 'graph.qq.com'],
  },
  ernie: {
    title: '文心一言',
    url: 'https://yiyan.baidu.com/',
    newChatUrl: 'https://yiyan.baidu.com/',
    matches: ['https://yiyan.baidu.com/'],
    input: [
      '[data-slate-editor="true"][contenteditable="true"]',
      '.yc-editor[contenteditable="true"]',
      'div[role="textbox"][contenteditable="true"]',
    ],
    submit: ['#sendBtn', '[class*="sendInner"]', '[class*="send__"]'],
    login: ['.tang-pass-login', '#passport-login-pop'],
    loginUrl: ['passport.baidu.com'],
  },
};
