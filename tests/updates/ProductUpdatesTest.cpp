#include "updates/ProductUpdates.h"

#include "config/ProviderCatalog.h"
#include "support/LoopbackHttpServer.h"
#include "updates/ProductRelease.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace velnora;
using velnora::test::LoopbackHttpServer;
using velnora::test::ScriptedResponse;
using velnora::test::waitUntil;

namespace {

const char* const otherEditionID = "dgldcbgpnkooljhfhcjpkojcdnfkepnb";

QJsonObject manifestObject(const QString& chromeVersion = QStringLiteral("2.11.1"),
                           const QString& minimum = QStringLiteral("2.11.0"))
{
    return QJsonObject{
        {"edition", "domestic"},
        {"macos", QJsonObject{{"version", "2.11.0"}, {"url", "/downloads/app.dmg"}}},
        {"chrome", QJsonObject{{"version", chromeVersion},
                               {"url", "/downloads/ext.zip"},
                               {"extensionID", ExplainerConstants::extensionIdentifier()}}},
        {"minimumExtensionVersion", minimum},
    };
}

QByteArray json(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QJsonObject withAsset(QJsonObject manifest, const char* asset, const char* key, const QJsonValue& value)
{
    QJsonObject entry = manifest.value(QLatin1String(asset)).toObject();
    if (value.isUndefined()) {
        entry.remove(QLatin1String(key));
    } else {
        entry.insert(QLatin1String(key), value);
    }
    manifest.insert(QLatin1String(asset), entry);
    return manifest;
}

std::optional<ReleaseError::Kind> refusal(const QByteArray& data)
{
    try {
        ProductRelease::decode(data);
        return std::nullopt;
    } catch (const ReleaseError& error) {
        return error.kind();
    }
}

// A manifest padded with trailing white space to exactly `size` bytes.
QByteArray paddedManifest(qsizetype size)
{
    QByteArray body = json(manifestObject());
    body.append(QByteArray(size - body.size(), ' '));
    return body;
}

} // namespace

TEST(ProductReleaseDecode, AcceptsTheManifestOfThisEditionAndReadsEveryField)
{
    QJsonObject object = manifestObject();
    object.insert("linux", QJsonObject{{"version", "2.12.0"}, {"url", "/downloads/velnora.deb"}});
    const ProductRelease::Manifest manifest = ProductRelease::decode(json(object));
    EXPECT_EQ(manifest.edition, "domestic");
    EXPECT_EQ(manifest.macos.url, "/downloads/app.dmg");
    EXPECT_FALSE(manifest.macos.extensionID.has_value());
    EXPECT_EQ(manifest.chrome.version, "2.11.1");
    EXPECT_EQ(manifest.chrome.extensionID, ExplainerConstants::extensionIdentifier());
    EXPECT_EQ(manifest.minimumExtensionVersion, "2.11.0");
    ASSERT_TRUE(manifest.linuxAsset.has_value());
    EXPECT_EQ(manifest.linuxAsset->version, "2.12.0");
}

TEST(ProductReleaseDecode, RefusesAnotherEditionOrExtension)
{
    QJsonObject international = manifestObject();
    international.insert("edition", "international");
    EXPECT_EQ(refusal(json(international)), ReleaseError::Kind::cannotParseResponse);
    QJsonObject capitalised = manifestObject();
    capitalised.insert("edition", "Domestic");
    EXPECT_EQ(refusal(json(capitalised)), ReleaseError::Kind::cannotParseResponse);

    EXPECT_EQ(refusal(json(withAsset(manifestObject(), "chrome", "extensionID", QJsonValue::Undefined))),
              ReleaseError::Kind::cannotParseResponse);
    EXPECT_EQ(refusal(json(withAsset(manifestObject(), "chrome", "extensionID", otherEditionID))),
              ReleaseError::Kind::cannotParseResponse);
    EXPECT_EQ(refusal(json(withAsset(manifestObject(), "chrome", "extensionID", QJsonValue::Null))),
              ReleaseError::Kind::cannotParseResponse);
}

TEST(ProductReleaseDecode, AcceptsOnlyPlainPathsUnderDownloads)
{
    for (const char* asset : {"macos", "chrome", "linux"}) {
        QJsonObject base = manifestObject();
        base.insert("linux", QJsonObject{{"version", "2.11.0"}, {"url", "/downloads/velnora.deb"}});
        for (const char* url :
             {"https://velnora.tarnwick.cn/downloads/app.dmg", "//evil.example/downloads/a",
              "/downloads/../etc/passwd", "/downloads/a/..", "/downloads\\app.dmg",
              "/downloads/app.dmg?next=x", "/downloads/app.dmg#top", "/app.dmg", "downloads/app.dmg", ""}) {
            EXPECT_EQ(refusal(json(withAsset(base, asset, "url", QString::fromLatin1(url)))),
                      ReleaseError::Kind::cannotParseResponse)
                << asset << " " << url;
        }
    }
    EXPECT_FALSE(
        refusal(json(withAsset(manifestObject(), "chrome", "url", "/downloads/ext.zip"))).has_value());
    EXPECT_FALSE(
        refusal(json(withAsset(manifestObject(), "macos", "url", "/downloads/app.dmg"))).has_value());
}

TEST(ProductReleaseDecode, ReportsShapeErrorsAsDecodingFailures)
{
    EXPECT_EQ(refusal("not json"), ReleaseError::Kind::decodingFailed);
    EXPECT_EQ(refusal("[1,2]"), ReleaseError::Kind::decodingFailed);
    EXPECT_EQ(refusal(""), ReleaseError::Kind::decodingFailed);
    QJsonObject noMacos = manifestObject();
    noMacos.remove("macos");
    EXPECT_EQ(refusal(json(noMacos)), ReleaseError::Kind::decodingFailed);
    EXPECT_EQ(refusal(json(withAsset(manifestObject(), "chrome", "version", 2))),
              ReleaseError::Kind::decodingFailed);
    EXPECT_EQ(refusal(json(withAsset(manifestObject(), "chrome", "extensionID", 7))),
              ReleaseError::Kind::decodingFailed);
    QJsonObject numericMinimum = manifestObject();
    numericMinimum.insert("minimumExtensionVersion", 2.11);
    EXPECT_EQ(refusal(json(numericMinimum)), ReleaseError::Kind::decodingFailed);
}

TEST(ProductReleaseVersions, CompareDigitRunsAsNumbers)
{
    EXPECT_TRUE(ProductRelease::isNewer("2.11.1", "2.9.0"));
    EXPECT_FALSE(ProductRelease::isNewer("2.9.0", "2.11.1"));
    EXPECT_EQ(ProductRelease::compareVersions("2.11.1", "2.11.1"), 0);
    EXPECT_EQ(ProductRelease::compareVersions("2.011.1", "2.11.1"), 0);
    EXPECT_TRUE(ProductRelease::isNewer("2.11.10", "2.11.9"));
    EXPECT_TRUE(ProductRelease::isNewer("2.11.0.1", "2.11.0"));
    EXPECT_TRUE(ProductRelease::isNewer("10.0", "9.99"));
    EXPECT_TRUE(ProductRelease::isNewer("99999999999999999999999.1", "99999999999999999999998.9"));
    EXPECT_LT(ProductRelease::compareVersions("", "1"), 0);
}

TEST(ExtensionSentence, CoversCurrentOutdatedAndTooOldExtensions)
{
    const auto sentence = [](const char* latest, const char* minimum, std::optional<QString> installed) {
        const ProductRelease::Manifest manifest =
            ProductRelease::decode(json(manifestObject(latest, minimum)));
        return ProductUpdates::extensionSentence(manifest, installed);
    };
    EXPECT_EQ(sentence("2.11.1", "2.11.0", QStringLiteral("2.11.1")), "当前扩展 2.11.1，已是最新版本。");
    EXPECT_EQ(sentence("2.11.1", "2.11.0", QStringLiteral("2.12.0")), "当前扩展 2.12.0，已是最新版本。");
    EXPECT_EQ(
        sentence("2.11.1", "2.9.0", QStringLiteral("2.10.0")),
        "当前扩展 2.10.0，可更新至 2.11.1。商店安装由 Chrome 更新；手动加载请按更新指引替换并重新加载。");
    EXPECT_EQ(sentence("2.11.1", "2.11.0", QStringLiteral("2.9.0")),
              "当前扩展 2.9.0，可更新至 2.11.1。此版本需要升级才能完整配合应用。"
              "商店安装由 Chrome 更新；手动加载请按更新指引替换并重新加载。");
    // A minimum above the latest (a manifest mistake) still warns without offering an update.
    EXPECT_EQ(sentence("2.11.1", "2.12.0", QStringLiteral("2.11.1")),
              "当前扩展 2.11.1，已是最新版本。此版本需要升级才能完整配合应用。");
    EXPECT_EQ(sentence("2.11.1", "2.11.0", std::nullopt),
              "最新扩展 2.11.1。尚未收到扩展版本信息，请启动 Chrome；旧扩展可按指引更新后重试。");
}

class ExtensionStatusFile : public ::testing::Test
{
protected:
    static constexpr double now = 1'800'000'000.5;

