// The settings window against the real secret store of the private session (gnome-keyring) and a
// loopback model server. The widgets draw offscreen: these tests need the session's keyring, not its
// display.
#include "app/SettingsWindow.h"

#include "WindowShots.h"
#include "config/ConfigurationError.h"
#include "config/ConfigurationStore.h"
#include "config/KeychainStore.h"
#include "config/PromptLibrary.h"
#include "support/LoopbackHttpServer.h"

#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSettings>
#include <QStringListModel>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QTest>
#include <QUuid>
#include <gtest/gtest.h>

using namespace velnora;
using velnora::test::LoopbackHttpServer;
using velnora::test::ScriptedResponse;
using velnora::test::waitUntil;

namespace {

// Runs before the test main creates the application object.
const bool drawsOffscreen = [] {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    return true;
}();

QByteArray chatStream(const QStringList& pieces)
{
    QByteArray body;
    for (const QString& piece : pieces) {
        body += "data: {\"choices\":[{\"index\":0,\"delta\":{\"content\":\"" + piece.toUtf8() + "\"}}]}\n\n";
    }
    return body + "data: [DONE]\n\n";
}

QPushButton* buttonTitled(QWidget* window, const QString& title)
{
    for (QPushButton* button : window->findChildren<QPushButton*>()) {
        if (button->text() == title) {
            return button;
        }
    }
    ADD_FAILURE() << "no button " << title.toStdString();
    return nullptr;
}

class SettingsWindowTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(drawsOffscreen);
        if (qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) {
            GTEST_SKIP() << "needs the private session: run under scripts/desktop-session.sh";
        }
        ASSERT_TRUE(server.isListening());
    }
    void TearDown() override
    {
        for (const ProviderDefinition& definition : ProviderDefinition::builtIn()) {
            try {
                keychain.saveAPIKey({}, definition.id);
            } catch (const KeychainError&) {
            }
        }
    }

    // The window as the application builds it, with the queue in the test's folder and the file
    // manager replaced by a note of what it was asked to open.
    std::unique_ptr<SettingsWindow> makeWindow(bool loopbackAllowed = false)
    {
        SettingsWindow::Collaborators collaborators =
            SettingsWindow::Collaborators::standard(&configuration, &keychain);
        collaborators.requestStore = RequestStore(directory.filePath("data"));
        collaborators.openURL = [this](const QUrl& url) {
            opened << url;
            return true;
        };
        if (loopbackAllowed) {
            collaborators.addressPolicy = {};
        }
        return std::make_unique<SettingsWindow>(std::move(collaborators));
    }

    QStringList storedKeys() const
    {
        QSettings settings(settingsPath, QSettings::IniFormat);
        return settings.allKeys();
    }

    static void choose(QComboBox* box, const QString& data)
    {
        const int index = box->findData(data);
        ASSERT_GE(index, 0) << data.toStdString();
        box->setCurrentIndex(index);
    }

    // Replaces a field's text the way a user does: select everything, then type.
    static void retype(QLineEdit* field, const QString& text)
    {
        field->setFocus();
        QTest::keyClick(field, Qt::Key_A, Qt::ControlModifier);
        QTest::keyClick(field, Qt::Key_Backspace);
        if (!text.isEmpty()) {
            QTest::keyClicks(field, text);
        }
    }

    QTemporaryDir directory;
    QString settingsPath = directory.filePath("velnora-domestic.conf");
    ConfigurationStore configuration{settingsPath};
    KeychainStore keychain{"velnora.test." + QUuid::createUuid().toString(QUuid::WithoutBraces)};
    LoopbackHttpServer server;
    QList<QUrl> opened;
};

} // namespace

TEST_F(SettingsWindowTest, SavingUnchangedDefaultsWritesNothing)
{
    auto window = makeWindow();
    window->present();
    int changes = 0;
    QObject::connect(&configuration, &ConfigurationStore::configurationDidChange, [&] { ++changes; });
    EXPECT_TRUE(window->save());
    EXPECT_EQ(storedKeys(), QStringList());
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(window->banner()->text(), "设置已保存。");
}

