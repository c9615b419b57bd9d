#include "app/RunModes.h"

#include "app/ApiStreamSelfTest.h"
#include "app/ApplicationMode.h"
#include "app/BridgeCommands.h"
#include "app/ControlBus.h"
#include "app/GeneralSelfTest.h"
#include "app/KeychainRepairCommand.h"
#include "app/ModeResult.h"
#include "app/UpdateRunModes.h"
#include "capture/AccessibilityCheck.h"
#include "config/ConfigSelfChecks.h"
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
        {1, "--browser-repair-self-test", Match::flag, BridgeCommands::runBrowserRepairSelfTest},
        {2, "--browser-wake-self-test", Match::flag, BridgeCommands::runBrowserWakeSelfTest},
        {3, "--update-self-test", Match::flag, UpdateRunModes::runUpdateSelfTest},
        {4, "--updates-preview", Match::flag, UpdateRunModes::runUpdatesPreview},
        {5, "--edition-self-test", Match::flag, runEditionSelfTest},
        {6, "--send-preview", Match::flag, ControlBus::runSendPreview},
        {7, "--send-pill-preview", Match::flag, ControlBus::runSendPillPreview},
        {8, "--send-settings", Match::flag, ControlBus::runSendSettings},
        {9, "--send-translation-self-test", Match::flag, ControlBus::runSendTranslationSelfTest},
        // Our own: the explain service for desktops where no hot key can be grabbed.
        {9, "--explain-selection", Match::flag, ControlBus::runExplainSelection},
        {10, "--self-test", Match::flag, GeneralSelfTest::run},
        {11, "--markdown-self-test", Match::flag, OverlayRunModes::runMarkdownSelfTest},
        {12, "--overlay-self-test", Match::flag, OverlayRunModes::runOverlaySelfTest},
        {13, "--render-pill", Match::flagWithValue, OverlayRunModes::runRenderPill},
        {14, "--render-overlay", Match::flagWithValue, OverlayRunModes::runRenderOverlay},
        {15, "--settings-self-test", Match::flag, runSettingsSelfTest},
        {16, "--api-stream-self-test", Match::flagWithValue, ApiStreamSelfTest::run},
        {17, "--check-accessibility", Match::flag, AccessibilityCheck::run},
        {18, "--repair-keychain-access", Match::flag, KeychainRepairCommand::run},
        {19, "--native-host-installer-self-test", Match::flag, BridgeCommands::runInstallerSelfTest},
        {20, "--bridge-diagnostics-self-test", Match::flag, BridgeCommands::runDiagnosticsSelfTest},
        {21, "--bridge-status", Match::flag, BridgeCommands::runBridgeStatus},
        {22, "", Match::nativeMessaging, BridgeCommands::runNativeHost},
        {23, "", Match::always, ApplicationMode::run},
    };
    return rows;
}

bool isNativeMessagingInvocation(const QStringList& arguments)
{
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& argument = arguments.at(i);
        if (argument == u"--native-host" || argument.startsWith(u"chrome-extension://")) {
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
        "不带参数时启动托盘应用。可用的单次模式：\n");
    for (const Row& row : table()) {
        if (row.action && row.flag[0] != '\0') {
            text += QStringLiteral("  ") + QString::fromLatin1(row.flag) +
                    (row.match == Match::flagWithValue ? QStringLiteral(" 值") : QString()) + u'\n';
        }
    }
    text += QStringLiteral(
        "  --native-host          作为 Chrome 本地消息宿主运行（由浏览器启动）\n"
        "  --help                 显示本帮助\n"
        "  --version              显示版本号\n");
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
