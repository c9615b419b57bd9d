#include "app/RunModes.h"

#include "app/ApiStreamSelfTest.h"
#include "app/ApplicationMode.h"
#include "app/BridgeCommands.h"
#include "app/ControlBus.h"
#include "app/GeneralSelfTest.h"
#include "app/KeychainRepairCommand.h"
#include "app/UpdateRunModes.h"
#include "base/ModeResult.h"
#include "capture/AccessibilityCheck.h"
#include "config/ConfigSelfChecks.h"
#include "config/KeyReadProcess.h"
#include "config/ProviderCatalog.h"
#include "llm/FetchWorker.h"
#include "overlay/OverlayRunModes.h"

namespace velnora::RunModes {

namespace {

int runEditionSelfTest(const ProcessArguments&)
{
    return ModeResult::report(QStringLiteral("edition-self-test"), ConfigSelfChecks::editionFailure());
}

int runSettingsSelfTest(const ProcessArguments&)
{
    return ModeResult::report(QStringLiteral("settings-self-test"), ConfigSelfChecks::settingsFailure());
}

} // namespace

const std::vector<Row>& table()
{
    static const std::vector<Row> rows{
        {1, "--browser-repair-self-test", Match::flag, BridgeCommands::runBrowserRepairSelfTest, "修复与 Chrome 的连接并等待扩展连上（最多 12 秒）"},
        {2, "--browser-wake-self-test", Match::flag, BridgeCommands::runBrowserWakeSelfTest, "唤醒 Chrome 并确认一条请求送达扩展（最多 25 秒）"},
        {3, "--update-self-test", Match::flag, UpdateRunModes::runUpdateSelfTest, "检查发布清单的校验规则"},
        {4, "--updates-preview", Match::flag, UpdateRunModes::runUpdatesPreview, "打开“关于与更新”窗口"},
        {5, "--edition-self-test", Match::flag, runEditionSelfTest, "检查版本策略：官方地址与模型系列"},
        {6, "--send-preview", Match::flag, ControlBus::runSendPreview, "让运行中的澜镜显示卡片预览"},
        {7, "--send-pill-preview", Match::flag, ControlBus::runSendPillPreview, "让运行中的澜镜显示胶囊预览"},
        {8, "--send-settings", Match::flag, ControlBus::runSendSettings, "让运行中的澜镜打开设置窗口"},
        {9, "--send-translation-self-test", Match::flag, ControlBus::runSendTranslationSelfTest, "让运行中的澜镜解释一段固定的英文句子"},
        // Our own: the explain service for desktops where no hot key can be grabbed.
        {9, "--explain-selection", Match::flag, ControlBus::runExplainSelection, "[文字]  让运行中的澜镜解释这段文字，省略时解释当前选中的文字"},
        {10, "--self-test", Match::flag, GeneralSelfTest::run, "运行全部内置检查"},
        {11, "--markdown-self-test", Match::flag, OverlayRunModes::runMarkdownSelfTest, "检查 Markdown 渲染"},
        {12, "--overlay-self-test", Match::flag, OverlayRunModes::runOverlaySelfTest, "检查卡片与胶囊的布局和位置"},
        {13, "--render-pill", Match::flagWithValue, OverlayRunModes::runRenderPill, "路径 [--dark]  把胶囊画成 PNG 图片"},
        {14, "--render-overlay", Match::flagWithValue, OverlayRunModes::runRenderOverlay, "路径 [--dark]  把带示例回答的卡片画成 PNG 图片"},
        {15, "--settings-self-test", Match::flag, runSettingsSelfTest, "在临时配置文件上检查设置的读写与解析"},
        {16, "--api-stream-self-test", Match::flagWithValue, ApiStreamSelfTest::run, "URL [协议]  向 URL 发送一次流式解释请求并打印回答"},
        {17, "--check-accessibility", Match::flag, AccessibilityCheck::run, "能否跨应用取词：打印 trusted 或 not-trusted"},
        {18, "--repair-keychain-access", Match::flag, KeychainRepairCommand::run, "重新读取并写回系统钥匙串里的 API Key"},
        {19, "--native-host-installer-self-test", Match::flag, BridgeCommands::runInstallerSelfTest, "检查 Chrome 本地消息清单的安装"},
        {20, "--bridge-diagnostics-self-test", Match::flag, BridgeCommands::runDiagnosticsSelfTest, "检查网页会话桥的诊断规则"},
        {21, "--bridge-status", Match::flag, BridgeCommands::runBridgeStatus, "显示与 Chrome 扩展的连接状态"},
        {21, "--browser-page-check", Match::flagWithValue, BridgeCommands::runBrowserPageCheck, "服务  打开该网页服务的页面，检查输入框、发送按钮和登录状态（不发送任何内容）"},
        // Internal: the app starts these for API requests and key reads; not for people, so not in --help.
        {21, FetchWorker::flag, Match::flag, FetchWorker::run},
        {21, KeyReadProcess::flag, Match::flag, KeyReadProcess::run},
        {22, "", Match::nativeMessaging, BridgeCommands::runNativeHost},
        {23, "", Match::always, ApplicationMode::run},
    };
    return rows;
}

bool isNativeMessagingInvocation(const QStringList& arguments)
{
    // Chrome passes the extension's origin; Firefox the host manifest's path and the extension's ID.
    const QString firefoxExtension = ExplainerConstants::firefoxExtensionIdentifier();
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& argument = arguments.at(i);
        if (argument == u"--native-host" || argument.startsWith(u"chrome-extension://") ||
            argument == firefoxExtension) {
            return true;
        }
    }
    return false;
}

