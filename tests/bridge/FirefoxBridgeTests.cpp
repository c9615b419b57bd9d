#include "BridgeTestFiles.h"
#include "bridge/FirefoxBrowser.h"
#include "bridge/NativeHostInstaller.h"
#include "bridge/RequestStore.h"
#include "config/ProviderCatalog.h"
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

QByteArray extensionsJson(const QStringList& ids)
{
    QJsonArray addons;
    for (const QString& id : ids) {
        addons.append(QJsonObject{{"id", id}, {"active", true}, {"version", "2.11.1"}});
    }
    return QJsonDocument(QJsonObject{{"schemaVersion", 37}, {"addons", addons}}).toJson();
}

} // namespace

// Which profile Firefox starts with, as profiles.ini says in the forms Firefox writes it.
TEST(FirefoxBrowser, FindsTheProfileFirefoxStartsWith)
{
    const struct
    {
        const char* name;
        QByteArray ini;   // no file when empty
        QString expected; // relative to the root, or absolute; none when empty
    } cases[] = {
        {"install section wins over Default=1",
         "[Profile1]\nName=old\nIsRelative=1\nPath=old.default\nDefault=1\n\n"
         "[Profile0]\nName=default-release\nIsRelative=1\nPath=abc.default-release\n\n"
         "[Install4F96D1932A9F858E]\nDefault=abc.default-release\nLocked=1\n",
         "abc.default-release"},
        {"Default=1 among several", "[Profile0]\nPath=a\n\n[Profile1]\nPath=b\nDefault=1\n", "b"},
        {"the only profile", "[General]\nStartWithLastProfile=1\n\n[Profile0]\nIsRelative=1\nPath=only\n",
         "only"},
        {"absolute path", "[Profile0]\nIsRelative=0\nPath=/srv/ff/p\nDefault=1\n", "/srv/ff/p"},
        {"several, none marked", "[Profile0]\nPath=a\n\n[Profile1]\nPath=b\n", ""},
        {"no profiles.ini", "", ""},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        QTemporaryDir root;
        if (!row.ini.isEmpty()) {
            writeFile(root.filePath("profiles.ini"), row.ini);
        }
        const std::optional<QString> expected =
            row.expected.isEmpty()
                ? std::nullopt
                : std::optional(row.expected.startsWith(u'/') ? row.expected : root.filePath(row.expected));
        EXPECT_EQ(FirefoxBrowser::defaultProfile(root.path()), expected);
    }
}

TEST(FirefoxBrowser, ReadsTheExtensionFromExtensionsJsonAndTheLiveBrowserFromTheLock)
{
    const QString ours = ExplainerConstants::firefoxExtensionIdentifier();
    const struct
    {
        const char* name;
        QByteArray extensions; // no file when empty
        ChromeExtensionInstall::Kind expected;
    } installs[] = {
        {"ours among others", extensionsJson({"formautofill@mozilla.org", ours}),
         ChromeExtensionInstall::Kind::installed},
        {"only Firefox's own", extensionsJson({"formautofill@mozilla.org"}),
         ChromeExtensionInstall::Kind::absent},
        {"truncated file", extensionsJson({ours}).chopped(20), ChromeExtensionInstall::Kind::unknown},
        {"no file", "", ChromeExtensionInstall::Kind::unknown},
    };
    for (const auto& row : installs) {
        SCOPED_TRACE(row.name);
        QTemporaryDir profile;
        if (!row.extensions.isEmpty()) {
            writeFile(profile.filePath("extensions.json"), row.extensions);
        }
        EXPECT_EQ(FirefoxBrowser::inspect(ours, profile.path()).kind, row.expected);
    }

    const struct
    {
        const char* name;
        QString link; // no lock when empty
        bool running;
    } locks[] = {
        {"live pid", QStringLiteral("127.0.1.1:+%1").arg(::getpid()), true},
        {"left by a crash", QStringLiteral("127.0.1.1:+%1").arg(finishedPid()), false},
        {"not a pid", QStringLiteral("127.0.1.1:+firefox"), false},
        {"no lock", QString(), false},
    };
    for (const auto& row : locks) {
        SCOPED_TRACE(row.name);
        QTemporaryDir profile;
        if (!row.link.isEmpty()) {
            ASSERT_TRUE(QFile::link(row.link, profile.filePath("lock")));
        }
        EXPECT_EQ(FirefoxBrowser::isRunning(profile.path()), row.running);
    }
}

