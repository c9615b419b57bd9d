// The application as the user runs it: a tray host (trayer), the velnora process, a Qt program with a
// selected text, and the hot key pressed through XTest. Browser mode ends in the queue folder; API mode
// ends in the card, streamed through a loopback proxy that plays the provider's HTTPS server.
#include "CaptureDesktopSupport.h"
#include "CaptureTestData.h"
#include "DesktopProbe.h"
#include "InterceptingProxy.h"
#include "bridge/RequestStore.h"
#include "config/ConfigurationStore.h"
#include "config/KeychainStore.h"
#include "config/ProviderCatalog.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <csignal>
#include <gtest/gtest.h>

namespace velnora {
namespace {

using test::spinUntil;
using test::DesktopProbe::accessibleContent;
using test::DesktopProbe::embeddedTrayIcon;
using test::DesktopProbe::shownWindow;

// Screenshots for people reading the run: written when VELNORA_SHOT_DIR names a folder.
void screenshot(const QString& name, const QString& window = QStringLiteral("root"))
{
    const QString folder = qEnvironmentVariable("VELNORA_SHOT_DIR");
    if (!folder.isEmpty()) {
        QDir().mkpath(folder);
        test::runTool(QStringLiteral("import"), {QStringLiteral("-window"), window, folder + u'/' + name});
    }
}

class DesktopEndToEndTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        if (qEnvironmentVariableIsEmpty("DISPLAY") ||
            QStandardPaths::findExecutable(QStringLiteral("trayer")).isEmpty() ||
            QStandardPaths::findExecutable(QStringLiteral("xdotool")).isEmpty()) {
            return;
        }
        s_trayHost = new QProcess;
        s_trayHost->start(QStringLiteral("trayer"),
                          {QStringLiteral("--edge"), QStringLiteral("bottom"), QStringLiteral("--align"),
                           QStringLiteral("right"), QStringLiteral("--widthtype"), QStringLiteral("request"),
                           QStringLiteral("--height"), QStringLiteral("24")});
        s_trayHost->waitForStarted(5000);
        test::spinFor(400);
    }
    static void TearDownTestSuite()
    {
        if (s_trayHost) {
            s_trayHost->terminate();
            if (!s_trayHost->waitForFinished(3000)) {
                s_trayHost->kill();
                s_trayHost->waitForFinished(2000);
            }
            delete s_trayHost;
            s_trayHost = nullptr;
        }
    }

    void SetUp() override
    {
        if (!s_trayHost || s_trayHost->state() != QProcess::Running) {
            GTEST_SKIP() << "needs the private desktop session with trayer and xdotool";
        }
        m_settingsPath = m_home.configHome() + QStringLiteral("/tarnwick/velnora-domestic.conf");
        ConfigurationStore settings(m_settingsPath);
        settings.setDidShowVersion2Setup(true);
    }

    void TearDown() override
    {
        if (m_app.state() != QProcess::NotRunning) {
            m_app.terminate();
            if (!spinUntil([&] { return m_app.state() == QProcess::NotRunning; }, 5000)) {
                m_app.kill();
                m_app.waitForFinished(2000);
            }
        }
    }

    // Starts velnora in the test's home with nothing on PATH (no browser is ever started) and waits
    // until the tray host shows its icon.
    bool startApplication(const QStringList& command = {}, const QStringList& extraEnvironment = {})
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PATH"), m_emptyPath.path());
        environment.insert(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), QStringLiteral("1"));
        for (const char* name :
             {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
            environment.remove(QString::fromLatin1(name));
        }
        for (const QString& entry : extraEnvironment) {
            environment.insert(entry.section(u'=', 0, 0), entry.section(u'=', 1));
        }
        m_app.setProcessEnvironment(environment);
        m_app.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        const QStringList full = command.isEmpty() ? QStringList{test::velnoraBinary()} : command;
        m_app.start(full.first(), full.mid(1));
        if (!m_app.waitForStarted(5000)) {
            return false;
        }
        return spinUntil([&] { return embeddedTrayIcon(m_app.processId()).has_value(); }, 15000);
    }

    static bool pressHotKey()
    {
        return test::runTool(QStringLiteral("xdotool"), {QStringLiteral("key"), QStringLiteral("ctrl+alt+e")})
            .has_value();
    }

    std::vector<RequestStore::Pending> pending() const { return RequestStore().pendingRequests(); }

    static inline QProcess* s_trayHost = nullptr;
    test::TemporaryHome m_home;
    QTemporaryDir m_emptyPath;
    QString m_settingsPath;
    QProcess m_app;
};

