// The settings window against the real secret store of the private session (gnome-keyring), and the
// About window; both against a loopback server. The widgets draw offscreen: these tests need the
// session's keyring, not its display.
#include "WindowShots.h"
#include "app/AboutWindow.h"
#include "app/LaunchAtLogin.h"
#include "app/settings/BrowserConnectionSection.h"
#include "app/settings/FieldMarks.h"
#include "app/settings/SettingsWindow.h"
#include "bridge/PageSelfCheck.h"
#include "config/ConfigurationError.h"
#include "config/ConfigurationStore.h"
#include "config/KeychainStore.h"
#include "config/PromptLibrary.h"
#include "config/ProviderCatalog.h"
#include "config/SecretServiceBackend.h"
#include "llm/ProviderDiagnostics.h"
#include "support/LoopbackHttpServer.h"
#include "support/TestEnvironment.h"
#include "updates/ProductRelease.h"
#include "updates/ProductUpdates.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSettings>
#include <QSignalSpy>
#include <QTabWidget>
#include <QTest>
#include <QTimer>
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
    // The window deletes itself when closed; the pointer follows it.
    QPointer<SettingsWindow> makeWindow(bool loopbackAllowed = false)
    {
        auto collaborators = SettingsWindow::Collaborators::standard(&configuration, &keychain);
        collaborators.requestStore = RequestStore(directory.filePath("data"));
        if (loopbackAllowed) {
            collaborators.addressPolicy = {};
        }
        QPointer<SettingsWindow> window = new SettingsWindow(std::move(collaborators));
        window->present();
        windows.append(window);
        // The stored-key check runs off the main thread; the form is ready once it answered.
        EXPECT_TRUE(test::waitUntil([&] { return !window->isBusy(); }, 10000));
        return window;
    }

    void TearDown() override
    {
        for (const QPointer<SettingsWindow>& window : windows) {
            delete window.data();
        }
    }

    // Saves and waits until the key, stored off the main thread, is written.
    bool save(SettingsWindow* window)
    {
        const bool accepted = window->save();
        EXPECT_TRUE(test::waitUntil([&] { return !window->isBusy(); }, 10000));
        return accepted;
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

    QList<QPointer<SettingsWindow>> windows;
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
    ApiSettingsPage* api = window->apiPage();
    EXPECT_TRUE(save(window));
    EXPECT_EQ(storedKeys(), QStringList());
    EXPECT_EQ(window->statusLine()->text(), "设置已保存。");

    choose(window->generalPage()->modeBox(), "api");
    choose(api->providerBox(), "deepseek");
    choose(window->generalPage()->depthBox(), "deep");
    api->modelBox()->setCurrentText(" deepseek-v4-pro ");
    retype(api->apiKeyField(), "  sk-first-key ");
    // Edits of another service survive switching to it and back, and are saved together.
    choose(api->providerBox(), "kimi");
    EXPECT_EQ(api->apiKeyField()->text(), "");
    api->modelBox()->setCurrentText("kimi-k2-turbo-preview");
    choose(api->providerBox(), "deepseek");
    EXPECT_EQ(api->apiKeyField()->text(), "  sk-first-key ");
    // When the change is announced, everything but the key (written off the main thread) is stored.
    std::optional<ProviderOverride> seenOverride;
    QObject::connect(&configuration, &ConfigurationStore::configurationDidChange,
                     [&] { seenOverride = configuration.providerOverride("deepseek"); });
    ASSERT_TRUE(save(window));
    EXPECT_EQ(configuration.executionMode(), ExecutionMode::api);
    EXPECT_EQ(configuration.explanationDepth(), ExplanationDepth::deep);
    EXPECT_EQ(configuration.apiProviderID(), "deepseek");
    EXPECT_EQ(seenOverride, (ProviderOverride{"", "deepseek-v4-pro"}));
    EXPECT_EQ(configuration.providerOverride("kimi"), (ProviderOverride{"", "kimi-k2-turbo-preview"}));
    EXPECT_EQ(storedKey("deepseek"), "sk-first-key");
    EXPECT_FALSE(window->isModified());

    // Back to the default models: the entries go away instead of repeating them; the untouched key stays.
    api->modelBox()->setCurrentText(ProviderDefinition::definition("deepseek").defaultModel);
    choose(api->providerBox(), "kimi");
    api->modelBox()->setCurrentText(ProviderDefinition::definition("kimi").defaultModel);
    choose(api->providerBox(), "deepseek");
    ASSERT_TRUE(save(window));
    EXPECT_TRUE(configuration.providerOverrides().isEmpty());
    EXPECT_EQ(storedKey("deepseek"), "sk-first-key");

    retype(api->apiKeyField(), "");
    ASSERT_TRUE(save(window));
    EXPECT_EQ(storedKey("deepseek"), std::nullopt);

    // An open window follows the tray menu, except where the user changed a choice.
    configuration.setExecutionMode(ExecutionMode::browser);
    EXPECT_EQ(window->generalPage()->modeBox()->currentData(), "browser");
    EXPECT_FALSE(window->isModified());
    choose(window->generalPage()->depthBox(), "fast");
    configuration.setExplanationDepth(ExplanationDepth::balanced);
    EXPECT_EQ(window->generalPage()->depthBox()->currentData(), "fast");
    ASSERT_TRUE(save(window));
    EXPECT_EQ(configuration.explanationDepth(), ExplanationDepth::fast);
    EXPECT_EQ(configuration.executionMode(), ExecutionMode::browser);
}

