#include "bridge/BridgeDiagnosis.h"

namespace velnora {

namespace {

// Firefox has no unpacked-folder loading for users and no "chrome://extensions"; everything else is
// the Chrome sentence with the browser's name.
QString firefoxAdvice(const BridgeDiagnosis& diagnosis, const QString& chromeAdvice)
{
    using Kind = BridgeDiagnosis::Kind;
    const ChromeExtensionInstall::Kind install = diagnosis.install.kind;
    if (diagnosis.kind == Kind::manifestMissing) {
        return QStringLiteral("Firefox 还没有本机的连接配置。点「修复连接」重新写入，再重启 Firefox。");
    }
    if (diagnosis.kind == Kind::manifestOriginMismatch) {
        return QStringLiteral("连接配置授权的不是当前扩展 ID，Firefox 会直接拒绝连接。点「修复连接」写入当前 "
                              "ID，再重启 Firefox。");
    }
    if (diagnosis.kind == Kind::extensionSilent && install == ChromeExtensionInstall::Kind::absent) {
        return QStringLiteral(
            "默认 Firefox 配置文件中未发现本版扩展记录；这不代表其他配置文件中没有安装。点"
            "「安装扩展」查看安装方法：正式版 Firefox 请从澜镜官网安装签名版扩展；开发时可在 "
            "Firefox ESR 或开发者版中关闭签名要求后安装未签名版。");
    }
    if (diagnosis.kind == Kind::sandboxedBrowser) {
        return diagnosis.path +
               QStringLiteral(" 运行在沙盒里，启动不了澜镜的连接程序。请改用软件源（deb 包）或 Snap "
                              "安装的 Firefox，并在其中安装澜镜扩展。");
    }
    if (diagnosis.kind == Kind::extensionSilent) {
        return QStringLiteral(
            "Firefox 在运行，但扩展的后台没连上。它自己每半分钟会重连一次，划词请求会排在队列里"
            "等它回来；一直不连就到 about:addons 确认「澜镜 · 网页会话桥」已启用，必要时停用后"
            "再启用一次。");
    }
    QString advice = chromeAdvice;
    return advice.replace(QStringLiteral("Chrome"), diagnosis.browserName());
}

} // namespace

QString BridgeDiagnosis::statusText() const
{
    if (family == BrowserFamily::firefox) {
        QString text = BridgeDiagnosis{kind, path, install}.statusText();
        return text.replace(QStringLiteral("Chrome"), browserName());
    }
    switch (kind) {
    case Kind::connected:
        return QStringLiteral("● Chrome 已连接");
    case Kind::manifestMissing:
    case Kind::manifestPathBroken:
    case Kind::manifestOriginMismatch:
        return QStringLiteral("○ 未连接 · 连接配置需要修复");
    case Kind::chromeNotRunning:
        return QStringLiteral("○ 未连接 · Chrome 没有运行");
    case Kind::sandboxedBrowser:
        return QStringLiteral("○ 未连接 · 浏览器在沙盒中运行");
    case Kind::extensionSilent:
        switch (install.kind) {
        case ChromeExtensionInstall::Kind::absent:
            return QStringLiteral("○ 未连接 · 未发现本版扩展记录");
        case ChromeExtensionInstall::Kind::differentEdition:
            return QStringLiteral("○ 未连接 · 应用与扩展版本不匹配");
        case ChromeExtensionInstall::Kind::installed:
        case ChromeExtensionInstall::Kind::unknown:
        case ChromeExtensionInstall::Kind::unpacked:
            return QStringLiteral("○ 未连接 · 扩展尚未连接");
        }
    }
    return {};
}

QString BridgeDiagnosis::advice() const
{
    if (family == BrowserFamily::firefox) {
        return firefoxAdvice(*this, BridgeDiagnosis{kind, path, install}.advice());
    }
    switch (kind) {
    case Kind::connected:
        return QStringLiteral("Chrome 扩展已连接，划词即可发到网页会话。");
    case Kind::manifestMissing:
        return QStringLiteral(
            "Chrome 还没有本机的连接配置。点「修复连接」重新写入，再到 chrome://extensions 重新加载扩展。");
    case Kind::manifestPathBroken:
        return QStringLiteral("连接配置指向的应用已经不在了（") + path +
               QStringLiteral("）。点「修复连接」让它指向当前这份。");
    case Kind::manifestOriginMismatch:
        return QStringLiteral(
            "连接配置授权的还是旧扩展 ID，Chrome 会直接拒绝连接。点「修复连接」写入当前 ID，再到 "
            "chrome://extensions 重新加载扩展。");
    case Kind::chromeNotRunning:
        return QStringLiteral("Chrome 没有运行。点「修复连接」会在后台把它唤起。");
    case Kind::sandboxedBrowser:
        return path + QStringLiteral(" 运行在沙盒里，启动不了澜镜的连接程序。请改用软件源（deb 包）安装的 "
                                     "Google Chrome 或 Chromium，并在其中加载澜镜扩展。");
    case Kind::extensionSilent:
        switch (install.kind) {
        case ChromeExtensionInstall::Kind::absent:
            return QStringLiteral(
                "默认 Chrome 数据目录中未发现本版扩展记录；这不代表其他用户数据目录中没有安装。点「安装扩展」"
                "打开扩展页核对版本；如需安装配套扩展，开启「开发者模式」→「加载已解压的扩展程序」→ 按 "
                "Ctrl+L 粘贴路径回车。");
        case ChromeExtensionInstall::Kind::differentEdition:
            return QStringLiteral(
                "已检测到澜镜扩展，但它与当前应用不匹配。点「安装配套扩展」加载当前应用自带的扩展，或使用与"
                "已安装扩展对应的应用。");
        case ChromeExtensionInstall::Kind::installed:
        case ChromeExtensionInstall::Kind::unknown:
            return QStringLiteral(
                "Chrome 在运行，但扩展的后台没连上。它自己每半分钟会重连一次，划词请求会排在队列里等它回来；"
                "一直不连就到 chrome://extensions 确认「澜镜 · 网页会话桥」已启用，必要时点一次刷新。");
        case ChromeExtensionInstall::Kind::unpacked:
            if (!install.staleIdentifier) {
                return QStringLiteral("已检测到本版扩展，但尚未建立连接。请到 chrome://extensions "
                                      "确认扩展已启用，并重新加载 ") +
                       install.path + QStringLiteral("。");
            }
            return QStringLiteral("Chrome 里有两条记录指向同一个目录 ") + install.path +
                   QStringLiteral("：当前这个扩展，和换打包 key 之前留下的旧 ID（") +
                   *install.staleIdentifier +
                   QStringLiteral(
                       "）。Chrome 每次启动都会按旧 ID 去加载这个目录，算出来的却是新 ID，那一条必然失败 —— "
                       "换过 key 之后扩展「自己消失」多半是它。到 chrome://extensions "
                       "把旧那张卡片移除，再重新加载一次。");
        }
    }
    return {};
}

bool BridgeDiagnosis::concernsExtensionInstall() const
{
    return kind == Kind::extensionSilent && (install.kind == ChromeExtensionInstall::Kind::absent ||
                                             install.kind == ChromeExtensionInstall::Kind::differentEdition);
}

} // namespace velnora
