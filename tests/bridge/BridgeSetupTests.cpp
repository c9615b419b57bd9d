#include "BridgeTestFiles.h"
#include "bridge/BrowserProviderSync.h"
#include "bridge/ChromeProfileProbe.h"
#include "bridge/ChromiumBrowsers.h"
#include "bridge/NativeHostInstaller.h"
#include "bridge/RequestStore.h"
#include "config/ConfigurationStore.h"
#include "config/ProviderCatalog.h"
#include "support/TestEnvironment.h"

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

QByteArray preferences(const QJsonObject& settings)
{
    return QJsonDocument(QJsonObject{{"extensions", QJsonObject{{"settings", settings}}}}).toJson();
}

TEST(BridgeSelfTestModes, InstallerAndDiagnosticsChecksPass)
{
    for (const QString mode : {"native-host-installer-self-test", "bridge-diagnostics-self-test"}) {
        EXPECT_EQ(runMode("--" + mode), std::make_pair(0, QStringList{mode + ": ok"}));
    }
}

TEST(NativeHostInstaller, InstallsForChromeAndThePresentBrowsersAndPutsAnEditedManifestRight)
{
    TemporaryHome home;
    const QString config = home.configHome() + u'/';
    const QString manifest = QStringLiteral("/NativeMessagingHosts/com.tarnwick.velnora.domestic.json");
    QDir().mkpath(config + "BraveSoftware/Brave-Browser");
    const QString edited = config + "chromium" + manifest;
    writeFile(edited, "{}");
    ::chmod(QFile::encodeName(edited).constData(), 0600);

    EXPECT_EQ(NativeHostInstaller::installForAllBrowsers(QUrl::fromLocalFile("/usr/local/./bin//velnora")),
              (QStringList{config + "google-chrome" + manifest, edited,
                           config + "BraveSoftware/Brave-Browser" + manifest}));
    for (const char* absent : {"microsoft-edge", "vivaldi"}) {
        EXPECT_FALSE(QFileInfo::exists(config + absent)) << absent;
    }
    EXPECT_TRUE(readFile(edited).contains("\"path\": \"/usr/local/bin/velnora\""))
        << readFile(edited).constData();
    EXPECT_EQ(permissions(edited), 0644u);
    // Chrome's folder holding only our manifest does not make Chrome the browser in use.
    writeFile(config + "chromium/Local State", "{}");
    EXPECT_EQ(NativeHostInstaller::hostDirectoryURL(), config + "chromium/NativeMessagingHosts");
}

// --bridge-status over a throwaway home: the status line and the advice a user reads.
TEST(BridgeStatusMode, EachMainStateGetsItsOwnChineseText)
{
    const QString ours = ExplainerConstants::extensionIdentifier();
    const QString notExecutable = sourceDir() + QStringLiteral("/CMakeLists.txt");
    const QString repair = QStringLiteral("○ 未连接 · 连接配置需要修复");
    // This very process stands in for the running browser; a finished one for a lock left by a crash.
    const qint64 alive = ::getpid();
    const qint64 crashed = finishedPid();
    struct Case
    {
        const char* name;
        bool heartbeat;
        QString manifestPath; // none when empty
        qint64 lockPid;       // the browser's SingletonLock names it; none when 0
        QByteArray securePreferences, preferences;
        QString status, advice;
    };
    const std::vector<Case> cases{
        {"nothing set up", false, "", 0, "", "", repair,
         "Chrome 还没有本机的连接配置。点「修复连接」重新写入，再到 chrome://extensions 重新加载扩展。"},
        {"live heartbeat", true, "", 0, "", "", "● Chrome 已连接",
         "Chrome 扩展已连接，划词即可发到网页会话。"},
        {"manifest names no program", false, notExecutable, alive, "", preferences({}), repair,
         "连接配置指向的应用已经不在了（" + notExecutable + "）。点「修复连接」让它指向当前这份。"},
        {"browser crashed", false, velnoraBinary(), crashed, "", preferences({}),
         "○ 未连接 · Chrome 没有运行", "Chrome 没有运行。点「修复连接」会在后台把它唤起。"},
        {"extension absent", false, velnoraBinary(), alive, "", preferences({}),
         "○ 未连接 · 未发现本版扩展记录",
         "默认 Chrome 数据目录中未发现本版扩展记录；这不代表其他用户数据目录中没有安装。"
         "点「安装扩展」打开扩展页核对版本；如需安装配套扩展，开启「开发者模式」→"
         "「加载已解压的扩展程序」→ 按 Ctrl+L 粘贴路径回车。"},
        {"other edition", false, velnoraBinary(), alive, "",
         preferences({{ChromeProfileProbe::otherEditionIdentifier, QJsonObject{}}}),
         "○ 未连接 · 应用与扩展版本不匹配",
         "已检测到澜镜扩展，但它与当前应用不匹配。"
         "点「安装配套扩展」加载当前应用自带的扩展，或使用与已安装扩展对应的应用。"},
        // Chrome keeps the location in Secure Preferences and the folder in Preferences.
        {"unpacked but silent", false, velnoraBinary(), alive,
         preferences({{ours, QJsonObject{{"location", 4}}}}),
         preferences({{ours, QJsonObject{{"location", 1}, {"path", "/srv/ext"}}}}), "○ 未连接 · 扩展尚未连接",
         "已检测到本版扩展，但尚未建立连接。请到 chrome://extensions 确认扩展已启用，并重新加载 /srv/ext。"},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.name);
        TemporaryHome home;
        const QString chrome = home.configHome() + QStringLiteral("/google-chrome/");
        if (row.heartbeat) {
            RequestStore().markBridgeActive();
        }
        if (!row.manifestPath.isEmpty()) {
            NativeHostInstaller::install(chrome + "NativeMessagingHosts",
                                         QUrl::fromLocalFile(row.manifestPath));
        }
        writeFile(chrome + "Default/Secure Preferences", row.securePreferences);
        writeFile(chrome + "Default/Preferences", row.preferences);
        if (row.lockPid != 0) {
            ASSERT_TRUE(
                QFile::link(QStringLiteral("testhost-%1").arg(row.lockPid), chrome + "SingletonLock"));
        }
        const auto [exitCode, lines] = runMode(QStringLiteral("--bridge-status"));
        EXPECT_EQ(exitCode, row.heartbeat ? 0 : 2);
        EXPECT_EQ(lines.mid(0, 2).join(u'\n').toStdString(), (row.status + u'\n' + row.advice).toStdString());
    }
}

