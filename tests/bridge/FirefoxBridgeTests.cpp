#include "BridgeTestFiles.h"
#include "bridge/FirefoxBrowser.h"
#include "config/ProviderCatalog.h"
#include "support/TestEnvironment.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace velnora;
using namespace velnora::test;

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
