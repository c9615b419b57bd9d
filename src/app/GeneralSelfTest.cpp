#include "app/GeneralSelfTest.h"

#include "app/AppDelegate.h"
#include "app/ControlBus.h"
#include "app/GraphemeText.h"
#include "app/LaunchAtLogin.h"
#include "app/StatusMenu.h"
#include "base/ModeResult.h"
#include "bridge/BridgeSelfChecks.h"
#include "config/ConfigSelfChecks.h"
#include "overlay/OverlayRunModes.h"
#include "updates/UpdateSelfChecks.h"

#include <QApplication>
#include <functional>
#include <utility>
#include <vector>

namespace velnora::GeneralSelfTest {

QString shellFailure()
{
    const auto item = StatusMenu::explainMenuItemTitle(QStringLiteral("  第一行\n第二行\t"), std::nullopt);
    if (item.title != QStringLiteral("解释选中：“第一行 第二行”") || !item.enabled) {
        return QStringLiteral("菜单标题不对：") + item.title;
    }
    if (StatusMenu::explainMenuItemTitle(QStringLiteral(" \n"), QString()).enabled) {
        return QStringLiteral("没有文字时菜单项仍可点");
    }
    // Family emoji: seven UTF-16 units per character the user sees.
    const QString family = QStringLiteral("👨‍👩‍👧");
    if (GraphemeText::count(family.repeated(3), 100) != 3) {
        return QStringLiteral("字数按字素计算有误");
    }
    if (StatusMenu::preview(family.repeated(25)) != family.repeated(20) + QStringLiteral("…")) {
        return QStringLiteral("预览截断有误");
    }
    if (AppDelegate::deliveryFeedback(BridgeDiagnosis::chromeNotRunning()) !=
        QStringLiteral("Chrome 没有运行")) {
        return QStringLiteral("投递检查的提示不对");
    }
    const QByteArray entry = LaunchAtLogin::entryText(QStringLiteral("/opt/澜镜 测试/velnora"));
    if (!entry.contains("Exec=\"/opt/澜镜 测试/velnora\"\n")) {
        return QStringLiteral("登录启动项的 Exec 行不对");
    }
    if (QString::fromLatin1(ControlBus::settingsName) !=
        QString::fromLatin1(ControlBus::interfaceName) + QStringLiteral(".settings")) {
        return QStringLiteral("控制信号名不对");
    }
    return {};
}

QString failure()
{
    const std::vector<std::pair<const char*, std::function<QString()>>> checks{
        {"edition", ConfigSelfChecks::editionFailure},
        {"settings", ConfigSelfChecks::settingsFailure},
        {"native-host-installer", BridgeSelfChecks::installerFailure},
        {"bridge-diagnostics", BridgeSelfChecks::diagnosticsFailure},
        {"update", UpdateSelfChecks::failure},
        {"markdown", OverlayRunModes::markdownFailure},
        {"shell", shellFailure},
    };
    for (const auto& [name, check] : checks) {
        if (const QString reason = check(); !reason.isEmpty()) {
            return QString::fromLatin1(name) + QStringLiteral(": ") + reason;
        }
    }
    return {};
}

int run(const ProcessArguments& arguments)
{
    // Nothing is drawn on screen: the checks lay text out offscreen, also where no display exists.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication application(arguments.argc(), arguments.argv());
    return ModeResult::report(QStringLiteral("self-test"), failure());
}

} // namespace velnora::GeneralSelfTest