TEST_F(SettingsWindowTest, SavingWritesTheChangedKeysAndAnOverrideWithoutDefaults)
{
    auto window = makeWindow();
    window->present();
    choose(window->modeBox(), "api");
    choose(window->apiProviderBox(), "deepseek");
    choose(window->depthBox(), "deep");
    EXPECT_EQ(window->depthHint()->text(), depthInstruction(ExplanationDepth::deep));
    EXPECT_EQ(window->baseURLField()->text(), "https://api.deepseek.com");
    retype(window->modelField(), " deepseek-v4-pro ");

    // When the change is announced, everything is already stored.
    std::optional<ProviderOverride> seenOverride;
    QObject::connect(&configuration, &ConfigurationStore::configurationDidChange,
                     [&] { seenOverride = configuration.providerOverride("deepseek"); });
    ASSERT_TRUE(window->save());

    QStringList keys = storedKeys();
    keys.sort();
    EXPECT_EQ(keys,
              (QStringList{"apiProviderV2", "executionModeV2", "explanationDepthV2", "providerOverridesV2"}));
    EXPECT_EQ(configuration.executionMode(), ExecutionMode::api);
    EXPECT_EQ(configuration.explanationDepth(), ExplanationDepth::deep);
    EXPECT_EQ(seenOverride, (ProviderOverride{"", "deepseek-v4-pro"}));
    EXPECT_EQ(configuration.resolvedProvider("sk").model, "deepseek-v4-pro");

    // Back to the defaults: the override entry goes away instead of repeating them.
    QTest::mouseClick(buttonTitled(window.get(), "恢复默认"), Qt::LeftButton);
    EXPECT_EQ(window->modelField()->text(), "deepseek-v4-flash");
    ASSERT_TRUE(window->save());
    EXPECT_TRUE(configuration.providerOverrides().isEmpty());
}

TEST_F(SettingsWindowTest, ACustomPromptIsStoredAndTheDefaultPromptIsNot)
{
    auto window = makeWindow();
    window->present();
    window->systemPromptField()->setPlainText("  只用三句话解释。\n");
    ASSERT_TRUE(window->save());
    EXPECT_EQ(QSettings(settingsPath, QSettings::IniFormat).value("systemPromptV2").toString(),
              "只用三句话解释。");

    window->systemPromptField()->setPlainText(PromptLibrary::defaultSystemPrompt());
    ASSERT_TRUE(window->save());
    EXPECT_FALSE(storedKeys().contains("systemPromptV2"));
    EXPECT_EQ(configuration.systemPrompt(), PromptLibrary::defaultSystemPrompt());
}

TEST_F(SettingsWindowTest, TheKeyIsSavedTrimmedKeptWhenUntouchedAndDeletedWhenBlank)
{
    auto window = makeWindow();
    window->present();
    EXPECT_TRUE(window->apiKeyStatus()->text().startsWith("○"));
    retype(window->apiKeyField(), "  sk-first-key ");
    ASSERT_TRUE(window->save());
    // A second store has no cache: it reads what the keyring holds.
    KeychainStore fresh{keychain.service()};
    EXPECT_EQ(fresh.apiKey("doubao"), "sk-first-key");
    EXPECT_TRUE(window->apiKeyStatus()->text().startsWith("●"));
    EXPECT_NE(window->apiKeyField()->text(), "sk-first-key"); // the secret is not shown back

    choose(window->depthBox(), "fast");
    ASSERT_TRUE(window->save());
    KeychainStore afterUntouched{keychain.service()};
    EXPECT_EQ(afterUntouched.apiKey("doubao"), "sk-first-key");

    retype(window->apiKeyField(), "");
    ASSERT_TRUE(window->save());
    KeychainStore afterBlank{keychain.service()};
    EXPECT_FALSE(afterBlank.hasAPIKey("doubao"));
    EXPECT_FALSE(afterBlank.apiKey("doubao").has_value());
    EXPECT_TRUE(window->apiKeyStatus()->text().startsWith("○"));
}

