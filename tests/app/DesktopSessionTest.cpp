// The tray application inside the private desktop session (real settings, queue folder, session bus and
// keyring; PATH holds no browser): first the delegate in this process, then the velnora process as the
// user runs it, under a tray host, driven by the hot key pressed through XTest.
#include "CaptureDesktopSupport.h"
#include "CaptureTestData.h"
#include "DesktopProbe.h"
#include "InterceptingProxy.h"
#include "app/AppDelegate.h"
#include "app/FeedbackPresenter.h"
#include "app/FirstRunHint.h"
#include "app/ProcessArguments.h"
#include "app/settings/FieldMarks.h"
#include "capture/GlobalHotKey.h"
#include "capture/SelectionReadError.h"
#include "support/TestEnvironment.h"

#include <QComboBox>
#include <QCoreApplication>
#include <QEvent>
#include <QKeySequenceEdit>
#include <QLineEdit>
#include <QSettings>
#include <QStandardPaths>
#include <gtest/gtest.h>

namespace velnora {
namespace {

using test::waitUntil;

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
        m_environment.set("PATH", m_emptyPath.path().toUtf8());
        AppDelegate::Options options;
        options.firstDeliveryCheckMs = 100;
        options.secondDeliveryCheckMs = 300;
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
        environment.insert("PATH", m_emptyPath.path());
        environment.insert("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
        environment.insert("https_proxy", proxy);
        m_app.setProcessEnvironment(environment);
        m_app.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_app.start(command.first(), command.mid(1));
        return waitUntil([&] { return test::DesktopProbe::embeddedTrayIcon(m_app.processId()).has_value(); },
                         15000);
    }

    // Selects the text in a Qt program's field and presses the hot key.
    void explainSelectionByHotKey()
    {
        m_fields.emplace(QStringList{"fields"}, true);
        ASSERT_TRUE(m_fields->readyLine().startsWith("ready"));
        ASSERT_TRUE(test::runTool("xdotool", {"key", "ctrl+alt+e"}).has_value());
    }

    static std::vector<RequestStore::Pending> pending() { return RequestStore().pendingRequests(); }

