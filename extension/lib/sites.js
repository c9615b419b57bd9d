// One entry per chat site. Pure data: the page driver gets an entry as JSON, and the end-to-end
// test rewrites the URLs of a copy of this file to point at local stand-ins.
// Markers go from the most stable (data-testid, ids, editor markers) to hashed class fragments.
//
// input:     selectors tried in order; the first visible, editable match is the input. A match that
//            is a wrapper is searched for the contenteditable inside it.
// submit:    the send control, tried in order; never guessed from a generic "send" class.
// stop:      the page is answering (often the send control in its Stop state): never pressed.
// login:     sign-in walls: any visible match means nothing can be sent until the user signs in.
// signedOut: softer signs (a visitor may still type) that the self-check reports.
// loginUrl:  fragments of the address of a sign-in page on the site's own host.
// loginHosts: other hosts the site sends visitors to for signing in.

export const DEFAULT_PROVIDER = 'doubao';

export const SITES = {
  doubao: {
    title: '豆包',
    url: 'https://www.doubao.com/chat/',
    newChatUrl: 'https://www.doubao.com/chat/',
    matches: ['https://www.doubao.com/chat'],
    input: [
      'textarea[data-testid="chat_input_input"]',
      '[data-testid="chat_input"] div.tiptap.ProseMirror[contenteditable="true"]',
      'div.tiptap.ProseMirror[role="textbox"][contenteditable="true"]',
      'div.ProseMirror[contenteditable="true"]',
    ],
    submit: ['button[data-testid="chat_input_send_button"]', '#flow-end-msg-send'],
    stop: ['[data-testid="chat_input_stop_button"]', 'button[data-testid="chat_input_send_button"][aria-label*="停止"]'],
    login: ['input[data-testid="login_phone_number_input"]', '[data-testid="login_modal"]'],
    signedOut: ['button[data-testid="to_login_button"]'],
    loginUrl: ['/login'],
    loginHosts: [],
  },
  deepseek: {
    title: 'DeepSeek',
    url: 'https://chat.deepseek.com/',
    newChatUrl: 'https://chat.deepseek.com/',
    matches: ['https://chat.deepseek.com/'],
    input: ['textarea#chat-input', 'textarea[placeholder*="DeepSeek"]', 'textarea.ds-scroll-area'],
    submit: [
      'div[role="button"].ds-icon-button:has(svg path[d^="M8.3125"])',
      '.ds-button--primary.ds-button--filled.ds-button--circle:not(:has(.ds-loading))',
    ],
    stop: ['div[role="button"].ds-icon-button:has(svg path[d^="M2 4.88"])', '[role="button"] .ds-loading'],
    login: [],
    signedOut: [],
    loginUrl: ['/sign_in', '/sign_up'],
    loginHosts: [],
  },
  qwen: {
    title: '千问',
    url: 'https://www.qianwen.com/',
    newChatUrl: 'https://www.qianwen.com/',
    matches: ['https://www.qianwen.com/', 'https://qianwen.com/'],
    input: [
      '[class*="chatInput"] [data-slate-editor="true"]',
      '[class*="textareaWrap"] [data-slate-editor="true"]',
      '[data-slate-editor="true"]',
      '[class*="chatTextarea"]',
    ],
    // Other operateBtn divs sit beside it: only the one holding the send icon is the send control.
    submit: ['div[class*="operateBtn"]:has([data-icon-type="qwpcicon-sendChat"])'],
    stop: ['div[class*="operateBtn"]:has([data-icon-type*="stop" i])'],
    login: ['.ant-modal [class*="login"]'],
    signedOut: [],
    loginUrl: ['/login'],
    loginHosts: ['passport.aliyun.com', 'login.aliyun.com'],
  },
  kimi: {
    title: 'Kimi',
    url: 'https://www.kimi.com/',
    newChatUrl: 'https://www.kimi.com/',
    matches: ['https://www.kimi.com/', 'https://kimi.com/'],
    input: ['.chat-input-editor[data-lexical-editor="true"][contenteditable="true"]', '[data-lexical-editor="true"]'],
    submit: ['.send-button-container:has(svg[name="Send"])', '.send-button-container:not(.stop):not(.loading)'],
    stop: ['.send-button-container.stop', '.send-button-container.loading'],
    login: ['.login-modal', '.login-dialog'],
    signedOut: ['.user-info [class*="login"]', 'button.login-button'],
    loginUrl: ['/login'],
    loginHosts: [],
  },
  glm: {
    title: '智谱清言',
    url: 'https://chatglm.cn/main/alltoolsdetail',
    newChatUrl: 'https://chatglm.cn/main/alltoolsdetail',
    matches: ['https://chatglm.cn/'],
    input: ['#search-input-box textarea', '.main-chat-search textarea', '.input-box-inner textarea'],
    submit: ['.enter-icon-container:not(:has(.searching))'],
    stop: ['.enter.searching', '.enter-icon-container .searching'],
    login: ['.login-dialog', '.login-wrap'],
    signedOut: ['p.sidebar-user-name'],
    loginUrl: ['/login'],
    loginHosts: [],
  },
  hunyuan: {
    title: '腾讯元宝',
    url: 'https://yuanbao.tencent.com/chat',
    newChatUrl: 'https://yuanbao.tencent.com/chat',
    matches: ['https://yuanbao.tencent.com/'],
    input: [
      '.agent-dialogue__content--common__input .ql-editor[contenteditable="true"]',
      '#search-bar .ql-editor[contenteditable="true"]',
      '.ql-editor[contenteditable="true"]',
    ],
    // Only the id: the "send-btn" class fragments also name the Stop button.
    submit: ['#yuanbao-send-btn:not([aria-label="停止回答"]):not([class*="SendButton_sendStop__"])'],
    stop: ['#yuanbao-send-btn[aria-label="停止回答"]', '[class*="SendButton_sendStop__"]', 'a[class*="style__send-btn___"]'],
    login: ['.hyc-login-v2', '.ql-editor[data-placeholder="请登录后输入内容"]'],
    signedOut: ['button.agent-dialogue__tool__login'],
    loginUrl: ['/login'],
    loginHosts: ['graph.qq.com', 'xui.ptlogin2.qq.com', 'open.weixin.qq.com'],
  },
  ernie: {
    title: '文心一言',
    url: 'https://yiyan.baidu.com/',
    newChatUrl: 'https://yiyan.baidu.com/',
    matches: ['https://yiyan.baidu.com/'],
    input: [
      '#dialogue-input .yc-editor[contenteditable="true"]',
      '.yc-editor[contenteditable="true"]',
      '[data-lexical-editor="true"][contenteditable="true"]',
    ],
    submit: ['#sendBtn'],
    stop: ['#sendBtn[class*="stop" i]', '[class*="stopBtn"]'],
    login: ['.tang-pass-login', '#passport-login-pop'],
    signedOut: [],
    loginUrl: [],
    loginHosts: ['passport.baidu.com'],
  },
};

// The site whose own or sign-in address this is, for a tab that went off to sign in.
export function isSignInAddress(site, url) {
  let parsed;
  try {
    parsed = new URL(url);
  } catch {
    return false;
  }
  return site.loginHosts.includes(parsed.hostname) ||
    (site.matches.some((prefix) => url.startsWith(prefix)) && site.loginUrl.some((part) => parsed.pathname.includes(part)));
}