    void write(const QByteArray& data)
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(data);
    }
    void writeStatus(QJsonObject status) { write(json(status)); }
    QJsonObject status(double updatedAt) const
    {
        return {{"extensionID", ExplainerConstants::extensionIdentifier()},
                {"updatedAt", updatedAt},
                {"version", "2.11.1"}};
    }
    std::optional<QString> read() const { return ProductUpdates::installedExtensionVersion(path, now); }

    QTemporaryDir directory;
    QString path = directory.filePath("extension-status.json");
};

TEST_F(ExtensionStatusFile, IsUsedWhileYoungerThanSixtySeconds)
{
    writeStatus(status(now - 59));
    EXPECT_EQ(read(), "2.11.1");
    writeStatus(status(now - 59.999));
    EXPECT_EQ(read(), "2.11.1");
    writeStatus(status(now - 60));
    EXPECT_FALSE(read().has_value());
    writeStatus(status(now - 3600));
    EXPECT_FALSE(read().has_value());
}

TEST_F(ExtensionStatusFile, IsIgnoredWhenForeignMalformedOrMissing)
{
    EXPECT_FALSE(read().has_value());
    QJsonObject foreign = status(now - 1);
    foreign.insert("extensionID", otherEditionID);
    writeStatus(foreign);
    EXPECT_FALSE(read().has_value());
    QJsonObject textTime = status(now - 1);
    textTime.insert("updatedAt", QString::number(now - 1, 'f', 0));
    writeStatus(textTime);
    EXPECT_FALSE(read().has_value());
    QJsonObject numericVersion = status(now - 1);
    numericVersion.insert("version", 2.11);
    writeStatus(numericVersion);
    EXPECT_FALSE(read().has_value());
    write("{\"extensionID\":");
    EXPECT_FALSE(read().has_value());
    write(QByteArray(200000, ' ') + json(status(now - 1)));
    EXPECT_FALSE(read().has_value());
}