TEST_F(WindowsTest, ARefusedAddressOrModelSavesNothingAndMarksItsField)
{
    auto window = makeWindow();
    ApiSettingsPage* api = window->apiPage();
    choose(window->generalPage()->modeBox(), "api");
    retype(api->apiKeyField(), "sk-never-saved");
    const QString restricted = ConfigurationError(ConfigurationError::Kind::editionRestricted).description();
    const struct
    {
        const char* address;
        const char* model;
        QString message;
        QWidget* marked;
    } cases[] = {
        {"https://proxy.example.com/api/v3", nullptr, restricted, api->baseURLField()},
        {"http://ark.cn-beijing.volces.com/api/v3", nullptr, "API 地址无效，必须是完整的 https 地址。",
         api->baseURLField()},
        {"https://ark.cn-beijing.volces.com/api/v3", "gpt-4o", restricted, api->modelBox()},
    };
    for (const auto& refused : cases) {
        window->tabs()->setCurrentIndex(0); // the window turns to the refusing page itself
        retype(api->baseURLField(), refused.address);
        if (refused.model) {
            api->modelBox()->setCurrentText(refused.model);
        }
        EXPECT_FALSE(save(window)) << refused.address;
        EXPECT_EQ(window->statusLine()->text(), refused.message);
        EXPECT_EQ(window->tabs()->currentWidget(), api);
        EXPECT_TRUE(FieldMarks::isMarked(refused.marked));
        EXPECT_TRUE(refused.marked->isAncestorOf(window->focusWidget()) ||
                    window->focusWidget() == refused.marked);
        EXPECT_EQ(storedKeys(), QStringList());
        EXPECT_EQ(storedKey("doubao"), std::nullopt);
    }
    EXPECT_FALSE(FieldMarks::isMarked(api->baseURLField()));

    // A key pasted with an invisible character is refused with that character named, not stored.
    retype(api->baseURLField(), "https://ark.cn-beijing.volces.com/api/v3");
    api->modelBox()->setCurrentText("doubao-seed-1-6-250615");
    retype(api->apiKeyField(), "sk-abc");
    api->apiKeyField()->insert(QString(QChar(0x200B)) + "def"); // what a paste does
    EXPECT_FALSE(save(window));
    EXPECT_TRUE(window->statusLine()->text().contains("U+200B"))
        << window->statusLine()->text().toStdString();
    EXPECT_TRUE(FieldMarks::isMarked(api->apiKeyField()));
    EXPECT_EQ(storedKey("doubao"), std::nullopt);
    retype(api->apiKeyField(), "sk-never-saved");

    // A refused service the user switched away from is brought back to be fixed.
    retype(api->baseURLField(), "https://proxy.example.com/api/v3");
    api->modelBox()->setCurrentText("doubao-seed-1-6-250615");
    choose(api->providerBox(), "kimi");
    EXPECT_FALSE(save(window));
    EXPECT_EQ(api->providerBox()->currentData(), "doubao");
    EXPECT_TRUE(FieldMarks::isMarked(api->baseURLField()));

    // The refused form, as the user sees it, fits on every page.
    for (int page = 0; page < window->tabs()->count(); ++page) {
        window->tabs()->setCurrentIndex(page);
        EXPECT_EQ(test::clippedInEitherAppearance(window), QStringList());
    }
}

