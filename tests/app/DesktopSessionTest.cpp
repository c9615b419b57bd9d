// The tray application inside the private desktop session (real settings, queue folder, session bus and
// keyring; PATH holds the tools but no browser): the delegate in this process, and the velnora process as
// the user runs it, under a tray host or beside MATE's clipboard manager, driven by the hot key pressed
// through XTest.
#include "CaptureDesktopSupport.h"
#include "CaptureTestData.h"
#include "DesktopProbe.h"
#include "InterceptingProxy.h"
#include "app/AppDelegate.h"
#include "app/FeedbackPresenter.h"
#include "app/settings/FieldMarks.h"
#include "base/ProcessArguments.h"
#include "capture/GlobalHotKey.h"
#include "capture/SelectionReadError.h"
#include "support/KeyringPrompt.h"
#include "support/TestEnvironment.h"

#include <QComboBox>
#include <QCoreApplication>
#include <QDir>
#include <QEvent>
#include <QFile>
#include <QKeySequenceEdit>
#include <QLineEdit>
#include <QStandardPaths>
#include <QTimer>
#include <csignal>
#include <gtest/gtest.h>

namespace velnora {
namespace {

using namespace test;

const HotKeyChoice& ctrlAltE = HotKeyChoice::choice(QStringLiteral("option-command-e"));

class DesktopSessionTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (qEnvironmentVariableIsEmpty("DISPLAY") || QStandardPaths::findExecutable("trayer").isEmpty() ||
            QStandardPaths::findExecutable("xdotool").isEmpty()) {
            GTEST_SKIP() << "needs the private desktop session with trayer and xdotool";
        }
        ConfigurationStore().setDidShowVersion2Setup(true);
        // Bare Xvfb has no tray: without this every launch of the delegate would open the settings.
        ConfigurationStore().setDidShowNoTrayHint(true);
        // The tools, but no browser for a queued request to start.
        for (const char* tool : {"xclip", "xdotool", "xprop", "wish", "mate-settings-daemon"}) {
            QFile::link(QStandardPaths::findExecutable(tool), m_noBrowser.filePath(tool));
        }
    }

    void TearDown() override
    {
        for (QProcess* process : {&m_app, &m_trayHost}) {
            process->terminate();
            process->waitForFinished(5000);
        }
    }

    // The delegate launched the way the application launches it, with short delivery checks.
    std::unique_ptr<AppDelegate> launch()
    {
        m_environment.set("PATH", m_noBrowser.path().toUtf8());
        AppDelegate::Options options;
        options.firstDeliveryCheckMs = 100;
        options.secondDeliveryCheckMs = 300;
        options.helperProgram = velnoraBinary();
        auto delegate = std::make_unique<AppDelegate>(options);
        EXPECT_EQ(delegate->claimInstance(), AppDelegate::InstanceClaim::first);
        delegate->applicationDidFinishLaunching(ProcessArguments(QStringList{"velnora"}));
        return delegate;
    }