class ExtensionCheck : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.isListening());
        updates.setClock([this] { return clock; });
    }

    QString runExtensionCheck()
    {
        updates.checkExtension();
        EXPECT_TRUE(waitUntil([this] { return !updates.isCheckingExtension(); }));
        return updates.extensionStatus();
    }

    void serveManifest(const QByteArray& body, int status = 200)
    {
        server.setFallback(ScriptedResponse::json(status, body));
    }
    void writeStatus(double updatedAt, const char* version)
    {
        QFile file(statusPath);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(json({{"extensionID", ExplainerConstants::extensionIdentifier()},
                         {"updatedAt", updatedAt},
                         {"version", version}}));
    }

    double clock = 1'800'000'000.0;
    LoopbackHttpServer server;
    QTemporaryDir directory;
    QString statusPath = directory.filePath("extension-status.json");
    ProductUpdates updates{server.url(), statusPath};
};

TEST_F(ExtensionCheck, AsksTheSiteForReleaseJsonAsJson)
{
    serveManifest(json(manifestObject()));
    EXPECT_EQ(updates.extensionStatus(), "点击检查扩展更新，核实当前安装版本。");
    QStringList labels;
    QObject::connect(&updates, &ProductUpdates::extensionStatusChanged,
                     [&](const QString& text) { labels << text; });

    EXPECT_EQ(runExtensionCheck(),
              "最新扩展 2.11.1。尚未收到扩展版本信息，请启动 Chrome；旧扩展可按指引更新后重试。");
    EXPECT_EQ(labels.value(0), "正在检查扩展更新…");
    ASSERT_EQ(server.requestCount(), 1);
    const auto request = server.requests().at(0);
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.target, "/release.json");
    EXPECT_EQ(request.header("accept"), "application/json");
}

// The file's own rules are checked above; this is the check reading it on the injected clock.
TEST_F(ExtensionCheck, ComparesWithTheVersionTheExtensionReported)
{
    serveManifest(json(manifestObject("2.11.1", "2.11.0")));
    writeStatus(clock - 59, "2.9.7");
    EXPECT_EQ(runExtensionCheck(), "当前扩展 2.9.7，可更新至 2.11.1。此版本需要升级才能完整配合应用。"
                                   "商店安装由 Chrome 更新；手动加载请按更新指引替换并重新加载。");
    writeStatus(clock - 60, "2.9.7");
    EXPECT_TRUE(runExtensionCheck().startsWith("最新扩展 2.11.1。尚未收到扩展版本信息"));
}

TEST_F(ExtensionCheck, ReadsABodyJustUnderTheLimitAndRefusesOneAtIt)
{
    serveManifest(paddedManifest(99999));
    EXPECT_EQ(runExtensionCheck().left(8), "最新扩展 2.1");

    serveManifest(paddedManifest(100000));
    EXPECT_EQ(runExtensionCheck(), ProductUpdates::failureStatus());
}

