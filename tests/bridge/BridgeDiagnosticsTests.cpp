#include "BridgeTestFiles.h"
#include "bridge/BridgeDiagnostics.h"
#include "bridge/ChromeProfileProbe.h"
#include "bridge/ChromiumBrowsers.h"
#include "bridge/NativeHostInstaller.h"
#include "bridge/RequestStore.h"
#include "config/ProviderCatalog.h"
#include "support/NativeHostClient.h"
#include "support/TestEnvironment.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace velnora;
using namespace velnora::test;

namespace {

const QString ours = QStringLiteral("kembcdlbgbcnnchcnbdhbmbhbejnedjf");
const QString otherEdition = QStringLiteral("dgldcbgpnkooljhfhcjpkojcdnfkepnb");

QByteArray json(const QJsonObject& object)
{
    return QJsonDocument(object).toJson();
}

QByteArray preferences(const QJsonObject& settings)
{
    return json({{"extensions", QJsonObject{{"settings", settings}}}});
}

QJsonObject unpackedAt(const QString& path, int location = 4)
{
    return {{"location", location}, {"path", path}};
}

class ManifestDiagnosis : public testing::Test
{
protected:
    QTemporaryDir root;
    QString manifest = root.filePath(QStringLiteral("com.tarnwick.velnora.domestic.json"));
    QString executable = velnoraBinary();
    int probes = 0;

    BridgeDiagnosis diagnose(bool active = false, bool running = true)
    {
        return BridgeDiagnostics::diagnose(active, manifest, ours, running, [this] {
            ++probes;
            return ChromeExtensionInstall::absent();
        });
    }

    void writeManifest(const QJsonValue& path, const QJsonValue& origins)
    {
        QJsonObject object{{"name", "com.tarnwick.velnora.domestic"}, {"type", "stdio"}};
        if (!path.isUndefined()) {
            object.insert(QStringLiteral("path"), path);
        }
        if (!origins.isUndefined()) {
            object.insert(QStringLiteral("allowed_origins"), origins);
        }
        writeFile(manifest, json(object));
    }
};

TEST_F(ManifestDiagnosis, UnreadableManifestsAreMissing)
{
    EXPECT_EQ(diagnose(), BridgeDiagnosis::manifestMissing());
    for (const QByteArray& bytes : {QByteArray("not json"), QByteArray("[]"), QByteArray(R"({"path": 7})"),
                                    QByteArray(R"({"path": ""})"), QByteArray()}) {
        writeFile(manifest, bytes);
        EXPECT_EQ(diagnose(), BridgeDiagnosis::manifestMissing()) << bytes.constData();
    }
    EXPECT_EQ(diagnose(true), BridgeDiagnosis::connected()) << "a live heartbeat wins over everything";
}

TEST_F(ManifestDiagnosis, PathMustBeAnExecutableFile)
{
    const QString gone = QStringLiteral("/nonexistent/澜镜/bin/velnora");
    writeManifest(gone, QJsonArray{"chrome-extension://" + ours + "/"});
    EXPECT_EQ(diagnose(), BridgeDiagnosis::manifestPathBroken(gone));

    const QString plain = root.filePath(QStringLiteral("not-executable"));
    writeFile(plain, "#!/bin/sh\n");
    writeManifest(plain, QJsonArray{"chrome-extension://" + ours + "/"});
    EXPECT_EQ(diagnose(), BridgeDiagnosis::manifestPathBroken(plain));
    writeManifest(root.path(), QJsonArray{"chrome-extension://" + ours + "/"});
    EXPECT_EQ(diagnose(), BridgeDiagnosis::manifestPathBroken(root.path()))
        << "a folder is not an executable";
}

TEST_F(ManifestDiagnosis, OriginMustNameExactlyThisExtension)
{
    const std::vector<QJsonValue> wrong{QJsonValue(),
                                        QJsonArray{},
                                        QJsonArray{"chrome-extension://" + ours},
                                        QJsonArray{"chrome-extension://" + otherEdition + "/"},
                                        QJsonValue("chrome-extension://" + ours + "/"),
                                        QJsonArray{"chrome-extension://" + ours + "/", 5}};
    for (const QJsonValue& origins : wrong) {
        writeManifest(executable, origins);
        EXPECT_EQ(diagnose(), BridgeDiagnosis::manifestOriginMismatch()) << readFile(manifest).constData();
    }
    writeManifest(executable,
                  QJsonArray{"chrome-extension://" + otherEdition + "/", "chrome-extension://" + ours + "/"});
    EXPECT_EQ(diagnose(), BridgeDiagnosis::extensionSilent(ChromeExtensionInstall::absent()));
}

TEST_F(ManifestDiagnosis, ProfilesAreReadOnlyWhenEverythingElseIsInOrder)
{
    writeManifest(executable, QJsonArray{"chrome-extension://" + ours + "/"});
    EXPECT_EQ(diagnose(false, false), BridgeDiagnosis::chromeNotRunning());
    EXPECT_EQ(diagnose(true, true), BridgeDiagnosis::connected());
    EXPECT_EQ(probes, 0);
    EXPECT_EQ(diagnose(false, true), BridgeDiagnosis::extensionSilent(ChromeExtensionInstall::absent()));
    EXPECT_EQ(probes, 1);
}

class ProfileProbe : public testing::Test
{
protected:
    QTemporaryDir root;

