// The tray application in this process, inside the private desktop session: real settings file,
// real queue folder, real session bus and keyring. The browser is never started: PATH holds none.
#include "app/AppDelegate.h"
#include "app/ControlBus.h"
#include "app/FeedbackPresenter.h"
#include "app/FirstRunHint.h"
#include "app/ProcessArguments.h"
#include "bridge/RequestStore.h"
#include "capture/SelectionReadError.h"
#include "support/LoopbackHttpServer.h"
#include "support/TestEnvironment.h"

#include <QAction>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QProcess>
#include <QSignalSpy>
#include <QSettings>
#include <QSystemTrayIcon>
#include <gtest/gtest.h>

namespace velnora {
namespace {

using test::waitUntil;

const QStringList deliveryTexts{QStringLiteral("Chrome 没有运行"), QStringLiteral("Chrome 扩展未安装"),
                                QStringLiteral("Chrome 扩展未连接"), QStringLiteral("Chrome 连接配置需修复")};

// The event loop runs meanwhile: the child may talk to this process over the bus.
std::pair<int, QByteArray> runVelnora(const QStringList& arguments)
{
    QProcess process;
    process.start(test::velnoraBinary(), arguments);
    if (!waitUntil([&] { return process.state() == QProcess::NotRunning; }, 15000)) {
        process.kill();
        process.waitForFinished(2000);
        return {-1, QByteArray()};
    }
    return {process.exitCode(), process.readAllStandardOutput()};
}

class AppDelegateDesktopTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (qEnvironmentVariableIsEmpty("DISPLAY") ||
            qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) {
            GTEST_SKIP() << "needs the private desktop session (scripts/desktop-session.sh)";
        }
        QDir().mkpath(m_emptyPath.path());
        m_environment.set("PATH", m_emptyPath.path().toUtf8());
        m_settingsPath = m_home.filePath(QStringLiteral("settings.conf"));
        m_dataPath = m_home.filePath(QStringLiteral("data"));
    }

    // A delegate launched the way the application launches it, with short delivery checks.
    std::unique_ptr<AppDelegate> launch(bool firstRun = false, const QStringList& arguments = {})
    {
        if (!firstRun) {
            ConfigurationStore store(m_settingsPath);
            store.setDidShowVersion2Setup(true);
            // Bare Xvfb has no tray: without this every launch would open the settings window.
            store.settings().setValue(QLatin1String(FirstRunHint::trayHintShownKey), true);
        }
        AppDelegate::Options options;
        options.settingsPath = m_settingsPath;
        options.dataDirectory = m_dataPath;
        options.firstDeliveryCheckMs = 100;
        options.secondDeliveryCheckMs = 300;
        options.runtimeStatusIntervalMs = 200;
        auto delegate = std::make_unique<AppDelegate>(options);
        EXPECT_EQ(delegate->claimInstance(), AppDelegate::InstanceClaim::first);
        delegate->applicationDidFinishLaunching(
            ProcessArguments(QStringList{QStringLiteral("velnora")} + arguments));
        return delegate;
    }

    std::vector<RequestStore::Pending> pending() const { return RequestStore(m_dataPath).pendingRequests(); }

    test::TemporaryHome m_home;
    QTemporaryDir m_emptyPath;
    test::EnvironmentGuard m_environment;
    QString m_settingsPath;
    QString m_dataPath;
};

TEST_F(AppDelegateDesktopTest, BrowserModeQueuesTheTextWithProviderAndDepth)
{
    ConfigurationStore settings(m_settingsPath);
    settings.setBrowserProvider(BrowserProvider::glm);
    settings.setExplanationDepth(ExplanationDepth::deep);
    auto delegate = launch();
    QSignalSpy queued(delegate.get(), &AppDelegate::browserRequestQueued);

    delegate->route(SelectionResult{QStringLiteral("量子纠缠"), std::nullopt});

    ASSERT_EQ(queued.size(), 1);
    const auto requests = pending();
    ASSERT_EQ(requests.size(), 1u);
    const BridgeRequest& request = requests.front().request;
    EXPECT_EQ(request.id, queued.first().first().toString());
    EXPECT_EQ(request.type, BridgeRequestType::explainText);
    EXPECT_EQ(request.text, QStringLiteral("量子纠缠"));
    EXPECT_EQ(request.provider, QStringLiteral("glm"));
    EXPECT_EQ(request.depthInstruction, depthInstruction(ExplanationDepth::deep));
    EXPECT_EQ(delegate->feedback()->currentText(), QStringLiteral("正在发送到 智谱清言（GLM）"));
    EXPECT_EQ(delegate->statusItem()->toolTip(), QStringLiteral("正在发送到 智谱清言（GLM）"));

    // Nobody takes the request: the second check names why.
    ASSERT_TRUE(waitUntil([&] { return deliveryTexts.contains(delegate->feedback()->currentText()); }, 3000))
        << delegate->feedback()->history().join(u'|').toStdString();
}