// Both service buttons use what the form shows, saved or not, and save nothing.
TEST_F(WindowsTest, TheTestRequestNamesAMissingOrRejectedKeyAndTheModelListShowsEveryModel)
{
    auto window = makeWindow(true);
    ApiSettingsPage* api = window->apiPage();
    choose(api->providerBox(), "deepseek");
    retype(api->baseURLField(), server.url().toString());
    api->testConnection();
    ASSERT_TRUE(test::waitUntil([&] { return !window->isBusy(); }, 10000));
    EXPECT_EQ(api->testResult()->text(), "还没有保存所选提供商的 API Key。（设置 → API Key）");
    EXPECT_EQ(window->focusWidget(), api->apiKeyField());
    EXPECT_EQ(server.requestCount(), 0);

    retype(api->apiKeyField(), "sk-typed-not-saved");
    server.enqueue(ScriptedResponse::json(
        401,
        R"({"error":{"message":"Authentication Fails, Your api key is invalid","type":"authentication_error"}})"));
    api->testConnection();
    ASSERT_TRUE(test::waitUntil([&] { return !window->isBusy(); }, 10000));
    EXPECT_TRUE(api->testResult()->text().startsWith("API Key 无效或已失效，请重新填写。（设置 → API Key）"));
    EXPECT_TRUE(api->testResult()->text().contains("服务端原文：Authentication Fails"));
    EXPECT_EQ(window->focusWidget(), api->apiKeyField());
    EXPECT_TRUE(FieldMarks::isMarked(api->apiKeyField()));
    EXPECT_EQ(server.requests().at(0).header("authorization"), "Bearer sk-typed-not-saved");

    const QStringList models{"deepseek-chat", "deepseek-coder", "deepseek-reasoner", "deepseek-v4-flash",
                             "deepseek-v4-pro"};
    QJsonArray data;
    for (const QString& model : models) {
        data.append(QJsonObject{{"id", model}});
    }
    server.enqueue(ScriptedResponse::json(200, QJsonDocument(QJsonObject{{"data", data}}).toJson()));
    api->fetchModels();
    ASSERT_TRUE(test::waitUntil([&] { return !window->isBusy(); }, 10000));
    EXPECT_EQ(api->modelListResult()->text(), "5 个可用模型");
    QStringList shown;
    for (int index = 0; index < api->modelBox()->count(); ++index) {
        shown << api->modelBox()->itemText(index);
    }
    EXPECT_EQ(shown, models);
    EXPECT_EQ(storedKey("deepseek"), std::nullopt);
    // A later result replaces the earlier one instead of standing beside it.
    api->testConnection();
    EXPECT_EQ(api->modelListResult()->text(), "");
}

TEST_F(WindowsTest, TheKeyboardSavesClosesAndMovesAsTheScreenReads)
{
    auto window = makeWindow();
    ApiSettingsPage* api = window->apiPage();
    window->tabs()->setCurrentWidget(api);
    EXPECT_EQ(window->closeButton()->nextInFocusChain(), window->saveButton());
    // Every labelled field can be reached with Alt and its letter.
    for (QLabel* label : window->findChildren<QLabel*>()) {
        if (label->buddy()) {
            EXPECT_TRUE(label->text().contains('&')) << label->text().toStdString();
        }
    }

    api->modelBox()->setCurrentText("doubao-seed-2-0-pro-260215");
    QTest::keyClick(api->modelBox()->lineEdit(), Qt::Key_Return);
    EXPECT_EQ(configuration.providerOverride("doubao"), (ProviderOverride{"", "doubao-seed-2-0-pro-260215"}));
    QTest::keyClick(api->baseURLField(), Qt::Key_Enter);
    EXPECT_EQ(window->statusLine()->text(), "设置已保存。");
    // Enter in the prompt is a new line, not a save.
    api->systemPromptField()->setFocus();
    QTest::keyClick(api->systemPromptField(), Qt::Key_Return);
    QTest::keyClicks(api->systemPromptField(), "Be brief.");
    EXPECT_TRUE(window->isModified());

    // Escape with unsaved edits asks first: 取消 keeps the window, 不保存 closes it and writes nothing.
    const struct
    {
        const char* answer;
        bool closes;
    } answers[] = {{"取消", false}, {"不保存", true}};
    for (const auto& answer : answers) {
        QTimer::singleShot(0, [&] {
            auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            ASSERT_NE(box, nullptr);
            for (QAbstractButton* button : box->buttons()) {
                if (button->text() == answer.answer) {
                    button->click();
                }
            }
        });
        QTest::keyClick(api->systemPromptField(), Qt::Key_Escape);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        EXPECT_EQ(window.isNull(), answer.closes) << answer.answer;
    }
    EXPECT_EQ(configuration.systemPrompt(), PromptLibrary::defaultSystemPrompt());

    // Without edits Escape just closes.
    auto clean = makeWindow();
    QTest::keyClick(clean->apiPage()->baseURLField(), Qt::Key_Escape);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_TRUE(clean.isNull());
}