    void write(const QString& relative, const QByteArray& bytes)
    {
        writeFile(root.filePath(relative), bytes);
    }
    ChromeExtensionInstall inspect(const QString& identifier = ours)
    {
        return ChromeProfileProbe::inspect(identifier, root.path());
    }
};

TEST_F(ProfileProbe, LastUsedProfileComesFirstThenTheRest)
{
    write("Local State",
          json({{"profile", QJsonObject{{"last_used", "Profile 3"},
                                        {"info_cache", QJsonObject{{"Default", QJsonObject{}},
                                                                   {"Profile 3", QJsonObject{}},
                                                                   {"Work", QJsonObject{}}}}}}}));
    QDir(root.path()).mkpath(QStringLiteral("Profile 7"));
    QDir(root.path()).mkpath(QStringLiteral("System Profile"));
    QDir(root.path()).mkpath(QStringLiteral("Default"));
    EXPECT_EQ(ChromeProfileProbe::profileNames(root.path()),
              (QStringList{"Profile 3", "Default", "Work", "Profile 7"}));

    write("Default/Preferences", preferences({{ours, QJsonObject{{"location", 1}}}}));
    write("Profile 3/Preferences", preferences({{ours, unpackedAt("/tmp/velnora/extension")}}));
    EXPECT_EQ(inspect(), ChromeExtensionInstall::unpacked("/tmp/velnora/extension"));
}

TEST_F(ProfileProbe, WithoutLocalStateTheFoldersAreStillSearched)
{
    write("Default/Preferences", preferences({}));
    write("Profile 2/Preferences", preferences({{ours, unpackedAt("/opt/velnora/extension", 8)}}));
    write("Guest Profile/Preferences", preferences({{otherEdition, QJsonObject{}}}));
    EXPECT_EQ(ChromeProfileProbe::profileNames(root.path()), (QStringList{"Default", "Profile 2"}));
    EXPECT_EQ(inspect(), ChromeExtensionInstall::unpacked("/opt/velnora/extension"));
}

TEST_F(ProfileProbe, StaleEntryIsAnotherIdentifierAtTheSameFolder)
{
    write("Default/Preferences",
          preferences({{ours, unpackedAt("/tmp/velnora/extension")},
                       {"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", unpackedAt("/tmp/velnora/other")},
                       {"bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb", unpackedAt("/tmp/velnora/extension/")}}));
    EXPECT_EQ(inspect(),
              ChromeExtensionInstall::unpacked("/tmp/velnora/extension", "bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb"));

    write("Default/Preferences",
          preferences({{ours, unpackedAt("/tmp/velnora/extension")},
                       {"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", unpackedAt("/tmp/velnora/other")}}));
    EXPECT_EQ(inspect(), ChromeExtensionInstall::unpacked("/tmp/velnora/extension"));
}

TEST_F(ProfileProbe, SecurePreferencesAndPreferencesAreReadTogether)
{
    // The location in one file and the path in the other still make one unpacked record.
    write("Default/Secure Preferences", preferences({{ours, QJsonObject{{"location", 4}}}}));
    write("Default/Preferences", preferences({{ours, QJsonObject{{"path", "/srv/ext"}, {"location", 1}}}}));
    EXPECT_EQ(inspect(), ChromeExtensionInstall::unpacked("/srv/ext"));

    write("Default/Secure Preferences", "garbage");
    EXPECT_EQ(inspect(), ChromeExtensionInstall::installed());
    write("Default/Preferences", "garbage");
    EXPECT_EQ(inspect(), ChromeExtensionInstall::unknown());
}

TEST_F(ProfileProbe, OtherEditionIsNeverAbsent)
{
    write("Default/Preferences", preferences({}));
    EXPECT_EQ(inspect(), ChromeExtensionInstall::absent());
    write("Profile 1/Preferences", preferences({{otherEdition, unpackedAt("/tmp/x")}}));
    EXPECT_EQ(inspect(), ChromeExtensionInstall::differentEdition());
    // Only this edition reports the other one.
    EXPECT_EQ(inspect(otherEdition), ChromeExtensionInstall::unpacked("/tmp/x"));
    write("Profile 1/Preferences", preferences({{ours, unpackedAt("/tmp/x")}}));
    EXPECT_EQ(inspect(otherEdition), ChromeExtensionInstall::absent());
    // Ours in any profile beats the other edition in the last used one.
    write("Local State", json({{"profile", QJsonObject{{"last_used", "Default"}}}}));
    write("Default/Preferences", preferences({{otherEdition, QJsonObject{}}}));
    EXPECT_EQ(inspect(), ChromeExtensionInstall::unpacked("/tmp/x"));
}

TEST_F(ProfileProbe, NothingReadableIsUnknownAndTheCacheHoldsItsAnswer)
{
    EXPECT_EQ(inspect(), ChromeExtensionInstall::unknown());
    EXPECT_EQ(ChromeProfileProbe::inspectCached(60, ours, root.path()), ChromeExtensionInstall::unknown());
    write("Default/Preferences", preferences({}));
    EXPECT_EQ(ChromeProfileProbe::inspectCached(60, ours, root.path()), ChromeExtensionInstall::unknown());
    EXPECT_EQ(ChromeProfileProbe::inspectCached(0, ours, root.path()), ChromeExtensionInstall::absent());
}

TEST(BrowserRunning, SingletonLockPidMustBeAlive)
{
    TemporaryHome home;
    const ChromiumBrowsers::Browser& chrome = ChromiumBrowsers::googleChrome();
    QTemporaryDir profile;
    const QString lock = profile.filePath(QStringLiteral("SingletonLock"));
    ASSERT_TRUE(QFile::link(QStringLiteral("testhost-%1").arg(::getpid()), lock));
    EXPECT_TRUE(ChromiumBrowsers::isRunning(chrome, profile.path()));

    QProcess finished;
    finished.start(QStringLiteral("/bin/true"));
    ASSERT_TRUE(finished.waitForFinished(5000));
    QFile::remove(lock);
    ASSERT_TRUE(QFile::link(QStringLiteral("testhost-%1").arg(finished.processId()), lock));
    EXPECT_FALSE(ChromiumBrowsers::isRunning(chrome, profile.path())) << "a lock left by a crash";
}

TEST(BrowserRunning, ProcessScanMatchesTheBrowserOfThatDataFolderOnly)
{
    const QString python = QStringLiteral("/usr/bin/python3");
    if (!QFileInfo(python).isExecutable()) {
        GTEST_SKIP() << "needs /usr/bin/python3 to stand in for a browser process";
    }
    TemporaryHome home;
    const ChromiumBrowsers::Browser& chromium = ChromiumBrowsers::all().at(3);
    ASSERT_EQ(chromium.id, QStringLiteral("chromium"));
    // A process whose argv[0] is ".../chromium", holding the arguments a browser would have.
    QTemporaryDir bin;
    const QString fake = bin.filePath(QStringLiteral("chromium"));
    ASSERT_TRUE(QFile::link(python, fake));
    const auto startBrowser = [&](QProcess& process, const QStringList& flags) {
        process.start(fake, QStringList{"-c", "import time; time.sleep(30)"} + flags);
        return process.waitForStarted(5000);
    };
    QTemporaryDir profile;
    const QString defaultFolder = ChromiumBrowsers::userDataDirectory(chromium);
    EXPECT_FALSE(ChromiumBrowsers::isRunning(chromium, profile.path()));

    QProcess renderer;
    ASSERT_TRUE(startBrowser(renderer, {"--type=renderer", "--user-data-dir=" + profile.path()}));
    EXPECT_FALSE(ChromiumBrowsers::isRunning(chromium, profile.path())) << "helper processes do not count";

    QProcess browser;
    ASSERT_TRUE(startBrowser(browser, {"--user-data-dir=" + profile.path() + "/"}));
    EXPECT_TRUE(ChromiumBrowsers::isRunning(chromium, profile.path()));
    EXPECT_FALSE(ChromiumBrowsers::isRunning(chromium, defaultFolder));
    EXPECT_FALSE(ChromiumBrowsers::isRunning(ChromiumBrowsers::googleChrome(), profile.path()));

    QProcess plain;
    ASSERT_TRUE(startBrowser(plain, {}));
    EXPECT_TRUE(ChromiumBrowsers::isRunning(chromium, defaultFolder))
        << "no --user-data-dir means the default one";
    for (QProcess* process : {&renderer, &browser, &plain}) {
        process->kill();
        process->waitForFinished(5000);
    }
}

TEST(PrimaryBrowser, ChromiumOnlyWhenChromeIsNotInUse)
{
    TemporaryHome home;
    writeFile(home.configHome() + QStringLiteral("/chromium/Local State"), "{}");
    // Our own manifest folder alone does not make Chrome "in use".
    QDir().mkpath(home.configHome() + QStringLiteral("/google-chrome/NativeMessagingHosts"));
    EXPECT_EQ(ChromiumBrowsers::primary().id, QStringLiteral("chromium"));
    EXPECT_EQ(NativeHostInstaller::hostDirectoryURL(),
              home.configHome() + QStringLiteral("/chromium/NativeMessagingHosts"));
    writeFile(home.configHome() + QStringLiteral("/google-chrome/Local State"), "{}");
    EXPECT_EQ(ChromiumBrowsers::primary().id, QStringLiteral("google-chrome"));
}

struct ModeRun
{
    int exitCode = -1;
    QStringList lines;
};

ModeRun runMode(const QString& flag, int timeoutMs = 20000)
{
    QProcess process;
    process.start(velnoraBinary(), {flag});
    ModeRun run;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(3000);
        return run;
    }
    run.exitCode = process.exitCode();
    run.lines = QString::fromUtf8(process.readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts);
    return run;
}