// The classic folder when ~/.mozilla exists, the Snap one when the Snap build has run; Firefox's
// manifests admit the gecko ID only.
TEST(NativeHostInstaller, WritesFirefoxManifestsForTheClassicAndSnapFolders)
{
    for (const bool snap : {false, true}) {
        SCOPED_TRACE(snap ? "with Snap" : "classic only");
        TemporaryHome home;
        QDir().mkpath(home.filePath(".mozilla/firefox"));
        if (snap) {
            QDir().mkpath(home.filePath("snap/firefox/common/.mozilla"));
        }
        const QStringList written = NativeHostInstaller::installForAllBrowsers(
            QUrl::fromLocalFile(QStringLiteral("/usr/bin/velnora")));
        QStringList firefox{
            home.filePath(".mozilla/native-messaging-hosts/com.tarnwick.velnora.domestic.json")};
        if (snap) {
            firefox.append(home.filePath(
                "snap/firefox/common/.mozilla/native-messaging-hosts/com.tarnwick.velnora.domestic.json"));
        }
        EXPECT_EQ(written.mid(written.size() - firefox.size()), firefox);
        for (const QString& path : firefox) {
            const QJsonObject manifest = QJsonDocument::fromJson(readFile(path)).object();
            EXPECT_EQ(manifest.value("allowed_extensions").toArray(),
                      QJsonArray{ExplainerConstants::firefoxExtensionIdentifier()});
            EXPECT_FALSE(manifest.contains("allowed_origins"));
            EXPECT_EQ(manifest.value("path").toString(), QStringLiteral("/usr/bin/velnora"));
            EXPECT_EQ(permissions(path), 0644u);
        }
    }
}