// Which manifests decode is checked above; one refused manifest shows a refusal reaches the label.
TEST_F(ExtensionCheck, RefusesEverythingButAValidManifestWithStatus200)
{
    QJsonObject international = manifestObject();
    international.insert("edition", "international");
    const struct {
        QByteArray body;
        int status;
    } cases[] = {{json(manifestObject()), 201}, {json(manifestObject()), 404}, {json(manifestObject()), 500},
                 {{}, 200},                     {"<html>维护中</html>", 200},  {json(international), 200}};
    for (const auto& [body, status] : cases) {
        serveManifest(body, status);
        EXPECT_EQ(runExtensionCheck(), ProductUpdates::failureStatus()) << status << " " << body.left(20).constData();
    }
}

TEST_F(ExtensionCheck, FollowsARedirectOnTheSiteButNotToAnotherHost)
{
    serveManifest(json(manifestObject()));

    // "localhost" is the same machine under another host name: the manifest arrives, and is refused.
    server.enqueue(ScriptedResponse::redirect(302, "http://localhost:" + QByteArray::number(server.port()) +
                                                       "/release.json"));
    EXPECT_EQ(runExtensionCheck(), ProductUpdates::failureStatus());
    ASSERT_EQ(server.requestCount(), 2);
    EXPECT_TRUE(server.requests().at(1).header("host").value_or("").startsWith("localhost:"));

    server.enqueue(ScriptedResponse::redirect(302, server.url("/moved/release.json").toEncoded()));
    EXPECT_EQ(runExtensionCheck().left(4), "最新扩展");
    EXPECT_EQ(server.requests().last().target, "/moved/release.json");
}

TEST_F(ExtensionCheck, RunsOneCheckAtATime)
{
    serveManifest(json(manifestObject()));
    QList<bool> busy;
    QObject::connect(&updates, &ProductUpdates::extensionCheckingChanged,
                     [&](bool checking) { busy << checking; });
    updates.checkExtension();
    updates.checkExtension();
    EXPECT_TRUE(updates.isCheckingExtension());
    ASSERT_TRUE(waitUntil([this] { return !updates.isCheckingExtension(); }));
    EXPECT_EQ(server.requestCount(), 1);
    EXPECT_EQ(busy, (QList<bool>{true, false}));
}

TEST(ExtensionCheckTransport, ReportsAClosedPortAsTheNetworkSentence)
{
    quint16 closedPort = 0;
    {
        LoopbackHttpServer gone;
        closedPort = gone.port();
    }
    QTemporaryDir directory;
    ProductUpdates updates{QUrl(QStringLiteral("http://127.0.0.1:%1").arg(closedPort)),
                           directory.filePath("extension-status.json")};
    updates.checkExtension();
    ASSERT_TRUE(waitUntil([&] { return !updates.isCheckingExtension(); }));
    EXPECT_EQ(updates.extensionStatus(), "暂时无法检查更新，请检查网络后重试。");
}

TEST_F(ExtensionCheck, ApplicationCheckOffersOnlyANewerLinuxBuild)
{
    const auto runApplicationCheck = [this] {
        updates.checkApplication();
        EXPECT_TRUE(waitUntil([this] { return !updates.isCheckingApplication(); }));
        return updates.applicationStatus();
    };
    serveManifest(json(manifestObject()));
    EXPECT_EQ(runApplicationCheck(), "澜镜 " + ProductRelease::version() + " 已是最新版本。");
    EXPECT_FALSE(updates.downloadURL().has_value());

    QJsonObject newer = manifestObject();
    newer.insert("linux", QJsonObject{{"version", "99.0.0"}, {"url", "/downloads/velnora_99.0.0_amd64.deb"}});
    serveManifest(json(newer));
    EXPECT_EQ(runApplicationCheck(),
              "发现新版本 99.0.0（当前 " + ProductRelease::version() + "），可前往官网下载安装。");
    ASSERT_TRUE(updates.downloadURL().has_value());
    EXPECT_EQ(*updates.downloadURL(), server.url("/downloads/velnora_99.0.0_amd64.deb"));

    QJsonObject same = manifestObject();
    same.insert("linux",
                QJsonObject{{"version", ProductRelease::version()}, {"url", "/downloads/velnora.deb"}});
    serveManifest(json(same));
    EXPECT_EQ(runApplicationCheck(), "澜镜 " + ProductRelease::version() + " 已是最新版本。");
    EXPECT_FALSE(updates.downloadURL().has_value());

    serveManifest({}, 503);
    EXPECT_EQ(runApplicationCheck(), ProductUpdates::failureStatus());
}
