#include "updates/ProductUpdates.h"

#include "config/ProviderCatalog.h"
#include "support/LoopbackHttpServer.h"
#include "support/TestEnvironment.h"
#include "updates/ProductRelease.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace velnora;
using velnora::test::LoopbackHttpServer;
using velnora::test::ScriptedResponse;
using velnora::test::waitUntil;

namespace {

const char* const otherEditionID = "dgldcbgpnkooljhfhcjpkojcdnfkepnb";
const QString failure = "暂时无法检查更新，请检查网络后重试。";
const QString notReported =
    "最新扩展 2.11.1。尚未收到扩展版本信息，请启动 Chrome；旧扩展可按指引更新后重试。";
const QString howToUpdate = "商店安装由 Chrome 更新；手动加载请按更新指引替换并重新加载。";

// A Debian architecture this build is not made for.
QByteArray otherArchitecture()
{
    return ProductRelease::architecture() == u"arm64" ? "amd64" : "arm64";
}

const QByteArray linuxPackages = R"({"ARCH":{"version":"2.10.0","url":"/downloads/velnora.deb"},)"
                                 R"("OTHER":{"version":"2.10.0","url":"/downloads/velnora-other.deb"}})";

// A valid manifest of this edition with `from` replaced by `to`. "2.11.0" appears only as the
// minimum extension version, "2.10.0" only as the Linux build's for this machine ("ARCH").
QByteArray manifest(const QByteArray& from = {}, const QByteArray& to = {})
{
    QByteArray text = R"({"edition":"domestic","minimumExtensionVersion":"2.11.0",
        "macos":{"version":"2.9.0","url":"/downloads/app.dmg"},
        "chrome":{"version":"2.11.1","url":"/downloads/ext.zip","extensionID":"ID"},
        "linux":)" + linuxPackages +
                      "}";
    if (!from.isEmpty()) {
        text.replace(from, to);
    }
    text.replace("\"ARCH\"", '"' + ProductRelease::architecture().toLatin1() + '"');
    text.replace("\"OTHER\"", '"' + otherArchitecture() + '"');
    return text.replace("\"ID\"", '"' + ExplainerConstants::extensionIdentifier().toLatin1() + '"');
}

} // namespace

// The update self-test covers the plain refusals (edition, extension id, chrome paths) and the
// status file's age; these are the rest.
TEST(ProductReleaseDecode, RefusesForeignManifestsEscapingPathsAndBadShapes)
{
    EXPECT_EQ(QProcess::execute(test::velnoraBinary(), {"--update-self-test"}), 0);
    using Kind = ReleaseError::Kind;
    const struct
    {
        const char* from;
        const char* to;
        Kind expected;
    } cases[] = {
        {"domestic", "Domestic", Kind::cannotParseResponse},
        {"\"ID\"", "\"dgldcbgpnkooljhfhcjpkojcdnfkepnb\"", Kind::cannotParseResponse},
        {"/downloads/velnora.deb", "/downloads/../etc/passwd", Kind::cannotParseResponse},
        {"/downloads/velnora.deb", "/downloads/a/..", Kind::cannotParseResponse},
        {"/downloads/app.dmg", "//evil.example/downloads/a", Kind::cannotParseResponse},
        {"/downloads/velnora.deb", "", Kind::cannotParseResponse},
        {"/downloads/velnora-other.deb", "/downloads/../x.deb", Kind::cannotParseResponse},
        {R"("ARCH":{"version")", R"("ARCH":{"versio")", Kind::decodingFailed},
        {"\"macos\"", "\"mac\"", Kind::decodingFailed},
        {"\"2.11.1\"", "2", Kind::decodingFailed},
        {"{", "[", Kind::decodingFailed},
    };
    for (const auto& c : cases) {
        try {
            ProductRelease::decode(manifest(c.from, c.to));
            ADD_FAILURE() << "accepted " << c.to;
        } catch (const ReleaseError& error) {
            EXPECT_EQ(error.kind(), c.expected) << c.to;
        }
    }
}

TEST(ProductReleaseVersions, CompareDigitRunsAsNumbers)
{
    const struct
    {
        const char* a;
        const char* b;
        int sign;
    } cases[] = {
        {"2.011.1", "2.11.1", 0},
        {"2.11.10", "2.11.9", 1},
        {"2.11.0.1", "2.11.0", 1},
        {"99999999999999999999999.1", "99999999999999999999998.9", 1},
        {"", "1", -1},
        // Digits of other scripts are characters, not numbers, so the order stays transitive (fuzzing).
        {"١", "10", 1},
        {"a", "١", -1},
        {"a", "10", 1},
    };
    for (const auto& c : cases) {
        const int result = ProductRelease::compareVersions(c.a, c.b);
        EXPECT_EQ((result > 0) - (result < 0), c.sign) << c.a << " vs " << c.b;
    }
}

TEST(ExtensionSentence, CoversOutdatedAndTooOldExtensions)
{
    const struct
    {
        const char* minimum;
        std::optional<QString> installed;
        QString expected;
    } cases[] = {
        {"2.10.0", "2.10.0", "当前扩展 2.10.0，可更新至 2.11.1。" + howToUpdate},
        {"2.11.0", "2.9.0",
         "当前扩展 2.9.0，可更新至 2.11.1。此版本需要升级才能完整配合应用。" + howToUpdate},
    };
    for (const auto& c : cases) {
        const auto release = ProductRelease::decode(manifest("2.11.0", c.minimum));
        EXPECT_EQ(ProductUpdates::extensionSentence(release, c.installed), c.expected);
    }
}

