#include "app/ApplicationMode.h"

#include "app/AppDelegate.h"
#include "app/ControlBus.h"
#include "base/ModeResult.h"
#include "overlay/OverlayStyle.h"

#include <QApplication>
#include <xcb/xcb.h>

namespace velnora::ApplicationMode {

QString missingDisplayReason()
{
    const QByteArray platform = qgetenv("QT_QPA_PLATFORM");
    if (!platform.isEmpty() && !platform.startsWith("xcb") && !platform.startsWith("wayland")) {
        return {}; // offscreen and friends need no display
    }
    const QByteArray display = qgetenv("DISPLAY");
    if (display.isEmpty()) {
        if (!qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")) {
            return QStringLiteral("澜镜需要 X11 显示（Wayland 会话中请启用 XWayland）：没有设置 DISPLAY。");
        }
        return QStringLiteral(
            "澜镜需要图形桌面会话：没有设置 DISPLAY，找不到可用的显示器。请在桌面会话中启动。");
    }
    // Qt aborts when it cannot reach the display; ask first so the user gets a sentence instead.
    xcb_connection_t* connection = xcb_connect(display.constData(), nullptr);
    const bool failed = xcb_connection_has_error(connection) != 0;
    xcb_disconnect(connection);
    if (failed) {
        return QStringLiteral("澜镜无法连接到显示器 %1，请确认图形桌面会话正在运行。")
            .arg(QString::fromLocal8Bit(display));
    }
    return {};
}

void nameApplication()
{
    // The application name is the X11 window class: the desktop entry's StartupWMClass matches it.
    QApplication::setApplicationName(QStringLiteral("velnora"));
    QApplication::setApplicationDisplayName(QStringLiteral("澜镜"));
    QApplication::setApplicationVersion(QStringLiteral(VELNORA_VERSION));
    QGuiApplication::setDesktopFileName(QStringLiteral("com.tarnwick.velnora.domestic"));
    // Every window takes its Chinese glyphs from the card's family: one CJK font file mapped, not two.
    QFont font = QApplication::font();
    font.setFamilies(OverlayStyle::uiFamilies());
    QApplication::setFont(font);
}

int run(const ProcessArguments& arguments)
{
    if (const QString reason = missingDisplayReason(); !reason.isEmpty()) {
        ModeResult::printErrorLine(reason);
        return 1;
    }
    // On Wayland the windows stay X11 clients through XWayland: only there can the card be placed.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && !qEnvironmentVariableIsEmpty("DISPLAY")) {
        qputenv("QT_QPA_PLATFORM", "xcb");
    }
    QApplication application(arguments.argc(), arguments.argv());
    nameApplication();
    QApplication::setQuitOnLastWindowClosed(false);

    AppDelegate delegate;
    if (delegate.claimInstance() == AppDelegate::InstanceClaim::another) {
        // One instance per session: a second launch brings up the first one's settings.
        const std::optional<QString> failure =
            ControlBus::broadcast(QString::fromLatin1(ControlBus::settingsName));
        if (failure) {
            ModeResult::printErrorLine(*failure);
            return 1;
        }
        ModeResult::printLine(QStringLiteral("澜镜已经在运行，已打开它的设置窗口。"));
        return 0;
    }
    delegate.applicationDidFinishLaunching(arguments);
    return application.exec();
}

} // namespace velnora::ApplicationMode