    // The velnora process under a tray host; true once the host shows its icon.
    bool startApplication(const QStringList& command, const QString& proxy = {})
    {
        m_trayHost.start(
            "trayer", {"--edge", "bottom", "--align", "right", "--widthtype", "request", "--height", "24"});
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("PATH", m_noBrowser.path());
        environment.insert("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
        environment.insert("https_proxy", proxy);
        m_app.setProcessEnvironment(environment);
        m_app.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_app.start(command.first(), command.mid(1));
        return waitUntil([&] { return DesktopProbe::embeddedTrayIcon(m_app.processId()).has_value(); },
                         15000);
    }

    static std::vector<RequestStore::Pending> pending() { return RequestStore().pendingRequests(); }

    // Whether another client could take Ctrl+Alt+E now; it gives the key back at once.
    static bool keyIsFree()
    {
        GlobalHotKey probe;
        const bool free = probe.registerChoice(ctrlAltE, [] {});
        probe.release();
        return free;
    }

    TemporaryHome m_home;
    QTemporaryDir m_noBrowser;
    EnvironmentGuard m_environment;
    QProcess m_trayHost;
    QProcess m_app;
};

TEST_F(DesktopSessionTest, BrowserRequestsAreCountedAsTheUserSeesAndOnlyLostOnesReported)
{
    const QStringList lostTexts{"Chrome 没有运行", "Chrome 扩展未安装", "Chrome 扩展未连接",
                                "Chrome 连接配置需修复"};
    ConfigurationStore().setBrowserProvider(BrowserProvider::glm);
    auto delegate = launch();
    // 100000 accented letters are 200000 UTF-16 units, but 100000 characters: accepted.
    delegate->route(SelectionResult{QStringLiteral("e\u0301").repeated(100000), std::nullopt});
    ASSERT_EQ(pending().size(), 1u);
    EXPECT_EQ(delegate->feedback()->currentText(), "正在发送到 智谱清言（GLM）");
    RequestStore().acknowledge(pending().front().request.id);
    delegate->route(SelectionResult{QStringLiteral("字").repeated(100001), std::nullopt});
    EXPECT_TRUE(pending().empty());
    EXPECT_EQ(delegate->feedback()->currentText(),
              SelectionReadError(SelectionReadError::Case::selectionTooLong).description());
    waitUntil([] { return false; }, 600); // past both checks of the delivered request
    for (const QString& text : delegate->feedback()->history()) {
        EXPECT_FALSE(lostTexts.contains(text)) << text.toStdString();
    }

    // Nobody takes this one: the second check names why.
    delegate->route(SelectionResult{"没人接收", std::nullopt});
    EXPECT_TRUE(waitUntil([&] { return lostTexts.contains(delegate->feedback()->currentText()); }, 3000))
        << delegate->feedback()->history().join(u'|').toStdString();
}

TEST_F(DesktopSessionTest, ApiModeWithoutAKeyOpensTheSettingsOnTheKey)
{
    ConfigurationStore().setExecutionMode(ExecutionMode::api);
    ConfigurationStore().setApiProviderID("ernie"); // a provider no other test stores a key for
    KeychainStore().saveAPIKey(QString(), "ernie");
    auto delegate = launch();
    delegate->route(SelectionResult{"没有密钥", std::nullopt});
    ASSERT_TRUE(waitUntil(
        [&] { return delegate->settingsWindow() != nullptr; })); // the key is read off the main thread
    SettingsWindow* settings = delegate->settingsWindow();
    EXPECT_TRUE(settings->isVisible());
    EXPECT_TRUE(FieldMarks::isMarked(settings->apiPage()->apiKeyField()));
    EXPECT_TRUE(pending().empty());
}

// The settings window is where a desktop without a tray changes the hot key. Another X client holds
// one combination (each GlobalHotKey has a connection of its own).
TEST_F(DesktopSessionTest, ACustomHotKeyIsRecordedAndRegisteredAndATakenOneRefused)
{
    GlobalHotKey otherClient;
    const HotKeyChoice taken = HotKeyChoice::custom(Qt::ControlModifier | Qt::AltModifier, Qt::Key_T);
    ASSERT_TRUE(otherClient.registerChoice(taken, [] {}));
    auto delegate = launch();
    delegate->openSettings();
    SettingsWindow* settings = delegate->settingsWindow();
    ASSERT_NE(settings, nullptr);
    HotKeySection* section = settings->generalPage()->hotKeySection();

    const struct
    {
        QKeyCombination pressed;
        std::optional<QString> storedID; // none: refused before anything is stored
        bool registered;
        QString message;
    } cases[] = {
        {QKeyCombination(Qt::ShiftModifier, Qt::Key_K), std::nullopt, false,
         "组合键至少要包含 Ctrl、Alt 或 Super 中的一个，再加一个普通键，请重新按。"},
        {QKeyCombination(Qt::ControlModifier | Qt::ShiftModifier, Qt::Key_K), "custom:Ctrl+Shift+K", true,
         "全局快捷键：Ctrl+Shift+K"},
        {QKeyCombination(Qt::ControlModifier | Qt::AltModifier, Qt::Key_VolumeUp), std::nullopt, false,
         "这个键不能用作全局快捷键，请换一个普通键再按。"},
        {QKeyCombination(Qt::MetaModifier, Qt::Key_F7), "custom:Meta+F7", true, "全局快捷键：Super+F7"},
        {QKeyCombination(Qt::ControlModifier | Qt::AltModifier, Qt::Key_T), "custom:Ctrl+Alt+T", false,
         "快捷键 Ctrl+Alt+T 已被其他应用占用，请在菜单栏中更换。"},
    };
    for (const auto& c : cases) {
        const std::optional<QString> before = ConfigurationStore().globalHotKeyID();
        section->choiceBox()->setCurrentIndex(section->choiceBox()->findData("custom"));
        Q_EMIT section->choiceBox()->activated(section->choiceBox()->currentIndex());
        EXPECT_TRUE(section->recorder()->isVisibleTo(settings));
        section->record(c.pressed);
        EXPECT_EQ(section->resultLine()->text(), c.message);
        EXPECT_EQ(ConfigurationStore().globalHotKeyID(), c.storedID ? c.storedID : before);
        if (c.storedID) {
            EXPECT_EQ(delegate->isHotKeyRegistered(), c.registered) << c.storedID->toStdString();
            EXPECT_EQ(section->choiceBox()->currentData(), *c.storedID);
        }
    }

    // The recorded key is grabbed: no other client can take it now.
    section->record(QKeyCombination(Qt::ControlModifier | Qt::ShiftModifier, Qt::Key_K));
    ASSERT_TRUE(delegate->isHotKeyRegistered());
    EXPECT_FALSE(GlobalHotKey().registerChoice(HotKeyChoice::fromID("custom:Ctrl+Shift+K"), [] {}));

    // A window opened later shows the conflict of the saved key.
    section->record(QKeyCombination(Qt::ControlModifier | Qt::AltModifier, Qt::Key_T));
    settings->close();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_EQ(delegate->settingsWindow(), nullptr);
    delegate->openSettings();
    EXPECT_EQ(delegate->settingsWindow()->generalPage()->hotKeySection()->resultLine()->text(),
              "快捷键 Ctrl+Alt+T 已被其他应用占用，请在菜单栏中更换。");

    // While the recorder listens the live key is given up, so pressing it reaches the recorder; a
    // window closed without a new choice takes it back.
    const HotKeyChoice live = HotKeyChoice::fromID("custom:Ctrl+Shift+K");
    section = delegate->settingsWindow()->generalPage()->hotKeySection();
    section->record(live.modifiers | live.key);
    ASSERT_TRUE(delegate->isHotKeyRegistered());
    section->choiceBox()->setCurrentIndex(section->choiceBox()->findData("custom"));
    Q_EMIT section->choiceBox()->activated(section->choiceBox()->currentIndex());
    {
        GlobalHotKey probe;
        EXPECT_TRUE(probe.registerChoice(live, [] {}));
    }
    delegate->settingsWindow()->close();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_TRUE(delegate->isHotKeyRegistered());
    EXPECT_FALSE(GlobalHotKey().registerChoice(live, [] {}));
    delegate->selectHotKey(HotKeyChoice::all().front().id);
}

TEST_F(DesktopSessionTest, TheUpdatesPreviewEndsWhenItsWindowCloses)
{
    BackgroundTool preview(velnoraBinary(), {"--updates-preview"});
    std::optional<QByteArray> window;
    ASSERT_TRUE(waitUntil(
        [&] {
            window = runTool("xdotool", {"search", "--onlyvisible", "--name", "关于 — 澜镜"});
            return window.has_value();
        },
        15000));
    runTool("xdotool", {"windowfocus", "--sync", window->split('\n').first()});
    runTool("xdotool", {"key", "Escape"});
    EXPECT_TRUE(preview.finished(10000));
    EXPECT_TRUE(preview.exitedCleanly());
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

TEST_F(DesktopSessionTest, OneShotProcessesDriveTheRunningInstance)
{
    // Alone, or without a session bus (then without autolaunching one), it says why and ends at once.
    const QStringList daemons = busDaemonsOnThisDisplay();
    QTemporaryDir emptyRuntime;
    const struct
    {
        bool bus;
        int exitCode;
        const char* says;
    } alone[] = {
        {true, 2, "explain-selection: 澜镜没有在运行"},
        {false, 1, "explain-selection: 没有正在运行的 D-Bus 会话总线"},
    };
    for (const auto& c : alone) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        if (!c.bus) {
            environment.remove("DBUS_SESSION_BUS_ADDRESS");
            environment.insert("XDG_RUNTIME_DIR", emptyRuntime.path());
        }
        QProcess explain;
        explain.setProcessEnvironment(environment);
        explain.start(velnoraBinary(), {"--explain-selection"});
        ASSERT_TRUE(explain.waitForFinished(10000));
        EXPECT_EQ(explain.exitCode(), c.exitCode) << c.says;
        EXPECT_TRUE(QString::fromUtf8(explain.readAllStandardOutput()).startsWith(c.says)) << c.says;
    }
    spinFor(300); // an autolaunched daemon would have appeared by now
    EXPECT_EQ(busDaemonsOnThisDisplay().join(u',').toStdString(), daemons.join(u',').toStdString());

    auto delegate = launch();
    // The one-shot processes talk to this one over the bus while the event loop runs.
    EXPECT_EQ(runTool(velnoraBinary(), {"--explain-selection", "  从命令行来的文字 "}),
              "explain-selection: ok\n");
    ASSERT_TRUE(waitUntil([&] { return pending().size() == 1; }, 3000));
    EXPECT_EQ(pending().front().request.text, "从命令行来的文字");

    // A second application instance hands over to this one and leaves.
    EXPECT_EQ(delegate->settingsWindow(), nullptr);
    EXPECT_TRUE(runTool(velnoraBinary(), {}).has_value());
    EXPECT_TRUE(waitUntil(
        [&] { return delegate->settingsWindow() && delegate->settingsWindow()->isVisible(); }, 3000));
}

// The provider's HTTPS server is played by a loopback proxy that the app reaches through https_proxy
// and trusts through a certificate only its own mount namespace sees.
TEST_F(DesktopSessionTest, HotKeyInApiModeStreamsTheAnswerIntoTheCard)
{
    const QString host = QUrl(ProviderDefinition::definition("doubao").defaultBaseURL).host();
    QString error;
    const auto authority = InterceptionAuthority::create(host, &error);
    ASSERT_TRUE(authority.has_value()) << error.toStdString();
    if (!InterceptionAuthority::privateTrustAvailable()) {
        GTEST_SKIP()
            << "no private mount namespace here: the certificate cannot be trusted by one process only";
    }
    InterceptingProxy proxy(*authority);
    proxy.setAnswer(InterceptingProxy::responsesStream({"**量子**", "纠缠是两个粒子", "之间的关联。"}), 40);
    ConfigurationStore().setExecutionMode(ExecutionMode::api);
    ConfigurationStore().setApiProviderID("doubao");
    KeychainStore().saveAPIKey("sk-e2e-only", "doubao");

    ASSERT_TRUE(startApplication(authority->privateTrustCommand(velnoraBinary(), {}), proxy.proxyURL()));
    TestClient fields({"fields"}, true);
    ASSERT_TRUE(fields.readyLine().startsWith("ready"));
    // The key sits behind a locked keyring: while its prompt waits for the user, the tray still answers
    // (a second explanation is told to wait instead of hanging the caller).
    ASSERT_TRUE(KeyringPrompt::lockLoginCollection());
    ASSERT_TRUE(runTool("xdotool", {"key", "ctrl+alt+e"}));
    ASSERT_TRUE(waitUntil([] { return KeyringPrompt::isShown(); }, 20000)) << "no unlock prompt";
    const ProgramRun second = runProgram(velnoraBinary(), {"--explain-selection", "第二段"},
                                         QProcessEnvironment::systemEnvironment(), 10000);
    EXPECT_EQ(second.exitCode, 0) << second.err.toStdString();
    EXPECT_TRUE(proxy.requests().isEmpty());
    ASSERT_TRUE(KeyringPrompt::answer({"Return"}, KeyringPrompt::sessionPassword));
    ASSERT_TRUE(waitUntil([&] { return !proxy.requests().isEmpty(); }, 15000));
    const QByteArray request = proxy.requests().first();
    EXPECT_TRUE(request.startsWith("POST /api/v3/responses HTTP/1.1")) << request.constData();
    EXPECT_TRUE(request.contains("Bearer sk-e2e-only"));
    EXPECT_TRUE(request.contains(CaptureTestData::selectedTrimmed));

    const qint64 pid = m_app.processId();
    const auto content = [pid] { return DesktopProbe::accessibleContent(pid).value_or(QString()); };
    EXPECT_TRUE(waitUntil([&] { return content().contains("量子纠缠是两个粒子之间的关联。"); }, 10000))
        << content().toStdString();
    EXPECT_TRUE(DesktopProbe::shownWindow(pid, 200, 100).has_value());
    KeychainStore().saveAPIKey(QString(), "doubao");
}

TEST_F(DesktopSessionTest, TheMenuShowsAHotKeyConflictUntilAnotherChoiceIsGrabbed)
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
TEST_F(DesktopSessionTest, TheLastActiveApplicationIsTheOneTheWindowManagerLastNamed)
{
    auto delegate = launch();
    BackgroundTool gtk = gtkSource({"entry"});
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

TEST_F(DesktopSessionTest, ASecondExplainDuringAReadSaysSoAndTheFirstReadGoesOn)
{
    ConfigurationStore().setBrowserProvider(BrowserProvider::glm);
    auto delegate = launch();
    ASSERT_TRUE(delegate->isHotKeyRegistered());
    BackgroundTool tk = tkSource();
    ASSERT_TRUE(tk.readyLine().startsWith(QStringLiteral("ready")));
    // The first read waits for the held keys; the menu's explain comes in meanwhile.
    QTimer whileReading;
    whileReading.setInterval(20);
    QObject::connect(&whileReading, &QTimer::timeout, delegate.get(), [&] {
        if (delegate->isReadingSelection()) {
            whileReading.stop();
            delegate->explainCurrentSelection();
        }
    });
    whileReading.start();
    BackgroundTool keys(QStringLiteral("xdotool"),
                        {"keydown", "ctrl+alt+e", "sleep", "1.5", "keyup", "ctrl+alt+e"});
    ASSERT_TRUE(waitUntil([] { return !pending().empty(); }, 8000));
    EXPECT_EQ(pending().front().request.text, CaptureTestData::selectedTrimmed);
    EXPECT_TRUE(delegate->feedback()->history().contains(
        SelectionReadError(SelectionReadError::Case::noSelection).description()))
        << delegate->feedback()->history().join(u'|').toStdString();
}

TEST_F(DesktopSessionTest, SigtermQuitsReleasingTheKeyAndHandingTheClipboardToTheClipboardManager)
{
    if (QStandardPaths::findExecutable("mate-settings-daemon").isEmpty()) {
        GTEST_SKIP() << "needs mate-settings-daemon (scripts/install-deps.sh)";
    }
    m_environment.set("PATH", m_noBrowser.path().toUtf8());
    auto earlier = ownSelection("clipboard", CaptureTestData::earlierText);
    ASSERT_TRUE(earlier);
    BackgroundTool app(velnoraBinary(), {});
    // Probing the key grabs it for a moment: polling with it could make the application's own grab fail.
    // The status file is written once the key is registered.
    ASSERT_TRUE(waitUntil([] { return QFile::exists(RequestStore().appStatusFilePath()); }, 10000));
    ASSERT_FALSE(keyIsFree()) << "the application never took the key";
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
    ASSERT_TRUE(waitUntil([] { return DesktopProbe::selectionHasOwner("CLIPBOARD_MANAGER"); }, 15000))
        << "the clipboard manager never started";

    // A copy from Tk: afterwards the application serves the restored clipboard, and xclip has gone.
    BackgroundTool tk = tkSource();
    ASSERT_TRUE(tk.readyLine().startsWith(QStringLiteral("ready")));
    ASSERT_TRUE(runTool(QStringLiteral("xdotool"), {"key", "ctrl+alt+e"}));
    ASSERT_TRUE(earlier->finished(8000)) << "the copy never took the clipboard";
    earlier.reset();
    ASSERT_TRUE(waitUntil([] { return !pending().empty(); }, 5000));
    EXPECT_EQ(pending().front().request.text, CaptureTestData::selectedTrimmed);
    ASSERT_TRUE(waitUntil([] { return clipboard("UTF8_STRING") == CaptureTestData::earlierText; }, 5000));

    ::kill(pid_t(app.processId()), SIGTERM);
    ASSERT_TRUE(app.finished(10000));
    EXPECT_TRUE(app.exitedCleanly()) << "SIGTERM killed the application instead of quitting it";
    EXPECT_EQ(clipboard("UTF8_STRING"), QByteArray(CaptureTestData::earlierText));
    EXPECT_TRUE(keyIsFree()) << "the key stayed grabbed";
}

} // namespace
} // namespace velnora
