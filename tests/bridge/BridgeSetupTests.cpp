#include "BridgeTestFiles.h"
#include "bridge/BrowserProviderSync.h"
#include "bridge/ChromeProfileProbe.h"
#include "bridge/NativeHostInstaller.h"
#include "bridge/RequestStore.h"
#include "config/ConfigurationStore.h"
#include "config/ProviderCatalog.h"
#include "support/TestEnvironment.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <functional>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace velnora;
using namespace velnora::test;

namespace {

QByteArray chromePreferences(const QJsonObject& settings)
{
    return QJsonDocument(QJsonObject{{"extensions", QJsonObject{{"settings", settings}}}}).toJson();
}

TEST(BridgeSelfTestModes, InstallerAndDiagnosticsChecksPass)
{
    for (const QString mode : {"native-host-installer-self-test", "bridge-diagnostics-self-test"}) {
        EXPECT_EQ(runMode("--" + mode), std::make_pair(0, QStringList{mode + ": ok"}));
    }
}

// Chrome always, then every other browser whose folder exists, sandboxed builds included; an edited
// manifest is put right. Firefox's manifests admit the gecko ID only.
TEST(NativeHostInstaller, InstallsForChromeAndThePresentBrowsersAndPutsAnEditedManifestRight)
{
    TemporaryHome home;
    const QString config = home.configHome() + u'/';
    for (const char* present :
         {".config/BraveSoftware/Brave-Browser", ".var/app/org.chromium.Chromium/config/chromium",
          "snap/chromium/common/chromium", ".mozilla/firefox", "snap/firefox/common/.mozilla"}) {
        QDir().mkpath(home.filePath(present));
    }
    const QString edited = config + "chromium/NativeMessagingHosts/com.tarnwick.velnora.domestic.json";
    writeFile(edited, "{}");
    ::chmod(QFile::encodeName(edited).constData(), 0600);

    const QStringList written =
        NativeHostInstaller::installForAllBrowsers(QUrl::fromLocalFile("/usr/local/./bin//velnora"));
    QStringList expected;
    for (const char* folder :
         {".config/google-chrome/NativeMessagingHosts", ".config/chromium/NativeMessagingHosts",
          ".config/BraveSoftware/Brave-Browser/NativeMessagingHosts",
          ".var/app/org.chromium.Chromium/config/chromium/NativeMessagingHosts",
          "snap/chromium/common/chromium/NativeMessagingHosts", ".mozilla/native-messaging-hosts",
          "snap/firefox/common/.mozilla/native-messaging-hosts"}) {
        expected.append(home.filePath(folder) + "/com.tarnwick.velnora.domestic.json");
    }
    EXPECT_EQ(written.join(u'\n').toStdString(), expected.join(u'\n').toStdString());
    for (const char* absent : {"microsoft-edge", "vivaldi"}) {
        EXPECT_FALSE(QFileInfo::exists(config + absent)) << absent;
    }
    for (const QString& path : written) {
        SCOPED_TRACE(path.toStdString());
        const QJsonObject object = QJsonDocument::fromJson(readFile(path)).object();
        const bool firefox = path.contains(".mozilla");
        EXPECT_EQ(object.value("path").toString(), QStringLiteral("/usr/local/bin/velnora"));
        EXPECT_EQ(permissions(path), 0644u);
        EXPECT_EQ(object.value("allowed_extensions").toArray(),
                  firefox ? QJsonArray{ExplainerConstants::firefoxExtensionIdentifier()} : QJsonArray{});
        EXPECT_EQ(object.contains("allowed_origins"), !firefox);
    }
    // Chrome's folder holding only our manifest does not make Chrome the browser in use.
    writeFile(config + "chromium/Local State", "{}");
    EXPECT_EQ(NativeHostInstaller::hostDirectoryURL(), config + "chromium/NativeMessagingHosts");
}

// What --bridge-status looks at, laid out in a throwaway home. A lock naming a live pid makes a browser
// look alive; none when 0.
struct ChromiumProfile
{
    QString folder; // under HOME; the profile is "Default"
    qint64 lockPid = 0;
    QByteArray preferences = chromePreferences({});
    QByteArray securePreferences = {};
};

struct FirefoxProfile
{
    QString folder; // holds profiles.ini
    qint64 lockPid = 0;
    QStringList addons = {};
};

struct BrowserFiles
{
    std::vector<ChromiumProfile> chromium;
    std::optional<FirefoxProfile> firefox;
    QString chromeManifestProgram; // none when empty
    QString firefoxManifestAdmits; // none when empty
    bool installEverywhere = false;
    std::optional<QString> connectedAs; // a live heartbeat, and the ID of the last extension status (if any)