    test::TemporaryHome m_home;
    QTemporaryDir m_emptyPath;
    test::EnvironmentGuard m_environment;
    QProcess m_trayHost;
    QProcess m_app;
    std::optional<test::TestClient> m_fields;
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
    SettingsWindow* settings = delegate->settingsWindow();
    ASSERT_NE(settings, nullptr);
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
    QProcess preview;
    preview.start(test::velnoraBinary(), {"--updates-preview"});
    std::optional<QString> window;
    waitUntil(
        [&] {
            const auto found = test::runTool("xdotool", {"search", "--onlyvisible", "--name", "关于 — 澜镜"});
            window = found ? std::optional(QString::fromUtf8(*found)) : std::nullopt;
            return window && !window->trimmed().isEmpty();
        },
        15000);
    ASSERT_TRUE(window && !window->trimmed().isEmpty());
    const QString id = window->trimmed().section('\n', 0, 0);
    test::runTool("xdotool", {"windowfocus", "--sync", id});
    ASSERT_EQ(preview.state(), QProcess::Running);
    test::runTool("xdotool", {"key", "Escape"});
    // waitForFinished is false for a process that already ended.
    EXPECT_TRUE(preview.waitForFinished(10000) || preview.state() == QProcess::NotRunning);
    EXPECT_EQ(preview.exitCode(), 0);
    if (preview.state() != QProcess::NotRunning) {
        preview.kill();
        preview.waitForFinished();
    }
}

TEST_F(DesktopSessionTest, OneShotProcessesDriveTheRunningInstance)
{
    QProcess alone; // no instance runs: nothing answers on the bus, so waiting blocked is fine
    alone.start(test::velnoraBinary(), {"--explain-selection"});
    ASSERT_TRUE(alone.waitForFinished(10000));
    EXPECT_EQ(alone.exitCode(), 2);
    EXPECT_TRUE(
        QString::fromUtf8(alone.readAllStandardOutput()).startsWith("explain-selection: 澜镜没有在运行"));

    auto delegate = launch();
    // The one-shot processes talk to this one over the bus while the event loop runs.
    EXPECT_EQ(test::runTool(test::velnoraBinary(), {"--explain-selection", "  从命令行来的文字 "}),
              "explain-selection: ok\n");
    ASSERT_TRUE(waitUntil([&] { return pending().size() == 1; }, 3000));
    EXPECT_EQ(pending().front().request.text, "从命令行来的文字");

    // A second application instance hands over to this one and leaves.
    EXPECT_EQ(delegate->settingsWindow(), nullptr);
    EXPECT_TRUE(test::runTool(test::velnoraBinary(), {}).has_value());
    EXPECT_TRUE(waitUntil(
        [&] { return delegate->settingsWindow() && delegate->settingsWindow()->isVisible(); }, 3000));
}

TEST_F(DesktopSessionTest, HotKeyInBrowserModeQueuesTheSelectedText)
{
    ConfigurationStore().setBrowserProvider(BrowserProvider::glm);
    ConfigurationStore().setExplanationDepth(ExplanationDepth::deep);
    ASSERT_TRUE(startApplication({test::velnoraBinary()}));
    explainSelectionByHotKey();
    ASSERT_TRUE(waitUntil([&] { return !pending().empty(); }, 10000));
    const BridgeRequest request = pending().front().request;
    EXPECT_EQ(request.text, test::CaptureTestData::selectedTrimmed);
    EXPECT_EQ(request.provider, "glm");
    EXPECT_EQ(request.depthInstruction, depthInstruction(ExplanationDepth::deep));
}

// The provider's HTTPS server is played by a loopback proxy that the app reaches through https_proxy
// and trusts through a certificate only its own mount namespace sees.
TEST_F(DesktopSessionTest, HotKeyInApiModeStreamsTheAnswerIntoTheCard)
{
    const QString host = QUrl(ProviderDefinition::definition("doubao").defaultBaseURL).host();
    QString error;
    const auto authority = test::InterceptionAuthority::create(host, &error);
    ASSERT_TRUE(authority.has_value()) << error.toStdString();
    if (!test::InterceptionAuthority::privateTrustAvailable()) {
        GTEST_SKIP()
            << "no private mount namespace here: the certificate cannot be trusted by one process only";
    }
    test::InterceptingProxy proxy(*authority);
    proxy.setAnswer(test::InterceptingProxy::responsesStream({"**量子**", "纠缠是两个粒子", "之间的关联。"}),
                    40);
    ConfigurationStore().setExecutionMode(ExecutionMode::api);
    ConfigurationStore().setApiProviderID("doubao");
    KeychainStore().saveAPIKey("sk-e2e-only", "doubao");

    ASSERT_TRUE(
        startApplication(authority->privateTrustCommand(test::velnoraBinary(), {}), proxy.proxyURL()));
    explainSelectionByHotKey();
    ASSERT_TRUE(waitUntil([&] { return !proxy.requests().isEmpty(); }, 15000));
    const QByteArray request = proxy.requests().first();
    EXPECT_TRUE(request.startsWith("POST /api/v3/responses HTTP/1.1")) << request.constData();
    EXPECT_TRUE(request.contains("Bearer sk-e2e-only"));
    EXPECT_TRUE(request.contains(test::CaptureTestData::selectedTrimmed));

    const qint64 pid = m_app.processId();
    const auto content = [pid] { return test::DesktopProbe::accessibleContent(pid).value_or(QString()); };
    EXPECT_TRUE(waitUntil([&] { return content().contains("量子纠缠是两个粒子之间的关联。"); }, 10000))
        << content().toStdString();
    EXPECT_TRUE(test::DesktopProbe::shownWindow(pid, 200, 100).has_value());
    KeychainStore().saveAPIKey(QString(), "doubao");
}

} // namespace
} // namespace velnora