TEST_F(DesktopEndToEndTest, HotKeyInBrowserModeQueuesTheSelectedText)
{
    ASSERT_TRUE(startApplication());
    test::TestClient fields({QStringLiteral("fields")}, true);
    ASSERT_TRUE(fields.readyLine().startsWith(QStringLiteral("ready")));

    ASSERT_TRUE(pressHotKey());
    ASSERT_TRUE(spinUntil([&] { return !pending().empty(); }, 10000));
    const BridgeRequest request = pending().front().request;
    EXPECT_EQ(request.type, BridgeRequestType::explainText);
    EXPECT_EQ(request.text, QString::fromUtf8(test::CaptureTestData::selectedTrimmed));
    EXPECT_EQ(request.provider, QStringLiteral("doubao"));
    EXPECT_EQ(request.depthInstruction, depthInstruction(ExplanationDepth::balanced));
}

TEST_F(DesktopEndToEndTest, HotKeyInApiModeStreamsTheAnswerIntoTheCard)
{
    const QString host = QUrl(ProviderDefinition::definition(QStringLiteral("doubao")).defaultBaseURL).host();
    QString error;
    const auto authority = test::InterceptionAuthority::create(host, &error);
    ASSERT_TRUE(authority.has_value()) << error.toStdString();
    if (!test::InterceptionAuthority::privateTrustAvailable()) {
        GTEST_SKIP()
            << "no private mount namespace here: the test authority cannot be trusted by one process only";
    }
    test::InterceptingProxy proxy(*authority);
    ASSERT_TRUE(proxy.isListening());
    proxy.setAnswer(
        test::InterceptingProxy::responsesStream(
            {QStringLiteral("**量子**"), QStringLiteral("纠缠是两个粒子"), QStringLiteral("之间的关联。")}),
        40);
    ConfigurationStore settings(m_settingsPath);
    settings.setExecutionMode(ExecutionMode::api);
    settings.setApiProviderID(QStringLiteral("doubao"));
    KeychainStore().saveAPIKey(QStringLiteral("sk-e2e-only"), QStringLiteral("doubao"));

    ASSERT_TRUE(startApplication(authority->privateTrustCommand(test::velnoraBinary(), {}),
                                 {QStringLiteral("https_proxy=") + proxy.proxyURL()}));
    test::TestClient fields({QStringLiteral("fields")}, true);
    ASSERT_TRUE(fields.readyLine().startsWith(QStringLiteral("ready")));
    ASSERT_TRUE(pressHotKey());

    ASSERT_TRUE(spinUntil(
        [&] { return !proxy.exchanges().isEmpty() && !proxy.exchanges().first().requestBody.isEmpty(); },
        15000));
    const auto& exchange = proxy.exchanges().first();
    EXPECT_EQ(exchange.connectTarget, host.toUtf8() + ":443");
    EXPECT_TRUE(exchange.requestHead.startsWith("POST /api/v3/responses HTTP/1.1"))
        << exchange.requestHead.constData();
    EXPECT_TRUE(exchange.requestHead.contains("Bearer sk-e2e-only"));
    EXPECT_TRUE(exchange.requestBody.contains(test::CaptureTestData::selectedTrimmed));

    const qint64 pid = m_app.processId();
    ASSERT_TRUE(spinUntil([&] { return shownWindow(pid, 200, 100).has_value(); }, 10000));
    const QString answer = QStringLiteral("量子纠缠是两个粒子之间的关联。");
    EXPECT_TRUE(spinUntil([&] { return accessibleContent(pid).value_or(QString()).contains(answer); }, 10000))
        << accessibleContent(pid).value_or(QStringLiteral("(not on the accessibility bus)")).toStdString();
    screenshot(QStringLiteral("card-api.png"));
    KeychainStore().saveAPIKey(QString(), QStringLiteral("doubao"));
}