    void writeInto(const TemporaryHome& home) const
    {
        for (const ChromiumProfile& profile : chromium) {
            const QString root = home.filePath(profile.folder) + u'/';
            writeFile(root + "Local State", "{}");
            writeFile(root + "Default/Preferences", profile.preferences);
            writeFile(root + "Default/Secure Preferences", profile.securePreferences);
            if (profile.lockPid != 0) {
                QFile::link(QStringLiteral("testhost-%1").arg(profile.lockPid), root + "SingletonLock");
            }
        }
        if (firefox) {
            const QString root = home.filePath(firefox->folder) + u'/';
            writeFile(root + "profiles.ini", "[Profile0]\nPath=p\nIsRelative=1\nDefault=1\n");
            writeFile(root + "p/extensions.json", extensionsJson(firefox->addons));
            QFile::link(QStringLiteral("127.0.1.1:+%1").arg(firefox->lockPid), root + "p/lock");
        }
        if (!chromeManifestProgram.isEmpty()) {
            NativeHostInstaller::install(home.configHome() + "/google-chrome/NativeMessagingHosts",
                                         QUrl::fromLocalFile(chromeManifestProgram));
        }
        if (!firefoxManifestAdmits.isEmpty()) {
            const QString path =
                NativeHostInstaller::install(home.filePath(".mozilla/native-messaging-hosts"),
                                             QUrl::fromLocalFile(velnoraBinary()), BrowserFamily::firefox);
            writeFile(path, readFile(path).replace(ExplainerConstants::firefoxExtensionIdentifier().toUtf8(),
                                                   firefoxManifestAdmits.toUtf8()));
        }
        if (installEverywhere) {
            NativeHostInstaller::installForAllBrowsers(QUrl::fromLocalFile(velnoraBinary()));
        }
        if (connectedAs) {
            const RequestStore store;
            store.markBridgeActive();
            if (!connectedAs->isEmpty()) {
                writeFile(store.extensionStatusFilePath(),
                          QJsonDocument(QJsonObject{{"extensionID", *connectedAs}, {"version", "2.11.1"}})
                              .toJson());
            }
        }
    }
};

// --bridge-status: the status line, and advice that names what the user must do. Diagnosis follows the
// browser that runs and carries the extension, wherever it keeps its data.
TEST(BridgeStatusMode, EachStateOfEachBrowserGetsItsOwnStatusAndAdvice)
{
    const QString ours = ExplainerConstants::extensionIdentifier();
    const QString gecko = ExplainerConstants::firefoxExtensionIdentifier();
    const QString velnora = velnoraBinary();
    const QString notExecutable = sourceDir() + QStringLiteral("/CMakeLists.txt");
    const QString chrome = QStringLiteral(".config/google-chrome");
    const QString chromium = QStringLiteral(".config/chromium");
    const QString flatpakChromium = QStringLiteral(".var/app/org.chromium.Chromium/config/chromium");
    const QString firefox = QStringLiteral(".mozilla/firefox");
    // This very process stands in for the running browser; a finished one for a lock left by a crash.
    const qint64 alive = ::getpid();
    const qint64 crashed = finishedPid();
    const QByteArray unpacked =
        chromePreferences({{ours, QJsonObject{{"location", 4}, {"path", "/srv/ext"}}}});
    const QString repair = QStringLiteral("○ 未连接 · 连接配置需要修复");
    const QString silent = QStringLiteral("○ 未连接 · 扩展尚未连接");
    const QString absent = QStringLiteral("○ 未连接 · 未发现本版扩展记录");
    const QString sandboxed = QStringLiteral("○ 未连接 · 浏览器在沙盒中运行");
    const QString closed = QStringLiteral("○ 未连接 · %1 没有运行");
    const struct
    {
        struct
        {
            const char* name;
            QString status, advice; // the advice contains this
        } expected;
        BrowserFiles files;
    } cases[] = {
        {{"nothing set up", repair, "Chrome 还没有本机的连接配置"}, {}},
        {{"live heartbeat", "● Chrome 已连接", "Chrome 扩展已连接"}, {.connectedAs = ""}},
        {{"manifest names no program", repair, notExecutable},
         {.chromium = {{chrome, alive}}, .chromeManifestProgram = notExecutable}},
        {{"Chrome crashed", closed.arg("Chrome"), "Chrome 没有运行。点「修复连接」"},
         {.chromium = {{chrome, crashed}}, .chromeManifestProgram = velnora}},
        {{"extension absent", absent, "默认 Chrome 数据目录"},
         {.chromium = {{chrome, alive}}, .chromeManifestProgram = velnora}},
        {{"other edition", "○ 未连接 · 应用与扩展版本不匹配", "点「安装配套扩展」"},
         {.chromium = {{chrome, alive,
                        chromePreferences({{ChromeProfileProbe::otherEditionIdentifier, QJsonObject{}}})}},
          .chromeManifestProgram = velnora}},
        // Chrome keeps the location in Secure Preferences and the folder in Preferences.
        {{"unpacked but silent", silent, "chrome://extensions 确认扩展已启用，并重新加载 /srv/ext"},
         {.chromium = {{chrome, alive,
                        chromePreferences({{ours, QJsonObject{{"location", 1}, {"path", "/srv/ext"}}}}),
                        chromePreferences({{ours, QJsonObject{{"location", 4}}}})}},
          .chromeManifestProgram = velnora}},
        {{"Chrome closed, Chromium running with it", silent, "/srv/ext"},
         {.chromium = {{chrome}, {chromium, alive, unpacked}}, .installEverywhere = true}},
        {{"both running, only Chromium has it", silent, "/srv/ext"},
         {.chromium = {{chrome, alive}, {chromium, alive, unpacked}}, .installEverywhere = true}},
        {{"Flatpak Chromium running with it", sandboxed, "Flatpak 版 Chromium"},
         {.chromium = {{chrome}, {flatpakChromium, alive, unpacked}}, .installEverywhere = true}},
        {{"Snap Chromium running with it", sandboxed, "Snap 版 Chromium"},
         {.chromium = {{"snap/chromium/common/chromium", alive, unpacked}}, .installEverywhere = true}},
        {{"nothing running", closed.arg("Chrome"), "Chrome 没有运行"},
         {.chromium = {{chrome}, {flatpakChromium, 0, unpacked}}, .installEverywhere = true}},
        {{"connected through Firefox", "● Firefox 已连接", "Firefox 扩展已连接"},
         {.chromium = {{chrome}}, .firefox = {{firefox, crashed}}, .connectedAs = gecko}},
        {{"connected through Chrome", "● Chrome 已连接", "Chrome 扩展已连接"},
         {.firefox = {{firefox, crashed}}, .connectedAs = ours}},
        {{"Firefox without a manifest", repair, "Firefox 还没有本机的连接配置"},
         {.chromium = {{chrome}}, .firefox = {{firefox, alive, {gecko}}}}},
        {{"Firefox manifest admits another add-on", repair, "授权的不是当前扩展 ID"},
         {.firefox = {{firefox, alive, {gecko}}}, .firefoxManifestAdmits = "other@example.org"}},
        {{"Firefox closed", closed.arg("Firefox"), "Firefox 没有运行。点「修复连接」"},
         {.chromium = {{chrome}}, .firefox = {{firefox, crashed, {gecko}}}, .firefoxManifestAdmits = gecko}},
        {{"Firefox running without the extension", absent, "默认 Firefox 配置文件"},
         {.firefox = {{firefox, alive}}, .firefoxManifestAdmits = gecko}},
        {{"Firefox running with a silent extension", silent, "about:addons"},
         {.chromium = {{chrome}}, .firefox = {{firefox, alive, {gecko}}}, .firefoxManifestAdmits = gecko}},
        // Flatpak's Firefox runs the extension but cannot start the host; its lock's pid means nothing here.
        {{"Flatpak Firefox with it", sandboxed, "Flatpak 版 Firefox"},
         {.firefox = {{".var/app/org.mozilla.firefox/.mozilla/firefox", 2, {gecko}}},
          .installEverywhere = true}},
    };
    for (const auto& [expected, files] : cases) {
        SCOPED_TRACE(expected.name);
        const TemporaryHome home;
        files.writeInto(home);
        const auto [exitCode, lines] = runMode(QStringLiteral("--bridge-status"));
        EXPECT_EQ(exitCode, expected.status.startsWith(u'●') ? 0 : 2);
        EXPECT_EQ(lines.value(0), expected.status);
        EXPECT_TRUE(lines.value(1).contains(expected.advice)) << lines.value(1).toStdString();
    }
}

// An upgrade replaces the program under the running app: the manifest must name the new file, not
// the kernel's "<path> (deleted)"; a program that is gone altogether keeps its text as it is.
TEST(NativeHostInstaller, NamesTheReplacingProgramWhenTheRunningOneWasReplaced)
{
    QTemporaryDir folder;
    const QString program = folder.filePath(QStringLiteral("velnora"));
    ASSERT_TRUE(QFile::copy(QStringLiteral("/bin/sleep"), program));
    QProcess running;
    running.start(program, {QStringLiteral("30")});
    ASSERT_TRUE(running.waitForStarted(5000));
    const QString link = QStringLiteral("/proc/%1/exe").arg(running.processId());
    EXPECT_EQ(NativeHostInstaller::executablePathOf(link), program) << "not replaced yet";

    const QString upgrade = folder.filePath(QStringLiteral("velnora.new"));
    ASSERT_TRUE(QFile::copy(QStringLiteral("/bin/sleep"), upgrade));
    ASSERT_EQ(::rename(QFile::encodeName(upgrade).constData(), QFile::encodeName(program).constData()), 0);
    EXPECT_EQ(QFile::symLinkTarget(link), program + QStringLiteral(" (deleted)")) << "the kernel's view";
    EXPECT_EQ(NativeHostInstaller::executablePathOf(link), program);

    ASSERT_TRUE(QFile::remove(program));
    EXPECT_EQ(NativeHostInstaller::executablePathOf(link), program + QStringLiteral(" (deleted)"));
    running.kill();
    running.waitForFinished(5000);
}

// The extension learns the browser service the user picked: one SET_BROWSER_PROVIDER for the latest
// choice, nothing for changes of other settings or for picking the same service again.
TEST(BrowserProviderSync, QueuesOneChoiceForEachChangeOfTheBrowserService)
{
    QTemporaryDir folder;
    ConfigurationStore configuration(folder.filePath(QStringLiteral("settings.conf")));
    RequestStore store(folder.filePath(QStringLiteral("data")));
    configuration.setBrowserProvider(BrowserProvider::kimi);
    BrowserProviderSync sync(configuration, store);
    const auto queuedChoices = [&] {
        QStringList providers;
        for (const RequestStore::Pending& pending : store.pendingRequests()) {
            providers.append(rawValue(pending.request.type) + u'=' + pending.request.provider.value_or(""));
        }
        return providers;
    };
    const std::vector<std::pair<std::function<void()>, QStringList>> steps{
        {[&] { configuration.setExplanationDepth(ExplanationDepth::deep); }, {}},
        {[&] { configuration.setBrowserProvider(BrowserProvider::kimi); }, {}},
        {[&] { configuration.setBrowserProvider(BrowserProvider::ernie); }, {"SET_BROWSER_PROVIDER=ernie"}},
        {[&] { configuration.setBrowserProvider(BrowserProvider::glm); }, {"SET_BROWSER_PROVIDER=glm"}},
        {[&] { store.enqueue(BridgeRequestType::newSession); }, {"SET_BROWSER_PROVIDER=glm", "NEW_SESSION="}},
        {[&] { configuration.setBrowserProvider(BrowserProvider::qwen); },
         {"NEW_SESSION=", "SET_BROWSER_PROVIDER=qwen"}},
    };
    for (std::size_t i = 0; i < steps.size(); ++i) {
        SCOPED_TRACE(i);
        steps[i].first();
        EXPECT_EQ(queuedChoices(), steps[i].second);
    }
}

// The self-tests wait up to 12 and 25 seconds for a browser; they must sleep through it, not spin.
TEST(BridgeSelfTestModes, RepairSelfTestWaitsWithoutSpinningACore)
{
    TemporaryHome home;
    EnvironmentGuard noBrowser;
    noBrowser.set("PATH", QFile::encodeName(home.filePath(QStringLiteral("no-programs"))));
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const QByteArray program = QFile::encodeName(velnoraBinary());
        ::execl(program.constData(), program.constData(), "--browser-repair-self-test", nullptr);
        ::_exit(127);
    }
    int status = 0;
    struct rusage usage
    {
    };
    ASSERT_EQ(::wait4(child, &status, 0, &usage), child);
    EXPECT_EQ(WEXITSTATUS(status), 1) << "no browser: the repair times out";
    const double cpuSeconds = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                              double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    // Spinning costs the whole 12 s of the wait; sleeping costs start-up and a few file checks.
    EXPECT_LT(cpuSeconds, 2.0);
}

} // namespace