TEST_F(SettingsWindowTest, KeychainRepairRewritesAStoredKeyAndSaysSoWhenThereIsNone)
{
    auto window = makeWindow();
    window->present();
    QTest::mouseClick(buttonTitled(window.get(), "修复钥匙串授权"), Qt::LeftButton);
    EXPECT_EQ(window->testResult()->text(), "「豆包（火山方舟）」还没有保存 API Key，无需修复。");

    keychain.saveAPIKey("sk-to-repair", "doubao");
    QTest::mouseClick(buttonTitled(window.get(), "修复钥匙串授权"), Qt::LeftButton);
    EXPECT_EQ(window->testResult()->text(), "已重新写入「豆包（火山方舟）」的 API Key，钥匙串授权已修复。");
    EXPECT_EQ(KeychainStore{keychain.service()}.apiKey("doubao"), "sk-to-repair");
}

TEST_F(SettingsWindowTest, ARefusedAddressOrModelIsNotSavedAndItsFieldIsMarked)
{
    auto window = makeWindow();
    window->present();
    choose(window->modeBox(), "api");
    retype(window->apiKeyField(), "sk-never-saved");

    retype(window->baseURLField(), "https://proxy.example.com/api/v3");
    EXPECT_FALSE(window->save());
    EXPECT_EQ(window->banner()->text(),
              ConfigurationError(ConfigurationError::Kind::editionRestricted).description());
    EXPECT_TRUE(SettingsWindow::isMarked(window->baseURLField()));
    EXPECT_EQ(window->focusWidget(), window->baseURLField());
    EXPECT_EQ(storedKeys(), QStringList());
    EXPECT_FALSE(KeychainStore{keychain.service()}.hasAPIKey("doubao"));

    retype(window->baseURLField(), "http://ark.cn-beijing.volces.com/api/v3");
    EXPECT_FALSE(window->save());
    EXPECT_EQ(window->banner()->text(), "API 地址无效，必须是完整的 https 地址。");
    EXPECT_TRUE(SettingsWindow::isMarked(window->baseURLField()));

    retype(window->baseURLField(), "https://ark.cn-beijing.volces.com/api/v3");
    retype(window->modelField(), "gpt-4o");
    EXPECT_FALSE(window->save());
    EXPECT_FALSE(SettingsWindow::isMarked(window->baseURLField()));
    EXPECT_TRUE(SettingsWindow::isMarked(window->modelField()));
    EXPECT_EQ(window->focusWidget(), window->modelField());
    EXPECT_EQ(storedKeys(), QStringList());

    // Typing into the marked field takes the mark away.
    QTest::keyClicks(window->modelField(), "x");
    EXPECT_FALSE(SettingsWindow::isMarked(window->modelField()));
}

TEST_F(SettingsWindowTest, PresentShowsTheBannerFocusesTheFieldAndRaisesTheSameWindow)
{
    auto window = makeWindow();
    window->present("尚未保存所选提供商的 API Key。", SettingsWindow::Tone::warning, ProviderField::apiKey);
    EXPECT_TRUE(window->isVisible());
    EXPECT_TRUE(window->banner()->isVisible());
    EXPECT_EQ(window->banner()->text(), "尚未保存所选提供商的 API Key。");
    EXPECT_EQ(window->focusWidget(), window->apiKeyField());
    EXPECT_TRUE(window->apiKeyField()->isVisible()); // its page is the one showing

    // Presenting the open window again keeps what the user typed.
    retype(window->baseURLField(), "https://typed.example.com");
    window->present("模型名称不被这家服务识别，请检查拼写或换一个模型。", SettingsWindow::Tone::error,
                    ProviderField::model);
    EXPECT_EQ(window->baseURLField()->text(), "https://typed.example.com");
    EXPECT_EQ(window->focusWidget(), window->modelField());
    EXPECT_EQ(window->banner()->text(), "模型名称不被这家服务识别，请检查拼写或换一个模型。");

    // Closed and presented again, it shows the settings as stored, without a stale banner.
    window->close();
    window->present();
    EXPECT_EQ(window->baseURLField()->text(), "https://ark.cn-beijing.volces.com/api/v3");
    EXPECT_FALSE(window->banner()->isVisible());
}