TEST_F(AppDelegateDesktopTest, ADeliveredRequestIsNotReportedAsLost)
{
    auto delegate = launch();
    QSignalSpy queued(delegate.get(), &AppDelegate::browserRequestQueued);
    delegate->route(SelectionResult{QStringLiteral("已送达"), std::nullopt});
    ASSERT_EQ(queued.size(), 1);
    RequestStore(m_dataPath).acknowledge(queued.first().first().toString());

    test::waitUntil([] { return false; }, 600); // past both checks
    for (const QString& text : delegate->feedback()->history()) {
        EXPECT_FALSE(deliveryTexts.contains(text)) << text.toStdString();
    }
}

TEST_F(AppDelegateDesktopTest, TheLengthLimitCountsWhatTheUserSees)
{
    auto delegate = launch();
    // 100000 accented letters are 200000 UTF-16 units, but 100000 characters: accepted.
    delegate->route(SelectionResult{QStringLiteral("e\u0301").repeated(100000), std::nullopt});
    EXPECT_EQ(pending().size(), 1u);

    delegate->route(SelectionResult{QStringLiteral("字").repeated(100001), std::nullopt});
    EXPECT_EQ(pending().size(), 1u);
    EXPECT_EQ(delegate->feedback()->currentText(),
              SelectionReadError(SelectionReadError::Case::selectionTooLong).description());
}

TEST_F(AppDelegateDesktopTest, ApiModeWithoutAKeyOpensTheSettingsOnTheKey)
{
    ConfigurationStore(m_settingsPath).setExecutionMode(ExecutionMode::api);
    // A provider no other test stores a key for.
    ConfigurationStore(m_settingsPath).setApiProviderID(QStringLiteral("ernie"));
    KeychainStore().saveAPIKey(QString(), QStringLiteral("ernie"));
    auto delegate = launch();

    delegate->route(SelectionResult{QStringLiteral("没有密钥"), std::nullopt});

    SettingsWindow* settings = delegate->settingsWindow();
    ASSERT_NE(settings, nullptr);
    EXPECT_TRUE(settings->isVisible());
    EXPECT_FALSE(settings->banner()->text().isEmpty());
    EXPECT_TRUE(SettingsWindow::isMarked(settings->apiKeyField()));
    EXPECT_TRUE(pending().empty());
    EXPECT_NE(delegate->feedback()->currentText(), QStringLiteral("正在解释"));
}

TEST_F(AppDelegateDesktopTest, FirstRunShowsTheSetupHintOnce)
{
    {
        auto delegate = launch(true);
        ASSERT_NE(delegate->settingsWindow(), nullptr);
        EXPECT_TRUE(delegate->settingsWindow()->isVisible());
        const QString banner = delegate->settingsWindow()->banner()->text();
        EXPECT_TRUE(banner.startsWith(
            QStringLiteral("免 Key 网页会话可直接使用；配置 API Key 后可启用原生悬浮卡片。")))
            << banner.toStdString();
        // The session has no tray host unless a test starts one.
        EXPECT_EQ(banner.contains(QStringLiteral("没有系统托盘")), !QSystemTrayIcon::isSystemTrayAvailable())
            << banner.toStdString();
        EXPECT_TRUE(ConfigurationStore(m_settingsPath).didShowVersion2Setup());
    }
    auto again = launch(true);
    EXPECT_EQ(again->settingsWindow(), nullptr);
}

