// The settings window against the real secret store of the private session (gnome-keyring), and the
// About window; both against a loopback server. The widgets draw offscreen: these tests need the
// session's keyring, not its display.
#include "WindowShots.h"
#include "app/AboutWindow.h"
#include "app/SettingsWindow.h"
#include "config/ConfigurationError.h"
#include "config/ConfigurationStore.h"
#include "config/KeychainStore.h"
#include "config/ProviderCatalog.h"
#include "support/LoopbackHttpServer.h"
#include "updates/ProductRelease.h"
#include "updates/ProductUpdates.h"

#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QTabWidget>
#include <QTest>
#include <QUuid>
#include <gtest/gtest.h>

using namespace velnora;
using velnora::test::ScriptedResponse;

namespace {

// Runs before the test main creates the application object.
const bool drawsOffscreen = [] { return qputenv("QT_QPA_PLATFORM", "offscreen"); }();

class WindowsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(drawsOffscreen);
        if (qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) {
            GTEST_SKIP() << "needs the private session: run under scripts/desktop-session.sh";
        }
    }

    // The window as the application builds it, with the queue in the test's folder; loopbackAllowed
    // lets the test request reach the loopback server.
    std::unique_ptr<SettingsWindow> makeWindow(bool loopbackAllowed = false)
    {
        auto collaborators = SettingsWindow::Collaborators::standard(&configuration, &keychain);
        collaborators.requestStore = RequestStore(directory.filePath("data"));
        if (loopbackAllowed) {
            collaborators.addressPolicy = {};
        }
        auto window = std::make_unique<SettingsWindow>(std::move(collaborators));
        window->present();
        return window;
    }

    QStringList storedKeys() const { return QSettings(settingsPath, QSettings::IniFormat).allKeys(); }
    std::optional<QString> storedKey(const QString& provider) const
    {
        return KeychainStore(keychain.service()).apiKey(provider); // a fresh store reads the keyring
    }

    static void choose(QComboBox* box, const QString& data) { box->setCurrentIndex(box->findData(data)); }

    // Replaces a field's text the way a user does: select everything, then type.
    static void retype(QLineEdit* field, const QString& text)
    {
        field->setFocus();
        QTest::keyClick(field, Qt::Key_A, Qt::ControlModifier);
        QTest::keyClick(field, Qt::Key_Backspace);
        QTest::keyClicks(field, text);
    }

    QTemporaryDir directory;
    QString settingsPath = directory.filePath("velnora-domestic.conf");
    ConfigurationStore configuration{settingsPath};
    KeychainStore keychain{"velnora.test." + QUuid::createUuid().toString(QUuid::WithoutBraces)};
    test::LoopbackHttpServer server;
};

// The update site's manifest, with a Linux build when one is named.
ScriptedResponse manifest(const QString& linuxEntry = {})
{
    return ScriptedResponse::json(
        200, QStringLiteral(
                 R"({"edition": "domestic", %1 "macos": {"version": "2.11.0", "url": "/downloads/app.dmg"},
              "chrome": {"version": "2.11.1", "url": "/downloads/ext.zip", "extensionID": "%2"},
              "minimumExtensionVersion": "2.11.0"})")
                 .arg(linuxEntry, ExplainerConstants::extensionIdentifier())
                 .toUtf8());
}

// Clicks the button and waits for its check to end.
bool check(QPushButton* button)
{
    QTest::mouseClick(button, Qt::LeftButton);
    return test::waitUntil([button] { return button->isEnabled(); });
}

} // namespace

TEST_F(WindowsTest, SavingStoresOnlyWhatDiffersFromTheDefaultsAndTheKeyInTheKeyring)
{
    auto window = makeWindow();
    EXPECT_TRUE(window->save());
    EXPECT_EQ(storedKeys(), QStringList());
    EXPECT_EQ(window->banner()->text(), "设置已保存。");

    choose(window->modeBox(), "api");
    choose(window->apiProviderBox(), "deepseek");
    choose(window->depthBox(), "deep");
    retype(window->modelField(), " deepseek-v4-pro ");
    retype(window->apiKeyField(), "  sk-first-key ");
    // When the change is announced, everything is already stored.
    std::optional<ProviderOverride> seenOverride;
    QObject::connect(&configuration, &ConfigurationStore::configurationDidChange,
                     [&] { seenOverride = configuration.providerOverride("deepseek"); });
    ASSERT_TRUE(window->save());
    EXPECT_EQ(configuration.executionMode(), ExecutionMode::api);
    EXPECT_EQ(configuration.explanationDepth(), ExplanationDepth::deep);
    EXPECT_EQ(seenOverride, (ProviderOverride{"", "deepseek-v4-pro"}));
    EXPECT_EQ(configuration.resolvedProvider("sk").model, "deepseek-v4-pro");
    EXPECT_EQ(storedKey("deepseek"), "sk-first-key");

    // Back to the default model: the entry goes away instead of repeating it; the untouched key stays.
    retype(window->modelField(), ProviderDefinition::definition("deepseek").defaultModel);
    ASSERT_TRUE(window->save());
    EXPECT_TRUE(configuration.providerOverrides().isEmpty());
    EXPECT_EQ(storedKey("deepseek"), "sk-first-key");

    retype(window->apiKeyField(), "");
    ASSERT_TRUE(window->save());
    EXPECT_EQ(storedKey("deepseek"), std::nullopt);
}