// Closing right after saving waits for the key's write; a failed write keeps the window and the key.
TEST_F(WindowsTest, AKeyOnItsWayToTheKeyringIsNeitherLostNorClosedAway)
{
    const struct
    {
        int32_t addStatus;
        bool closes;
    } cases[] = {{KeychainError::timedOut, false}, {0, true}};
    for (const auto& c : cases) {
        keychain.addItem = [status = c.addStatus](const KeychainItem& item) {
            return status != 0 ? status : SecretServiceBackend::addItem(item);
        };
        auto window = makeWindow();
        ApiSettingsPage* api = window->apiPage();
        choose(api->providerBox(), "qwen");
        retype(api->apiKeyField(), "sk-on-its-way");
        ASSERT_TRUE(window->save());
        window->close();
        EXPECT_FALSE(window.isNull());
        ASSERT_TRUE(test::waitUntil([&] { return window.isNull() || !window->isWriting(); }, 10000));
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        EXPECT_EQ(window.isNull(), c.closes) << c.addStatus;
        if (!c.closes) {
            EXPECT_EQ(window->statusLine()->text(),
                      "其他设置已保存，但「" + ProviderDefinition::definition("qwen").title +
                          "」的 API Key 没有保存成功：" +
                          ProviderDiagnostics::diagnose(KeychainError(KeychainError::timedOut)).summary);
            EXPECT_EQ(api->apiKeyField()->text(), "sk-on-its-way");
            EXPECT_TRUE(window->isModified());
        }
        EXPECT_EQ(storedKey("qwen"), c.closes ? std::optional<QString>("sk-on-its-way") : std::nullopt);
    }
    keychain.saveAPIKey("", "qwen");
}

TEST_F(WindowsTest, LaunchAtLoginIsSwitchedFromTheWindow)
{
    test::TemporaryHome home;
    auto window = makeWindow();
    QCheckBox* box = window->generalPage()->launchAtLoginBox();
    EXPECT_FALSE(box->isChecked());
    QSignalSpy announced(window.data(), &SettingsWindow::launchAtLoginChanged);
    box->click();
    EXPECT_TRUE(LaunchAtLogin::isEnabled());
    box->click();
    EXPECT_FALSE(LaunchAtLogin::isEnabled());
    EXPECT_EQ(announced.count(), 2);
    EXPECT_EQ(announced.at(0).at(0), true);
}

// The download is offered only for a newer build; what the site and the extension wrote stays plain text.
TEST_F(WindowsTest, TheAboutWindowOffersOnlyANewerBuildAndShowsWhatOthersWroteAsPlainText)
{
    const QString statusPath = directory.filePath("extension-status.json");
    const QString markup = R"(<b>2.0</b><img src="file:///etc/hostname">)";
    QFile status(statusPath);
    ASSERT_TRUE(status.open(QIODevice::WriteOnly));
    status.write(QJsonDocument(QJsonObject{{"extensionID", ExplainerConstants::extensionIdentifier()},
                                           {"updatedAt", QDateTime::currentSecsSinceEpoch() * 1.0},
                                           {"version", markup}})
                     .toJson());
    status.close();
    ProductUpdates updates{server.url(), statusPath};
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

    ASSERT_TRUE(check(window.checkExtensionButton()));
    EXPECT_TRUE(window.extensionStatusLabel()->text().startsWith("当前扩展 " + markup));
    for (QLabel* label : {window.extensionStatusLabel(), window.applicationStatusLabel()}) {
        EXPECT_EQ(label->textFormat(), Qt::PlainText) << label->text().toStdString();
    }
}