TEST_F(SettingsWindowTest, TheTestRequestShowsTheFirstWordsOfTheAnswer)
{
    server.setFallback(ScriptedResponse::stream(chatStream({"你", "好！有什么要解释的吗？"})));
    auto window = makeWindow(true);
    window->present();
    choose(window->apiProviderBox(), "deepseek");
    retype(window->baseURLField(), server.url().toString());
    retype(window->apiKeyField(), "sk-typed-not-saved");

    QTest::mouseClick(window->testButton(), Qt::LeftButton);
    EXPECT_FALSE(window->testButton()->isEnabled());
    ASSERT_TRUE(waitUntil([&] { return !window->isTesting(); }, 10000));
    EXPECT_EQ(window->testResult()->text(), "连接成功，模型回复：“你好！有什么要解释的吗？”");
    EXPECT_TRUE(window->testButton()->isEnabled());

    ASSERT_EQ(server.requestCount(), 1);
    const auto request = server.requests().at(0);
    EXPECT_EQ(request.target, "/chat/completions");
    EXPECT_EQ(request.header("authorization"), "Bearer sk-typed-not-saved");
    EXPECT_TRUE(request.body.contains("你好"));
    EXPECT_FALSE(KeychainStore{keychain.service()}.hasAPIKey("deepseek")); // testing does not save
}

TEST_F(SettingsWindowTest, ARejectedKeyShowsTheKeyMessageAndFocusesTheKeyField)
{
    server.setFallback(ScriptedResponse::json(
        401,
        R"({"error":{"message":"Authentication Fails, Your api key: ****test is invalid","type":"authentication_error"}})"));
    keychain.saveAPIKey("sk-stored", "deepseek");
    auto window = makeWindow(true);
    window->present();
    choose(window->apiProviderBox(), "deepseek");
    retype(window->baseURLField(), server.url().toString());

    window->testConnection();
    ASSERT_TRUE(waitUntil([&] { return !window->isTesting(); }, 10000));
    EXPECT_TRUE(
        window->testResult()->text().startsWith("API Key 无效或已失效，请重新填写。（设置 → API Key）"));
    EXPECT_TRUE(window->testResult()->text().contains("服务端原文：Authentication Fails"));
    EXPECT_EQ(window->focusWidget(), window->apiKeyField());
    EXPECT_TRUE(SettingsWindow::isMarked(window->apiKeyField()));
    // The stored key was the one sent.
    EXPECT_EQ(server.requests().at(0).header("authorization"), "Bearer sk-stored");
}

TEST_F(SettingsWindowTest, WithoutAKeyNothingIsSentAndTheKeyFieldIsNamed)
{
    auto window = makeWindow(true);
    window->present();
    retype(window->baseURLField(), server.url().toString());
    window->testConnection();
    EXPECT_FALSE(window->isTesting());
    EXPECT_EQ(window->testResult()->text(), "还没有保存所选提供商的 API Key。（设置 → API Key）");
    EXPECT_EQ(window->focusWidget(), window->apiKeyField());
    EXPECT_EQ(server.requestCount(), 0);

    // Under the edition policy a loopback address is refused before anything is sent.
    auto strict = makeWindow(false);
    strict->present();
    retype(strict->baseURLField(), server.url().toString());
    retype(strict->apiKeyField(), "sk-typed");
    strict->testConnection();
    EXPECT_EQ(strict->focusWidget(), strict->baseURLField());
    EXPECT_TRUE(strict->testResult()->text().startsWith(
        ConfigurationError(ConfigurationError::Kind::editionRestricted).description()));
    EXPECT_EQ(server.requestCount(), 0);
}