TEST(ExtensionStatusFile, IsIgnoredWhenForeignMalformedOrOversized)
{
    const double now = 1'800'000'000.5;
    const auto status = [](const QJsonValue& id, const QJsonValue& updatedAt) {
        return QJsonDocument(
                   QJsonObject{{"extensionID", id}, {"updatedAt", updatedAt}, {"version", "2.11.1"}})
            .toJson();
    };
    QTemporaryDir directory;
    const auto read = [&](const QByteArray& content) {
        QFile file(directory.filePath("extension-status.json"));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
        file.close();
        return ProductUpdates::installedExtensionVersion(file.fileName(), now);
    };
    const QString own = ExplainerConstants::extensionIdentifier();
    EXPECT_EQ(read(status(own, now - 1)), "2.11.1");
    for (const QByteArray& content :
         {status(otherEditionID, now - 1), status(own, QString::number(now - 1, 'f', 0)),
          QByteArray(200000, ' ') + status(own, now - 1)}) {
        EXPECT_EQ(read(content), std::nullopt) << content.right(120).constData();
    }
}

class ExtensionCheck : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(server.isListening()); }

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

    LoopbackHttpServer server;
    QTemporaryDir directory;
    ProductUpdates updates{server.url(), directory.filePath("extension-status.json")};
};

TEST_F(ExtensionCheck, AsksTheSiteForReleaseJsonOnceAtATimeAndFollowsOnlyItsOwnRedirects)
{
    serveManifest(manifest());
    QStringList labels;
    QObject::connect(&updates, &ProductUpdates::extensionStatusChanged,
                     [&](const QString& text) { labels << text; });
    updates.checkExtension();
    EXPECT_EQ(runExtensionCheck(), notReported);
    EXPECT_EQ(labels, (QStringList{"正在检查扩展更新…", notReported}));
    ASSERT_EQ(server.requestCount(), 1);
    EXPECT_EQ(server.requests().at(0).target, "/release.json");
    EXPECT_EQ(server.requests().at(0).header("accept"), "application/json");

    // "localhost" is the same machine under another host name: the manifest arrives, and is refused.
    server.enqueue(ScriptedResponse::redirect(302, "http://localhost:" + QByteArray::number(server.port()) +
                                                       "/release.json"));
    EXPECT_EQ(runExtensionCheck(), failure);
    ASSERT_EQ(server.requestCount(), 3);
    EXPECT_TRUE(server.requests().at(2).header("host").value_or("").startsWith("localhost:"));

    server.enqueue(ScriptedResponse::redirect(302, server.url("/moved/release.json").toEncoded()));
    EXPECT_EQ(runExtensionCheck(), notReported);
    EXPECT_EQ(server.requests().last().target, "/moved/release.json");
}

TEST_F(ExtensionCheck, RefusesEverythingButAValidManifestWithStatus200UnderTheSizeLimit)
{
    const struct
    {
        QByteArray body;
        int status;
        bool accepted;
    } cases[] = {
        {manifest().leftJustified(99999, ' '), 200, true},
        {manifest().leftJustified(100000, ' '), 200, false},
        {{}, 200, false},
        {manifest("domestic", "international"), 200, false},
    };
    for (const auto& c : cases) {
        serveManifest(c.body, c.status);
        EXPECT_EQ(runExtensionCheck() != failure, c.accepted) << c.status << " " << c.body.size();
    }
}

TEST_F(ExtensionCheck, ApplicationCheckOffersOnlyANewerPackageForThisArchitecture)
{
    const QString current = ProductRelease::version();
    const QString upToDate = "澜镜 " + current + " 已是最新版本。";
    const QString offered = "发现新版本 99.0.0（当前 " + current + "），可前往官网下载安装。";
    const bool amd64 = ProductRelease::architecture() == u"amd64";
    const QByteArray thisEntry = R"("ARCH":{"version":"2.10.0","url":"/downloads/velnora.deb"})";
    const struct
    {
        const char* name;
        QByteArray from, to;
        QString status;
        std::optional<QString> download;
    } cases[] = {
        {"the same version", "2.10.0\",\"url\":\"/downloads/velnora.deb",
         current.toLatin1() + "\",\"url\":\"/downloads/velnora.deb", upToDate, std::nullopt},
        {"a newer one", "2.10.0\",\"url\":\"/downloads/velnora.deb",
         "99.0.0\",\"url\":\"/downloads/velnora.deb", offered, "/downloads/velnora.deb"},
        {"only another architecture's newer", "2.10.0\",\"url\":\"/downloads/velnora-other",
         "99.0.0\",\"url\":\"/downloads/velnora-other", upToDate, std::nullopt},
        {"none for this architecture", thisEntry + ",", "", upToDate, std::nullopt},
        {"a manifest from before the keys (amd64)", linuxPackages,
         R"({"version":"99.0.0","url":"/downloads/velnora.deb"})", amd64 ? offered : upToDate,
         amd64 ? std::optional<QString>("/downloads/velnora.deb") : std::nullopt},
    };
    for (const auto& c : cases) {
        serveManifest(manifest(c.from, c.to));
        updates.checkApplication();
        EXPECT_TRUE(waitUntil([this] { return !updates.isCheckingApplication(); })) << c.name;
        EXPECT_EQ(updates.applicationStatus(), c.status) << c.name;
        EXPECT_EQ(updates.downloadURL(),
                  c.download ? std::optional<QUrl>(server.url(*c.download)) : std::nullopt)
            << c.name;
    }
}