TEST_F(DesktopEndToEndTest, SendSettingsOpensTheRunningInstancesWindow)
{
    ASSERT_TRUE(startApplication());
    auto searchSettings = [] {
        const auto found = test::runTool(QStringLiteral("xdotool"),
                                         {QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                                          QStringLiteral("--name"), QStringLiteral("澜镜设置")});
        return found && !found->trimmed().isEmpty();
    };
    EXPECT_FALSE(searchSettings());

    QProcess send;
    send.start(test::velnoraBinary(), {QStringLiteral("--send-settings")});
    ASSERT_TRUE(spinUntil([&] { return send.state() == QProcess::NotRunning; }, 10000));
    EXPECT_EQ(send.exitCode(), 0);
    EXPECT_EQ(send.readAllStandardOutput(), "send-settings: ok\n");
    EXPECT_TRUE(spinUntil(searchSettings, 10000));
}

TEST_F(DesktopEndToEndTest, TrayMenuOpensWithItsChineseItems)
{
    ASSERT_TRUE(startApplication());
    const qint64 pid = m_app.processId();
    const auto icon = embeddedTrayIcon(pid);
    ASSERT_TRUE(icon.has_value());
    ASSERT_TRUE(test::runTool(QStringLiteral("xdotool"),
                              {QStringLiteral("mousemove"), QStringLiteral("--window"),
                               QString::number(icon->id), QStringLiteral("6"), QStringLiteral("6"),
                               QStringLiteral("click"), QStringLiteral("3")})
                    .has_value());
    // Qt keeps popups off the accessibility tree: the items' texts are checked in status_menu_tests,
    // here the menu must open, entirely on the screen.
    ASSERT_TRUE(spinUntil([&] { return shownWindow(pid, 150, 200).has_value(); }, 10000));
    const QRect menu = shownWindow(pid, 150, 200)->geometry;
    EXPECT_TRUE(QRect(0, 0, 1280, 1024).contains(menu))
        << menu.x() << ',' << menu.y() << ' ' << menu.width() << 'x' << menu.height();
    test::spinFor(300);
    screenshot(QStringLiteral("tray-menu.png"));
    test::runTool(QStringLiteral("xdotool"), {QStringLiteral("key"), QStringLiteral("Escape")});
}

} // namespace
} // namespace velnora

namespace velnora {
namespace {

TEST_F(DesktopEndToEndTest, PreviewsShowTheCardAtLaunchAndOnRequest)
{
    ASSERT_TRUE(startApplication({test::velnoraBinary(), QStringLiteral("--preview-overlay")}));
    const qint64 pid = m_app.processId();
    ASSERT_TRUE(spinUntil([&] { return shownWindow(pid, 200, 100).has_value(); }, 10000));
    const QString launched = accessibleContent(pid).value_or(QString());
    EXPECT_FALSE(launched.isEmpty());

    // The capsule preview collapses the card: the large window goes away.
    QProcess pill;
    pill.start(test::velnoraBinary(), {QStringLiteral("--send-pill-preview")});
    ASSERT_TRUE(spinUntil([&] { return pill.state() == QProcess::NotRunning; }, 10000));
    EXPECT_EQ(pill.exitCode(), 0);
    EXPECT_TRUE(spinUntil([&] { return !shownWindow(pid, 200, 100).has_value(); }, 10000));
    EXPECT_TRUE(shownWindow(pid, 60, 30).has_value());

    QProcess preview;
    preview.start(test::velnoraBinary(), {QStringLiteral("--send-preview")});
    ASSERT_TRUE(spinUntil([&] { return preview.state() == QProcess::NotRunning; }, 10000));
    EXPECT_EQ(preview.exitCode(), 0);
    EXPECT_TRUE(spinUntil([&] { return shownWindow(pid, 200, 100).has_value(); }, 10000));
    screenshot(QStringLiteral("preview-card.png"));
}

} // namespace
} // namespace velnora