TEST_F(AppDelegateDesktopTest, ModeChoiceIsStoredCheckedAndAnnounced)
{
    auto delegate = launch();
    StatusMenu* menu = delegate->statusMenu();
    EXPECT_TRUE(menu->modeMenuItems().value(ExecutionMode::browser)->isChecked());

    menu->modeMenuItems().value(ExecutionMode::api)->trigger();
    EXPECT_EQ(ConfigurationStore(m_settingsPath).executionMode(), ExecutionMode::api);
    EXPECT_TRUE(menu->modeMenuItems().value(ExecutionMode::api)->isChecked());
    EXPECT_EQ(delegate->feedback()->currentText(), QStringLiteral("API 悬浮模式"));

    // A change made elsewhere (the settings window) moves the check mark too.
    delegate->configuration().setExecutionMode(ExecutionMode::browser);
    EXPECT_TRUE(menu->modeMenuItems().value(ExecutionMode::browser)->isChecked());
}

TEST_F(AppDelegateDesktopTest, LaunchAtLoginItemTogglesTheAutostartEntry)
{
    auto delegate = launch();
    QAction* item = delegate->statusMenu()->launchAtLoginItem();
    EXPECT_FALSE(item->isChecked());
    item->trigger();
    EXPECT_TRUE(item->isChecked());
    EXPECT_TRUE(QFile::exists(m_home.configHome() + QStringLiteral("/autostart/velnora.desktop")));
    item->trigger();
    EXPECT_FALSE(item->isChecked());
    EXPECT_FALSE(QFile::exists(m_home.configHome() + QStringLiteral("/autostart/velnora.desktop")));

    QDir(m_home.configHome()).rmdir(QStringLiteral("autostart"));
    QFile blocker(m_home.configHome() + QStringLiteral("/autostart"));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    item->trigger();
    EXPECT_FALSE(item->isChecked());
    EXPECT_TRUE(delegate->feedback()->currentText().startsWith(QStringLiteral("无法修改登录启动设置：")));
}

TEST_F(AppDelegateDesktopTest, TheRuntimeStatusIsRewrittenWhileRunning)
{
    auto delegate = launch();
    const QString path = delegate->requestStore().appStatusFilePath();
    auto updatedAt = [&] {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(file.readAll())
                                                    .object()
                                                    .value(QStringLiteral("updatedAt"))
                                                    .toDouble()
                                              : 0.0;
    };
    ASSERT_TRUE(waitUntil([&] { return updatedAt() > 0; }, 1000));
    const double first = updatedAt();
    ASSERT_TRUE(waitUntil([&] { return updatedAt() > first; }, 2000));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(QJsonDocument::fromJson(file.readAll())
                    .object()
                    .value(QStringLiteral("accessibilityTrusted"))
                    .toBool());
}

TEST_F(AppDelegateDesktopTest, OneShotProcessesDriveTheRunningInstance)
{
    auto delegate = launch();
    const auto explained =
        runVelnora({QStringLiteral("--explain-selection"), QStringLiteral("  从命令行来的文字 ")});
    EXPECT_EQ(explained.first, 0);
    EXPECT_EQ(explained.second, "explain-selection: ok\n");
    ASSERT_TRUE(waitUntil([&] { return pending().size() == 1; }, 3000));
    EXPECT_EQ(pending().front().request.text, QStringLiteral("从命令行来的文字"));

    const auto translation = runVelnora({QStringLiteral("--send-translation-self-test")});
    EXPECT_EQ(translation.first, 0);
    ASSERT_TRUE(waitUntil([&] { return pending().size() == 2; }, 3000));
    EXPECT_EQ(pending().back().request.text, AppDelegate::translationCheckText());

    EXPECT_EQ(delegate->settingsWindow(), nullptr);
    const auto settings = runVelnora({QStringLiteral("--send-settings")});
    EXPECT_EQ(settings.first, 0);
    EXPECT_EQ(settings.second, "send-settings: ok\n");
    ASSERT_TRUE(waitUntil(
        [&] { return delegate->settingsWindow() && delegate->settingsWindow()->isVisible(); }, 3000));
    delegate->settingsWindow()->hide();

    // A second application instance hands over to this one and leaves.
    const auto second = runVelnora({});
    EXPECT_EQ(second.first, 0);
    EXPECT_TRUE(waitUntil([&] { return delegate->settingsWindow()->isVisible(); }, 3000));
}

TEST_F(AppDelegateDesktopTest, WithoutARunningInstanceExplainSelectionSaysSo)
{
    const auto result = runVelnora({QStringLiteral("--explain-selection")});
    EXPECT_EQ(result.first, 2);
    EXPECT_TRUE(QString::fromUtf8(result.second).startsWith(QStringLiteral("explain-selection: 澜镜没有在运行")));
}

} // namespace
} // namespace velnora
