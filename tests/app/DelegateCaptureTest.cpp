// The delegate's side of capture in the private desktop session: the hot key's conflict shown in the
// menu, the last active application, a second press during a read, and the application quitting on
// SIGTERM with its key released and its clipboard handed to a real clipboard manager (MATE's).
#include "CaptureDesktopSupport.h"
#include "CaptureTestData.h"
#include "app/AppDelegate.h"
#include "app/FeedbackPresenter.h"
#include "app/ProcessArguments.h"
#include "capture/SelectionReadError.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTimer>
#include <csignal>
#include <gtest/gtest.h>

namespace velnora {
namespace {

using namespace test;

const HotKeyChoice& ctrlAltE = HotKeyChoice::choice(QStringLiteral("option-command-e"));

class DelegateCaptureTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (qEnvironmentVariableIsEmpty("DISPLAY")) {
            GTEST_SKIP() << "needs the private desktop session";
        }
        ConfigurationStore().setDidShowVersion2Setup(true);
        ConfigurationStore().setDidShowNoTrayHint(true);
        // The tools, but no browser for a queued request to start.
        for (const char* tool : {"xclip", "xdotool", "xprop", "wish", "mate-settings-daemon"}) {
            const QString found = QStandardPaths::findExecutable(QString::fromLatin1(tool));
            QFile::link(found, m_noBrowser.filePath(QString::fromLatin1(tool)));
        }
        m_environment.set("PATH", m_noBrowser.path().toUtf8());
    }

    // Whether another client could take Ctrl+Alt+E now; it gives the key back at once.
    static bool keyIsFree()
    {
        GlobalHotKey probe;
        const bool free = probe.registerChoice(ctrlAltE, [] {});
        probe.release();
        return free;
    }

    std::unique_ptr<AppDelegate> launch()
    {
        auto delegate = std::make_unique<AppDelegate>();
        EXPECT_EQ(delegate->claimInstance(), AppDelegate::InstanceClaim::first);
        delegate->applicationDidFinishLaunching(ProcessArguments(QStringList{"velnora"}));
        return delegate;
    }

    static std::optional<QByteArray> clipboardText()
    {
        return runTool(QStringLiteral("xclip"), {"-o", "-selection", "clipboard", "-t", "UTF8_STRING"});
    }

    TemporaryHome m_home;
    QTemporaryDir m_noBrowser;
    EnvironmentGuard m_environment;
};

TEST_F(DelegateCaptureTest, TheMenuShowsAHotKeyConflictUntilAnotherChoiceIsGrabbed)
{
    GlobalHotKey other;
    ASSERT_TRUE(other.registerChoice(ctrlAltE, [] {}));
    auto delegate = launch();
    StatusMenu* menu = delegate->statusMenu();
    EXPECT_TRUE(delegate->hotKey()->hasConflict());
    EXPECT_EQ(menu->hotKeyMenu()->title(), StatusMenu::hotKeyConflictMenuTitle(ctrlAltE));
    EXPECT_EQ(menu->hotKeyMenuItems().value(ctrlAltE.id)->text(),
              StatusMenu::hotKeyConflictItemTitle(ctrlAltE));
    EXPECT_TRUE(menu->hotKeyMenuItems().value(ctrlAltE.id)->isChecked());

    const HotKeyChoice& ctrlSuperE = HotKeyChoice::choice(QStringLiteral("control-command-e"));
    delegate->selectHotKey(ctrlSuperE.id);
    EXPECT_FALSE(delegate->hotKey()->hasConflict());
    EXPECT_EQ(menu->hotKeyMenu()->title(), StatusMenu::hotKeyMenuTitle(ctrlSuperE));
    EXPECT_EQ(menu->hotKeyMenuItems().value(ctrlAltE.id)->text(), ctrlAltE.title);
}

// A window manager announces the active window on the root; xprop plays that part here.
TEST_F(DelegateCaptureTest, TheLastActiveApplicationIsTheOneTheWindowManagerLastNamed)
{
    auto delegate = launch();
    BackgroundTool gtk(QStringLiteral("/usr/bin/python3"),
                       {QStringLiteral(CAPTURE_SOURCES_DIR "/gtk_source.py"), "entry"});
    ASSERT_FALSE(gtk.readyLine().isEmpty());
    const QByteArray window =
        runTool(QStringLiteral("xdotool"), {"search", "--pid", QString::number(gtk.processId())})
            .value_or("")
            .split('\n')
            .value(0);
    ASSERT_FALSE(window.isEmpty());
    ASSERT_TRUE(runTool(QStringLiteral("xprop"), {"-root", "-f", "_NET_ACTIVE_WINDOW", "32x", "-set",
                                                  "_NET_ACTIVE_WINDOW", QString::fromLatin1(window)}));
    EXPECT_TRUE(waitUntil([&] { return delegate->lastActiveApplicationPID() == gtk.processId(); }, 3000));
    runTool(QStringLiteral("xprop"), {"-root", "-remove", "_NET_ACTIVE_WINDOW"});
}