// Diagnosis follows the browser that runs and carries the extension, wherever it keeps its data; the
// installer covers the Flatpak and Snap folders as soon as they exist.
TEST(BridgeStatusMode, LooksAtTheRunningBrowserWithTheExtensionIncludingSandboxedOnes)
{
    const QString ours = ExplainerConstants::extensionIdentifier();
    const QByteArray withExtension =
        preferences({{ours, QJsonObject{{"location", 4}, {"path", "/srv/ext"}}}});
    struct Browser
    {
        QString folder; // under HOME
        bool running;
        QByteArray preferences;
    };
    struct Case
    {
        const char* name;
        std::vector<Browser> browsers;
        QString status, advice;
    };
    const QString chrome = QStringLiteral(".config/google-chrome");
    const QString chromium = QStringLiteral(".config/chromium");
    const QString flatpak = QStringLiteral(".var/app/org.chromium.Chromium/config/chromium");
    const QString snap = QStringLiteral("snap/chromium/common/chromium");
    const QString silent = QStringLiteral("○ 未连接 · 扩展尚未连接");
    const QString sandboxed = QStringLiteral("○ 未连接 · 浏览器在沙盒中运行");
    const std::vector<Case> cases{
        {"Chrome closed, Chromium running",
         {{chrome, false, {}}, {chromium, true, withExtension}},
         silent,
         {}},
        {"both running, only Chromium has it",
         {{chrome, true, preferences({})}, {chromium, true, withExtension}},
         silent,
         {}},
        {"Flatpak Chromium running with it",
         {{chrome, false, {}}, {flatpak, true, withExtension}},
         sandboxed,
         "Flatpak 版 Chromium 运行在沙盒里，启动不了澜镜的连接程序。请改用软件源（deb 包）安装的 Google "
         "Chrome "
         "或 Chromium，并在其中加载澜镜扩展。"},
        {"Snap Chromium running with it", {{snap, true, withExtension}}, sandboxed, {}},
        {"nothing running",
         {{chrome, false, {}}, {flatpak, false, withExtension}},
         "○ 未连接 · Chrome 没有运行",
         {}},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.name);
        TemporaryHome home;
        for (const Browser& browser : row.browsers) {
            const QString folder = home.filePath(browser.folder) + u'/';
            writeFile(folder + "Local State", "{}");
            writeFile(folder + "Default/Preferences", browser.preferences);
            if (browser.running) {
                ASSERT_TRUE(
                    QFile::link(QStringLiteral("testhost-%1").arg(::getpid()), folder + "SingletonLock"));
            }
        }
        const QStringList written =
            NativeHostInstaller::installForAllBrowsers(QUrl::fromLocalFile(velnoraBinary()));
        for (const Browser& browser : row.browsers) {
            EXPECT_TRUE(written.contains(home.filePath(browser.folder) +
                                         "/NativeMessagingHosts/com.tarnwick.velnora.domestic.json"))
                << browser.folder.toStdString();
        }
        const auto [exitCode, lines] = runMode(QStringLiteral("--bridge-status"));
        EXPECT_EQ(exitCode, 2);
        EXPECT_EQ(lines.value(0), row.status);
        if (!row.advice.isEmpty()) {
            EXPECT_EQ(lines.value(1), row.advice);
        }
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