TEST_F(WindowsTest, ARefusedAddressOrModelSavesNothingAndMarksItsField)
{
    auto window = makeWindow();
    choose(window->modeBox(), "api");
    retype(window->apiKeyField(), "sk-never-saved");
    const QString restricted = ConfigurationError(ConfigurationError::Kind::editionRestricted).description();
    const struct
    {
        const char* address;
        const char* model;
        QString banner;
        QLineEdit* marked;
    } cases[] = {
        {"https://proxy.example.com/api/v3", nullptr, restricted, window->baseURLField()},
        {"http://ark.cn-beijing.volces.com/api/v3", nullptr, "API 地址无效，必须是完整的 https 地址。",
         window->baseURLField()},
        {"https://ark.cn-beijing.volces.com/api/v3", "gpt-4o", restricted, window->modelField()},
    };
    for (const auto& refused : cases) {
        retype(window->baseURLField(), refused.address);
        if (refused.model) {
            retype(window->modelField(), refused.model);
        }
        EXPECT_FALSE(window->save()) << refused.address;
        EXPECT_EQ(window->banner()->text(), refused.banner);
        EXPECT_TRUE(SettingsWindow::isMarked(refused.marked));
        EXPECT_EQ(window->focusWidget(), refused.marked);
        EXPECT_EQ(storedKeys(), QStringList());
        EXPECT_EQ(storedKey("doubao"), std::nullopt);
    }
    EXPECT_FALSE(SettingsWindow::isMarked(window->baseURLField()));

    // The refused form, as the user sees it, fits on every page.
    auto* tabs = window->findChild<QTabWidget*>();
    ASSERT_NE(tabs, nullptr);
    for (int page = 0; page < tabs->count(); ++page) {
        tabs->setCurrentIndex(page);
        EXPECT_EQ(test::clippedInEitherAppearance(window.get()), QStringList());
    }
}

TEST_F(WindowsTest, TheTestRequestNamesTheKeyWhenItIsMissingOrRejected)
{
    auto window = makeWindow(true);
    choose(window->apiProviderBox(), "deepseek");
    retype(window->baseURLField(), server.url().toString());
    window->testConnection();
    EXPECT_EQ(window->testResult()->text(), "还没有保存所选提供商的 API Key。（设置 → API Key）");
    EXPECT_EQ(window->focusWidget(), window->apiKeyField());
    EXPECT_EQ(server.requestCount(), 0);

    retype(window->apiKeyField(), "sk-typed-not-saved");
    server.enqueue(ScriptedResponse::json(
        401,
        R"({"error":{"message":"Authentication Fails, Your api key is invalid","type":"authentication_error"}})"));
    window->testConnection();
    ASSERT_TRUE(test::waitUntil([&] { return !window->isTesting(); }, 10000));
    EXPECT_TRUE(
        window->testResult()->text().startsWith("API Key 无效或已失效，请重新填写。（设置 → API Key）"));
    EXPECT_TRUE(window->testResult()->text().contains("服务端原文：Authentication Fails"));
    EXPECT_EQ(window->focusWidget(), window->apiKeyField());
    EXPECT_TRUE(SettingsWindow::isMarked(window->apiKeyField()));

    // The typed key was the one sent, and testing does not save it.
    EXPECT_EQ(server.requests().at(0).header("authorization"), "Bearer sk-typed-not-saved");
    EXPECT_EQ(storedKey("deepseek"), std::nullopt);
}

TEST_F(WindowsTest, TheAboutWindowOffersTheDownloadOnlyForANewerBuild)
{
    ProductUpdates updates{server.url(), directory.filePath("extension-status.json")};
    AboutWindow window{&updates};
    window.present();
    EXPECT_FALSE(window.downloadButton()->isVisibleTo(&window));

    server.setFallback(
        manifest(QStringLiteral(R"("linux": {"%1": {"version": "99.1.0", "url": "/downloads/velnora.deb"}},)")
                     .arg(ProductRelease::architecture())));
    ASSERT_TRUE(check(window.checkApplicationButton()));
    EXPECT_TRUE(window.downloadButton()->isVisibleTo(&window));
    EXPECT_TRUE(window.applicationStatusLabel()->text().startsWith("发现新版本 99.1.0"));
    EXPECT_EQ(test::clippedInEitherAppearance(&window), QStringList());

    server.setFallback(manifest());
    ASSERT_TRUE(check(window.checkApplicationButton()));
    EXPECT_FALSE(window.downloadButton()->isVisibleTo(&window));
    EXPECT_EQ(window.applicationStatusLabel()->text(),
              "澜镜 " + ProductRelease::version() + " 已是最新版本。");
}