const Row* select(const ProcessArguments& arguments)
{
    for (const Row& row : table()) {
        if (!row.action) {
            continue;
        }
        const QString flag = QString::fromLatin1(row.flag);
        bool matches = false;
        switch (row.match) {
        case Match::flag:
            matches = arguments.has(flag);
            break;
        case Match::flagWithValue:
            matches = arguments.valueAfter(flag).has_value();
            break;
        case Match::nativeMessaging:
            matches = isNativeMessagingInvocation(arguments.list());
            break;
        case Match::always:
            matches = true;
            break;
        }
        if (matches) {
            return &row;
        }
    }
    return nullptr;
}

QString usage()
{
    QString text = QStringLiteral(
        "用法：velnora [模式]\n"
        "澜镜：选中文字，按全局快捷键，用通俗的简体中文解释。\n"
        "\n"
        "不带参数时启动托盘应用（--preview-overlay：启动后显示卡片预览）。单次模式：\n");
    const auto line = [&text](const QString& flag, const QString& help) {
        QString value;
        QString description = help;
        qsizetype padding = 35;
        // A help text that starts with the value a flag takes keeps the value beside the flag.
        if (const qsizetype gap = help.indexOf(QStringLiteral("  ")); gap > 0) {
            value = u' ' + help.left(gap);
            description = help.mid(gap + 2);
        }
        QString column = flag + value;
        for (const QChar c : column) {
            padding -= c.unicode() >= 0x1100 ? 2 : 1; // CJK takes two terminal cells
        }
        text += QStringLiteral("  ") + column + QString(std::max<qsizetype>(padding, 1), u' ') + description + u'\n';
    };
    for (const Row& row : table()) {
        if (row.action && row.flag[0] != '\0' && row.help[0] != '\0') {
            line(QString::fromLatin1(row.flag), QString::fromUtf8(row.help));
        }
    }
    line(QStringLiteral("--native-host"), QStringLiteral("作为 Chrome 本地消息宿主运行（由浏览器启动）"));
    line(QStringLiteral("--help"), QStringLiteral("显示本帮助"));
    line(QStringLiteral("--version"), QStringLiteral("显示版本号"));
    text += QStringLiteral("\n退出状态：0 成功，1 失败，2 尚未就绪。\n");
    return text;
}

int dispatch(const ProcessArguments& arguments)
{
    if (arguments.has(QStringLiteral("--help")) || arguments.has(QStringLiteral("-h"))) {
        std::fputs(usage().toUtf8().constData(), stdout);
        return 0;
    }
    if (arguments.has(QStringLiteral("--version"))) {
        ModeResult::printLine(QStringLiteral("velnora " VELNORA_VERSION));
        return 0;
    }
    const Row* row = select(arguments);
    return row ? row->action(arguments) : 0;
}

} // namespace velnora::RunModes
