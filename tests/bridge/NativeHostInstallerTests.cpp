#include "BridgeTestFiles.h"
#include "bridge/BundledExtension.h"
#include "bridge/FileSystemError.h"
#include "bridge/NativeHostInstaller.h"
#include "config/ProviderCatalog.h"
#include "support/TestEnvironment.h"

#include <QProcess>
#include <QTemporaryDir>
#include <cerrno>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace velnora;
using namespace velnora::test;

namespace {

struct stat statOf(const QString& path)
{
    struct stat info
    {
    };
    ::stat(QFile::encodeName(path).constData(), &info);
    return info;
}

TEST(NativeHostInstaller, WritesThePrettySortedManifestWithPlainSlashes)
{
    QTemporaryDir root;
    const QString hosts = root.filePath(QStringLiteral("NativeMessagingHosts"));
    const QString target =
        NativeHostInstaller::install(hosts, QUrl::fromLocalFile(QStringLiteral("/opt/澜镜/bin/velnora")));
    EXPECT_EQ(target, hosts + QStringLiteral("/com.tarnwick.velnora.domestic.json"));
    const QByteArray expected = "{\n"
                                "    \"allowed_origins\": [\n"
                                "        \"chrome-extension://" +
                                ExplainerConstants::extensionIdentifier().toLatin1() +
                                "/\"\n"
                                "    ],\n"
                                "    \"description\": \"澜镜 macOS 与 Chrome 会话桥\",\n"
                                "    \"name\": \"com.tarnwick.velnora.domestic\",\n"
                                "    \"path\": \"/opt/澜镜/bin/velnora\",\n"
                                "    \"type\": \"stdio\"\n"
                                "}\n";
    EXPECT_EQ(readFile(target), expected);
    EXPECT_EQ(permissions(target), 0644u);
    EXPECT_EQ(QDir(hosts).entryList(QDir::Files | QDir::Hidden).size(), 1) << "no temporary left";
}

TEST(NativeHostInstaller, SecondInstallLeavesTheFileAloneAndAChangeRewritesIt)
{
    QTemporaryDir root;
    const QUrl executable = QUrl::fromLocalFile(QStringLiteral("/usr/bin/velnora"));
    const QString target = NativeHostInstaller::install(root.path(), executable);
    setModificationTime(target, 1000000000);
    const struct stat before = statOf(target);

    NativeHostInstaller::install(root.path(), executable);
    const struct stat after = statOf(target);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mtim.tv_sec, 1000000000);

    // A manifest a user edited by hand (here: wrong mode and content) is put right.
    ::chmod(QFile::encodeName(target).constData(), 0600);
    writeFile(target, "{}");
    NativeHostInstaller::install(root.path(),
                                 QUrl::fromLocalFile(QStringLiteral("/usr/local/./bin//velnora")));
    const std::optional<NativeHostInstaller::Manifest> manifest =
        NativeHostInstaller::Manifest::decode(readFile(target));
    ASSERT_TRUE(manifest);
    EXPECT_EQ(manifest->path, QStringLiteral("/usr/local/bin/velnora"));
    EXPECT_EQ(permissions(target), 0644u);
}

TEST(NativeHostInstaller, RefusesAWebAddressAndLeavesTheLegacyManifestAlone)
{
    QTemporaryDir root;
    const QString hosts = root.filePath(QStringLiteral("hosts"));
    try {
        NativeHostInstaller::install(hosts, QUrl(QStringLiteral("https://example.invalid/velnora")));
        FAIL() << "web address accepted";
    } catch (const FileSystemError& error) {
        EXPECT_EQ(error.code(), ENOENT);
    }
    EXPECT_FALSE(QFileInfo::exists(hosts));

    const QString legacy = hosts + QStringLiteral("/com.tarnwick.brinkwell.json");
    writeFile(legacy, "old");
    NativeHostInstaller::install(hosts, QUrl::fromLocalFile(QStringLiteral("/usr/bin/velnora")));
    EXPECT_EQ(readFile(legacy), "old");
}

TEST(NativeHostInstaller, ManifestThatLacksAFieldDoesNotDecode)
{
    const NativeHostInstaller::Manifest manifest =
        NativeHostInstaller::manifestFor(QStringLiteral("/usr/bin/velnora"));
    EXPECT_EQ(NativeHostInstaller::Manifest::decode(manifest.encode()), manifest);
    EXPECT_FALSE(NativeHostInstaller::Manifest::decode(
        R"({"name":"a","description":"b","path":"/x","type":"stdio"})"));
    EXPECT_FALSE(NativeHostInstaller::Manifest::decode(
        R"({"name":"a","description":"b","path":"/x","type":"stdio","allowed_origins":[1]})"));
    EXPECT_FALSE(NativeHostInstaller::Manifest::decode("[]"));
}

TEST(NativeHostInstaller, InstallsForChromeAlwaysAndForOtherBrowsersThatAreThere)
{
    TemporaryHome home;
    QDir().mkpath(home.configHome() + QStringLiteral("/chromium"));
    QDir().mkpath(home.configHome() + QStringLiteral("/BraveSoftware/Brave-Browser"));
    const QStringList written =
        NativeHostInstaller::installForAllBrowsers(QUrl::fromLocalFile(QStringLiteral("/usr/bin/velnora")));
    const QString name = QStringLiteral("/NativeMessagingHosts/com.tarnwick.velnora.domestic.json");
    EXPECT_EQ(written,
              (QStringList{home.configHome() + QStringLiteral("/google-chrome") + name,
                           home.configHome() + QStringLiteral("/chromium") + name,
                           home.configHome() + QStringLiteral("/BraveSoftware/Brave-Browser") + name}));
    for (const QString& path : written) {
        EXPECT_TRUE(QFileInfo(path).isFile()) << path.toStdString();
    }
    EXPECT_FALSE(QFileInfo::exists(home.configHome() + QStringLiteral("/microsoft-edge")));
    EXPECT_FALSE(QFileInfo::exists(home.configHome() + QStringLiteral("/vivaldi")));
}

TEST(NativeHostInstaller, SelfTestModePasses)
{
    QProcess process;
    process.start(velnoraBinary(), {QStringLiteral("--native-host-installer-self-test")});
    ASSERT_TRUE(process.waitForFinished(20000));
    EXPECT_EQ(process.readAllStandardOutput(), "native-host-installer-self-test: ok\n");
    EXPECT_EQ(process.exitCode(), 0);
}

TEST(BundledExtension, PrefersTheInstalledFolderBesideTheExecutable)
{
    const QStringList candidates = BundledExtension::candidateFolders(QStringLiteral("/usr/bin/velnora"));
    ASSERT_EQ(candidates.size(), 3);
    EXPECT_EQ(candidates[0], QStringLiteral("/usr/share/velnora/extension"));
    EXPECT_EQ(candidates[1], sourceDir() + QStringLiteral("/extension"));

    QTemporaryDir root;
    const QString empty = root.filePath(QStringLiteral("empty"));
    const QString shipped = root.filePath(QStringLiteral("shipped"));
    QDir().mkpath(empty);
    writeFile(shipped + QStringLiteral("/manifest.json"), "{}");
    EXPECT_EQ(BundledExtension::firstWithManifest({empty, shipped}), shipped);
    EXPECT_FALSE(BundledExtension::firstWithManifest({empty, root.filePath(QStringLiteral("missing"))}));
}

} // namespace