TEST(BridgeStatusMode, EmptyHomeNeedsTheManifestRepaired)
{
    TemporaryHome home;
    const ModeRun run = runMode(QStringLiteral("--bridge-status"));
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.lines,
              (QStringList{"○ 未连接 · 连接配置需要修复",
                           "Chrome 还没有本机的连接配置。点「修复连接」重新写入，再到 chrome://extensions "
                           "重新加载扩展。"}));
}

TEST(BridgeStatusMode, LiveHeartbeatIsConnectedAndAbsentExtensionPointsAtTheBundledFolder)
{
    TemporaryHome home;
    RequestStore(home.dataHome() + QStringLiteral("/VelNoraDomestic")).markBridgeActive();
    ModeRun run = runMode(QStringLiteral("--bridge-status"));
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.lines, (QStringList{"● Chrome 已连接", "Chrome 扩展已连接，划词即可发到网页会话。"}));

    QFile::remove(home.dataHome() + QStringLiteral("/VelNoraDomestic/native-host-heartbeat"));
    NativeHostInstaller::installForAllBrowsers(QUrl::fromLocalFile(velnoraBinary()));
    const QString chrome = home.configHome() + QStringLiteral("/google-chrome");
    writeFile(chrome + QStringLiteral("/Default/Preferences"), preferences({}));
    // This very process stands in for the running browser.
    ASSERT_TRUE(QFile::link(QStringLiteral("testhost-%1").arg(::getpid()),
                            chrome + QStringLiteral("/SingletonLock")));
    run = runMode(QStringLiteral("--bridge-status"));
    EXPECT_EQ(run.exitCode, 2);
    ASSERT_GE(run.lines.size(), 2);
    EXPECT_EQ(run.lines[0], QStringLiteral("○ 未连接 · 未发现本版扩展记录"));
    EXPECT_TRUE(run.lines[1].contains(QStringLiteral("按 Ctrl+L 粘贴路径回车")));
    const QString bundled = sourceDir() + QStringLiteral("/extension");
    if (QFileInfo::exists(bundled + QStringLiteral("/manifest.json"))) {
        EXPECT_EQ(run.lines.value(2), QStringLiteral("扩展目录：") + QDir::cleanPath(bundled));
    } else {
        EXPECT_EQ(run.lines.size(), 2);
    }
}