// "检测网页" checks the service shown in the window, saved or not, and reports the page's answer as
// the host hands it over; with no extension connected it says so at once instead of waiting.
TEST_F(WindowsTest, ThePageCheckAsksAboutTheShownServiceAndReportsTheAnswer)
{
    auto window = makeWindow();
    GeneralSettingsPage* general = window->generalPage();
    BrowserConnectionSection* browser = general->browserSection();
    const RequestStore store(directory.filePath("data"));

    browser->pageCheckButton()->click();
    EXPECT_EQ(browser->messageLine()->text(), "浏览器扩展还没有连接，请先点「修复连接」，再检测网页。");
    EXPECT_TRUE(browser->pageCheckButton()->isEnabled());
    EXPECT_TRUE(store.pendingRequests().empty());

    store.ensureDirectories();
    store.markBridgeActive();
    choose(general->browserProviderBox(), "kimi");
    browser->pageCheckButton()->click();
    EXPECT_FALSE(browser->pageCheckButton()->isEnabled());
    const std::vector<RequestStore::Pending> pending = store.pendingRequests();
    ASSERT_EQ(pending.size(), 1u);
    EXPECT_EQ(pending[0].request.type, BridgeRequestType::checkPage);
    EXPECT_EQ(pending[0].request.provider, "kimi");
    EXPECT_EQ(pending[0].request.text, std::nullopt); // nothing that could be typed into the page

    QJsonObject answer{{"reachable", true}, {"signInPage", false}, {"input", true}, {"submit", true}};
    answer.insert("requestId", pending[0].request.id);
    answer.insert("signedIn", false);
    ASSERT_TRUE(PageSelfCheck::recordResult(store, answer));
    ASSERT_TRUE(test::waitUntil([&] { return browser->pageCheckButton()->isEnabled(); }, 5000));
    EXPECT_TRUE(browser->messageLine()->text().startsWith("Kimi"));
    EXPECT_TRUE(browser->messageLine()->text().contains("还没有登录"));
    EXPECT_EQ(browser->messageLine()->tone(), Tone::warning);
}

// Results fit in the light and the dark look and come and go without moving the form; VELNORA_SHOT_DIR
// keeps the pictures for a person to look at.
TEST_F(WindowsTest, ResultsFitAndNeverMoveTheFormInEitherLook)
{
    auto window = makeWindow();
    ApiSettingsPage* api = window->apiPage();
    GeneralSettingsPage* general = window->generalPage();
    const auto positions = [&] {
        QList<QPoint> points;
        for (QWidget* widget :
             {static_cast<QWidget*>(api->testButton()), static_cast<QWidget*>(api->systemPromptField()),
              static_cast<QWidget*>(general->launchAtLoginBox()),
              static_cast<QWidget*>(general->browserSection()),
              static_cast<QWidget*>(window->saveButton())}) {
            if (widget->isVisible()) { // the shown tab; a grab lays out the hidden one as well
                points << widget->mapTo(window, QPoint(0, 0));
            }
        }
        return points;
    };
    // Wrapped lines learn their width from the first layout: let it settle as it does on screen.
    const auto settle = [&] {
        for (int pass = 0; pass < 3; ++pass) {
            window->layout()->activate();
            QCoreApplication::processEvents();
        }
    };
    for (int page = 0; page < window->tabs()->count(); ++page) {
        window->tabs()->setCurrentIndex(page);
        api->modelListResult()->showMessage("5 个可用模型", Tone::success);
        api->testResult()->showMessage("连接成功，模型回复：“你好”", Tone::success);
        general->hotKeySection()->resultLine()->showMessage(
            "快捷键 Ctrl+Alt+E 已被其他应用占用，请在菜单栏中更换。", Tone::error);
        window->statusLine()->showMessage("设置已保存。", Tone::success);
        ASSERT_EQ(test::clippedInEitherAppearance(window, QStringLiteral("settings-%1").arg(page)),
                  QStringList());
        settle();
        const QList<QPoint> shown = positions();
        for (ResultLine* line : {api->modelListResult(), api->testResult(),
                                 general->hotKeySection()->resultLine(), window->statusLine()}) {
            line->clearMessage();
        }
        settle();
        EXPECT_EQ(positions(), shown) << "page " << page;
    }
}
