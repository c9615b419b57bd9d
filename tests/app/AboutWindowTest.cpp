#include "app/AboutWindow.h"

#include "WindowShots.h"
#include "config/ProviderCatalog.h"
#include "support/LoopbackHttpServer.h"
#include "updates/ProductRelease.h"
#include "updates/ProductUpdates.h"

#include <QApplication>
#include <QDateTime>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>
#include <gtest/gtest.h>

using namespace velnora;
using velnora::test::LoopbackHttpServer;
using velnora::test::ScriptedResponse;
using velnora::test::waitUntil;

namespace {

QByteArray manifest(const char* chromeVersion, std::optional<const char*> linuxVersion = std::nullopt)
{
    QJsonObject root{
        {"edition", "domestic"},
        {"macos", QJsonObject{{"version", "2.11.0"}, {"url", "/downloads/app.dmg"}}},
        {"chrome", QJsonObject{{"version", chromeVersion},
                               {"url", "/downloads/ext.zip"},
                               {"extensionID", ExplainerConstants::extensionIdentifier()}}},
        {"minimumExtensionVersion", "2.11.0"},
    };
    if (linuxVersion) {
        root.insert("linux", QJsonObject{{"version", *linuxVersion}, {"url", "/downloads/velnora.deb"}});
    }
    return QJsonDocument(root).toJson();
}

class AboutWindowTest : public ::testing::Test
{
protected:
    void writeExtensionStatus(const char* version)
    {
        QFile file(statusPath);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QJsonDocument(QJsonObject{{"extensionID", ExplainerConstants::extensionIdentifier()},
                                             {"updatedAt", double(QDateTime::currentSecsSinceEpoch())},
                                             {"version", version}})
                       .toJson());
    }

    LoopbackHttpServer server;
    QTemporaryDir directory;
    QString statusPath = directory.filePath("extension-status.json");
    ProductUpdates updates{server.url(), statusPath};
    AboutWindow window{&updates};
};

} // namespace

TEST_F(AboutWindowTest, ShowsTheVersionAndNoDownloadBeforeACheck)
{
    window.present();
    const QStringList texts = [this] {
        QStringList all;
        for (const QLabel* label : window.findChildren<QLabel*>()) {
            all << label->text();
        }
        return all;
    }();
    EXPECT_TRUE(texts.contains("澜镜"));
    EXPECT_TRUE(
        texts.contains("版本 " + ProductRelease::version() + "（构建 " + ProductRelease::build() + "）"));
    EXPECT_FALSE(window.downloadButton()->isVisibleTo(&window));
}

TEST_F(AboutWindowTest, ExtensionButtonRunsTheCheckAndIsDisabledMeanwhile)
{
    writeExtensionStatus("2.9.0");
    server.setFallback(ScriptedResponse::json(200, manifest("2.11.1")));
    window.present();
    QTest::mouseClick(window.checkExtensionButton(), Qt::LeftButton);
    EXPECT_FALSE(window.checkExtensionButton()->isEnabled());
    EXPECT_EQ(window.extensionStatusLabel()->text(), "正在检查扩展更新…");
    ASSERT_TRUE(waitUntil([this] { return window.checkExtensionButton()->isEnabled(); }));
    // The sentences themselves are checked with ProductUpdates; this one shows the status file was read.
    EXPECT_TRUE(window.extensionStatusLabel()->text().startsWith("当前扩展 2.9.0，可更新至 2.11.1。"));
}

TEST_F(AboutWindowTest, ApplicationButtonOffersTheDownloadOnlyForANewerBuild)
{
    server.setFallback(ScriptedResponse::json(200, manifest("2.11.1", "99.1.0")));
    window.present();
    QTest::mouseClick(window.checkApplicationButton(), Qt::LeftButton);
    ASSERT_TRUE(waitUntil([this] { return window.checkApplicationButton()->isEnabled(); }));
    EXPECT_TRUE(window.downloadButton()->isVisibleTo(&window));
    EXPECT_TRUE(window.applicationStatusLabel()->text().startsWith("发现新版本 99.1.0"));

    server.setFallback(ScriptedResponse::json(200, manifest("2.11.1")));
    QTest::mouseClick(window.checkApplicationButton(), Qt::LeftButton);
    ASSERT_TRUE(waitUntil([this] { return window.checkApplicationButton()->isEnabled(); }));
    EXPECT_FALSE(window.downloadButton()->isVisibleTo(&window));
    EXPECT_EQ(window.applicationStatusLabel()->text(),
              "澜镜 " + ProductRelease::version() + " 已是最新版本。");
}

TEST_F(AboutWindowTest, NothingIsClippedInLightOrDark)
{
    writeExtensionStatus("2.9.0");
    server.setFallback(ScriptedResponse::json(200, manifest("2.11.1", "99.1.0")));
    window.present();
    updates.checkExtension();
    updates.checkApplication();
    ASSERT_TRUE(
        waitUntil([this] { return !updates.isCheckingExtension() && !updates.isCheckingApplication(); }));
    EXPECT_EQ(test::clippedInEitherAppearance(&window, "about"), QStringList());
}