TEST_F(SettingsWindowTest, TheModelListBecomesTheCompletionsWithItsSentence)
{
    server.setFallback(ScriptedResponse::json(
        200,
        R"({"object":"list","data":[{"id":"deepseek-v4-pro"},{"id":"deepseek-v4-flash"},{"id":"deepseek-embedding-v2"},{"id":"other-model"}]})"));
    auto window = makeWindow(true);
    window->present();
    choose(window->apiProviderBox(), "deepseek");
    retype(window->baseURLField(), server.url().toString());
    retype(window->apiKeyField(), "sk-typed");

    const auto fetched = [&] { return waitUntil([&] { return !window->isFetchingModels(); }, 10000); };

    QTest::mouseClick(window->fetchModelsButton(), Qt::LeftButton);
    ASSERT_TRUE(fetched());
    EXPECT_EQ(window->modelCompletions()->stringList(),
              (QStringList{"deepseek-v4-flash", "deepseek-v4-pro"}));
    EXPECT_EQ(window->modelListResult()->text(), "2 个可用模型");
    EXPECT_EQ(server.requests().at(0).target, "/models");

    retype(window->modelField(), "deepseek-v3-old");
    window->fetchModels();
    ASSERT_TRUE(fetched());
    EXPECT_EQ(window->modelListResult()->text(), "2 个可用模型；当前填的不在其中");

    server.setFallback(ScriptedResponse::json(200, R"({"data":[]})"));
    window->fetchModels();
    ASSERT_TRUE(fetched());
    EXPECT_EQ(window->modelListResult()->text(), "这家服务没有提供模型列表，请手动填写");
}

TEST_F(SettingsWindowTest, TheChromeSectionFollowsTheBridgeAndOffersTheExtensionFolder)
{
    auto window = makeWindow();
    window->present();
    // A fresh home has no host manifest.
    EXPECT_EQ(window->bridgeStatus()->text(), "○ 未连接 · 连接配置需要修复");
    EXPECT_FALSE(window->bridgeAdvice()->text().isEmpty());

    // The host's heartbeat appears while the window is open: the status line follows within seconds.
    RequestStore(directory.filePath("data")).markBridgeActive();
    EXPECT_TRUE(waitUntil([&] { return window->bridgeStatus()->text() == "● Chrome 已连接"; }, 5000));
    EXPECT_EQ(window->bridgeAdvice()->text(), "Chrome 扩展已连接，划词即可发到网页会话。");

    QApplication::clipboard()->clear();
    QTest::mouseClick(buttonTitled(window.get(), "安装扩展"), Qt::LeftButton);
    EXPECT_EQ(QApplication::clipboard()->text(), "chrome://extensions/");
    ASSERT_EQ(opened.size(), 1);
    EXPECT_TRUE(QFile::exists(opened.at(0).toLocalFile() + "/manifest.json"));
    EXPECT_TRUE(window->bridgeMessage()->text().contains(opened.at(0).toLocalFile()));
}

TEST_F(SettingsWindowTest, NothingIsClippedInLightOrDark)
{
    keychain.saveAPIKey("sk-stored", "doubao");
    auto window = makeWindow();
    window->present("免 Key 网页会话可直接使用；配置 API Key 后可启用原生悬浮卡片。",
                    SettingsWindow::Tone::info);
    auto* tabs = window->findChild<QTabWidget*>();
    ASSERT_NE(tabs, nullptr);
    for (int page = 0; page < tabs->count(); ++page) {
        tabs->setCurrentIndex(page);
        EXPECT_EQ(test::clippedInEitherAppearance(window.get(), page == 0 ? "settings-general" : "settings-api"),
                  QStringList())
            << "page " << page;
    }
    // A refused save, as the user sees it.
    retype(window->baseURLField(), "https://proxy.example.com/v1");
    window->save();
    EXPECT_EQ(test::clippedInEitherAppearance(window.get(), "settings-refused"), QStringList());
}