// --bridge-status when Firefox is the browser with the extension: Firefox's sentences for each state.
TEST(BridgeStatusMode, NamesFirefoxWhenItIsTheBrowserWithTheExtension)
{
    const QString ours = ExplainerConstants::firefoxExtensionIdentifier();
    const QString repair = QStringLiteral("○ 未连接 · 连接配置需要修复");
    struct Case
    {
        const char* name;
        QString statusExtension; // a live heartbeat whose last status came from this ID; none when empty
        QString admitted;        // the manifest's gecko ID; no manifest when empty
        bool running;
        QStringList addons;
        bool chromeInUse; // a Chrome without the extension beside it
        int exitCode;
        QString status, advice;
    };
    const std::vector<Case> cases{
        {"connected through Firefox",
         ours,
         "",
         false,
         {},
         true,
         0,
         "● Firefox 已连接",
         "Firefox 扩展已连接，划词即可发到网页会话。"},
        {"connected through Chrome",
         ExplainerConstants::extensionIdentifier(),
         "",
         false,
         {},
         false,
         0,
         "● Chrome 已连接",
         "Chrome 扩展已连接，划词即可发到网页会话。"},
        {"no manifest",
         "",
         "",
         true,
         {ours},
         true,
         2,
         repair,
         "Firefox 还没有本机的连接配置。点「修复连接」重新写入，再重启 Firefox。"},
        {"manifest admits another add-on",
         "",
         "other@example.org",
         true,
         {ours},
         false,
         2,
         repair,
         "连接配置授权的不是当前扩展 ID，Firefox 会直接拒绝连接。点「修复连接」写入当前 ID，再重启 "
         "Firefox。"},
        {"Firefox closed",
         "",
         ours,
         false,
         {ours},
         true,
         2,
         "○ 未连接 · Firefox 没有运行",
         "Firefox 没有运行。点「修复连接」会在后台把它唤起。"},
        {"running without the extension",
         "",
         ours,
         true,
         {},
         false,
         2,
         "○ 未连接 · 未发现本版扩展记录",
         "默认 Firefox "
         "配置文件中未发现本版扩展记录；这不代表其他配置文件中没有安装。点「安装扩展」查看安装方法："
         "正式版 Firefox 请从澜镜官网安装签名版扩展；开发时可在 Firefox ESR "
         "或开发者版中关闭签名要求后安装未签名版。"},
        {"running with a silent extension",
         "",
         ours,
         true,
         {ours},
         true,
         2,
         "○ 未连接 · 扩展尚未连接",
         "Firefox "
         "在运行，但扩展的后台没连上。它自己每半分钟会重连一次，划词请求会排在队列里等它回来；一直不连就到 "
         "about:addons 确认「澜镜 · 网页会话桥」已启用，必要时停用后再启用一次。"},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.name);
        TemporaryHome home;
        const QString profile = home.filePath(".mozilla/firefox/x.default-release/");
        writeFile(home.filePath(".mozilla/firefox/profiles.ini"),
                  "[Profile0]\nPath=x.default-release\nIsRelative=1\nDefault=1\n");
        writeFile(profile + "extensions.json", extensionsJson(row.addons));
        ASSERT_TRUE(QFile::link(QStringLiteral("127.0.1.1:+%1").arg(row.running ? ::getpid() : finishedPid()),
                                profile + "lock"));
        if (row.chromeInUse) {
            writeFile(home.configHome() + "/google-chrome/Local State", "{}");
            writeFile(home.configHome() + "/google-chrome/Default/Preferences", "{}");
        }
        if (!row.admitted.isEmpty()) {
            const QString path =
                NativeHostInstaller::install(home.filePath(".mozilla/native-messaging-hosts"),
                                             QUrl::fromLocalFile(velnoraBinary()), BrowserFamily::firefox);
            writeFile(path, readFile(path).replace(ours.toUtf8(), row.admitted.toUtf8()));
        }
        if (!row.statusExtension.isEmpty()) {
            const RequestStore store;
            store.markBridgeActive();
            writeFile(store.extensionStatusFilePath(),
                      QJsonDocument(QJsonObject{{"extensionID", row.statusExtension}, {"version", "2.11.1"}})
                          .toJson());
        }
        const auto [exitCode, lines] = runMode(QStringLiteral("--bridge-status"));
        EXPECT_EQ(exitCode, row.exitCode);
        EXPECT_EQ(lines.mid(0, 2).join(u'\n').toStdString(), (row.status + u'\n' + row.advice).toStdString());
    }

    // Flatpak's Firefox runs the extension but cannot start the host; its lock's pid means nothing here.
    TemporaryHome home;
    const QString flatpak = home.filePath(".var/app/org.mozilla.firefox/.mozilla/firefox/");
    writeFile(flatpak + "profiles.ini", "[Profile0]\nPath=f\nDefault=1\n");
    writeFile(flatpak + "f/extensions.json", extensionsJson({ours}));
    ASSERT_TRUE(QFile::link("127.0.1.1:+2", flatpak + "f/lock"));
    NativeHostInstaller::installForAllBrowsers(QUrl::fromLocalFile(velnoraBinary()));
    EXPECT_EQ(
        runMode(QStringLiteral("--bridge-status")).second.mid(0, 2),
        (QStringList{"○ 未连接 · 浏览器在沙盒中运行",
                     "Flatpak 版 Firefox 运行在沙盒里，启动不了澜镜的连接程序。请改用软件源（deb 包）或 Snap "
                     "安装的 Firefox，并在其中安装澜镜扩展。"}));
}