TEST(BridgeSelfTestModes, DiagnosticsChecksPass)
{
    const ModeRun run = runMode(QStringLiteral("--bridge-diagnostics-self-test"));
    EXPECT_EQ(run.lines, QStringList{"bridge-diagnostics-self-test: ok"});
    EXPECT_EQ(run.exitCode, 0);
}

// The wake and repair modes against a real host whose "extension" is this test: no browser can start
// (PATH holds none), so only the host can make them succeed.
class BrowserModes : public testing::Test
{
protected:
    TemporaryHome home;
    EnvironmentGuard environment;
    QTemporaryDir emptyBin;
    NativeHostClient host;

    void SetUp() override
    {
        environment.set("PATH", emptyBin.path().toUtf8());
        ASSERT_TRUE(host.start(velnoraBinary()));
        ASSERT_TRUE(host.receive(10000));
    }
};

TEST_F(BrowserModes, WakeSelfTestSucceedsWhenTheHostDeliversTheRequest)
{
    QProcess wake;
    wake.start(velnoraBinary(), {QStringLiteral("--browser-wake-self-test")});
    ASSERT_TRUE(wake.waitForStarted(5000));
    const std::optional<QJsonObject> request = host.receiveMessage(15000);
    ASSERT_TRUE(request);
    EXPECT_EQ(request->value(QStringLiteral("type")).toString(), QStringLiteral("OPEN_WORKBENCH"));
    EXPECT_EQ(request->value(QStringLiteral("provider")).toString(), QStringLiteral("kimi"));
    EXPECT_FALSE(request->contains(QStringLiteral("text")));
    host.send({{"type", "ACK_REQUEST"}, {"requestId", request->value(QStringLiteral("requestId"))}});
    ASSERT_TRUE(wake.waitForFinished(30000));
    EXPECT_EQ(wake.readAllStandardOutput(), "browser-wake-self-test: ok\n");
    EXPECT_EQ(wake.exitCode(), 0);

    const std::optional<NativeHostInstaller::Manifest> manifest = NativeHostInstaller::Manifest::decode(
        readFile(home.configHome() +
                 QStringLiteral("/google-chrome/NativeMessagingHosts/com.tarnwick.velnora.domestic.json")));
    ASSERT_TRUE(manifest);
    EXPECT_EQ(manifest->path, QFileInfo(velnoraBinary()).canonicalFilePath());
}

TEST_F(BrowserModes, RepairSelfTestSeesTheLiveHost)
{
    const ModeRun run = runMode(QStringLiteral("--browser-repair-self-test"));
    EXPECT_EQ(run.lines, QStringList{"browser-repair-self-test: ok"});
    EXPECT_EQ(run.exitCode, 0);
}

} // namespace