TEST_F(DelegateCaptureTest, ASecondExplainDuringAReadSaysSoAndTheFirstReadGoesOn)
{
    ConfigurationStore().setBrowserProvider(BrowserProvider::glm);
    auto delegate = launch();
    ASSERT_TRUE(delegate->isHotKeyRegistered());
    BackgroundTool tk(QStringLiteral("wish"), {QStringLiteral(CAPTURE_SOURCES_DIR "/tk_source.tcl")});
    ASSERT_TRUE(tk.readyLine().startsWith(QStringLiteral("ready")));
    // The first read waits for the held keys; the menu's explain comes in meanwhile.
    QTimer::singleShot(700, delegate.get(), [&] { delegate->explainCurrentSelection(); });
    BackgroundTool keys(QStringLiteral("xdotool"),
                        {"keydown", "ctrl+alt+e", "sleep", "1.5", "keyup", "ctrl+alt+e"});
    ASSERT_TRUE(waitUntil([] { return !RequestStore().pendingRequests().empty(); }, 8000));
    EXPECT_EQ(RequestStore().pendingRequests().front().request.text, CaptureTestData::selectedTrimmed);
    EXPECT_TRUE(delegate->feedback()->history().contains(
        SelectionReadError(SelectionReadError::Case::noSelection).description()))
        << delegate->feedback()->history().join(u'|').toStdString();
}

TEST_F(DelegateCaptureTest, SigtermQuitsReleasingTheKeyAndHandingTheClipboardToTheClipboardManager)
{
    if (QStandardPaths::findExecutable("mate-settings-daemon").isEmpty()) {
        GTEST_SKIP() << "needs mate-settings-daemon (scripts/install-deps.sh)";
    }
    std::optional<BackgroundTool> earlier(std::in_place, QStringLiteral("xclip"),
                                          QStringList{"-quiet", "-selection", "clipboard"},
                                          CaptureTestData::earlierText);
    ASSERT_TRUE(waitUntil([] { return clipboardText() == CaptureTestData::earlierText; }, 5000));
    BackgroundTool app(velnoraBinary(), {});
    ASSERT_TRUE(waitUntil([] { return !keyIsFree(); }, 10000)) << "the application never took the key";
    // MATE's clipboard manager keeps a clipboard only when its owner asks it to (SAVE_TARGETS). Its other
    // plugins stay off: they would change the display's settings for every later test.
    QFile keyfile(m_home.configHome() + QStringLiteral("/glib-2.0/settings/keyfile"));
    ASSERT_TRUE(QDir().mkpath(m_home.configHome() + QStringLiteral("/glib-2.0/settings")));
    ASSERT_TRUE(keyfile.open(QIODevice::WriteOnly));
    for (const char* plugin : {"a11y-keyboard", "a11y-settings", "background", "datetime", "housekeeping",
                               "keybindings", "keyboard", "media-keys", "mouse", "mpris", "rfkill",
                               "smartcard", "sound", "typing-break", "xrandr", "xrdb", "xsettings"}) {
        keyfile.write(QByteArray("[org/mate/settings-daemon/plugins/") + plugin + "]\nactive=false\n");
    }
    keyfile.close();
    m_environment.set("GSETTINGS_BACKEND", "keyfile");
    BackgroundTool manager(QStringLiteral("mate-settings-daemon"), {});
    spinFor(2000); // it takes CLIPBOARD_MANAGER among its start-up work

    // A copy from Tk: afterwards the application serves the restored clipboard, and xclip has gone.
    BackgroundTool tk(QStringLiteral("wish"), {QStringLiteral(CAPTURE_SOURCES_DIR "/tk_source.tcl")});
    ASSERT_TRUE(tk.readyLine().startsWith(QStringLiteral("ready")));
    ASSERT_TRUE(runTool(QStringLiteral("xdotool"), {"key", "ctrl+alt+e"}));
    ASSERT_TRUE(earlier->finished(8000)) << "the copy never took the clipboard";
    earlier.reset();
    ASSERT_TRUE(waitUntil([] { return clipboardText() == CaptureTestData::earlierText; }, 5000));

    ::kill(pid_t(app.processId()), SIGTERM);
    ASSERT_TRUE(app.finished(10000));
    EXPECT_TRUE(app.exitedCleanly()) << "SIGTERM killed the application instead of quitting it";
    EXPECT_EQ(clipboardText(), QByteArray(CaptureTestData::earlierText));
    EXPECT_TRUE(keyIsFree()) << "the key stayed grabbed";
}

// Processes of this display that carry a D-Bus daemon's name, as an autolaunch leaves them behind.
QStringList busDaemonsOnThisDisplay()
{
    QStringList found;
    const QByteArray display = "DISPLAY=" + qgetenv("DISPLAY");
    for (const QString& pid : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        QFile command(QStringLiteral("/proc/%1/cmdline").arg(pid));
        QFile environment(QStringLiteral("/proc/%1/environ").arg(pid));
        if (!command.open(QIODevice::ReadOnly) || !environment.open(QIODevice::ReadOnly)) {
            continue;
        }
        const QByteArray name = command.readAll().split('\0').value(0);
        if (name.contains("dbus-") && environment.readAll().split('\0').contains(display)) {
            found.append(pid + QStringLiteral(" ") + QString::fromLocal8Bit(name));
        }
    }
    return found;
}

TEST_F(DelegateCaptureTest, ExplainSelectionWithoutASessionBusSaysSoAndStartsNone)
{
    const QStringList before = busDaemonsOnThisDisplay();
    QTemporaryDir emptyRuntime;
    QProcess explain;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), emptyRuntime.path());
    explain.setProcessEnvironment(environment);
    explain.start(velnoraBinary(), {"--explain-selection"});
    ASSERT_TRUE(explain.waitForFinished(10000));
    EXPECT_NE(explain.exitCode(), 0);
    EXPECT_TRUE(QString::fromUtf8(explain.readAllStandardOutput() + explain.readAllStandardError())
                    .contains(QStringLiteral("没有正在运行的 D-Bus 会话总线")));
    spinFor(300);
    EXPECT_EQ(busDaemonsOnThisDisplay().join(u',').toStdString(), before.join(u',').toStdString());
}

} // namespace
} // namespace velnora
