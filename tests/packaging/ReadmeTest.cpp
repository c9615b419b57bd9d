// The README against the code it describes: a newcomer follows it word for word, so every menu item,
// path, key name and command it names must be what the program and the build really have. And the menu
// entry the package installs against the autostart entry the application writes.
#include "app/LaunchAtLogin.h"
#include "app/StatusMenu.h"
#include "bridge/RequestStore.h"
#include "capture/HotKeyChoice.h"
#include "config/ConfigurationStore.h"
#include "config/KeychainStore.h"
#include "support/TestEnvironment.h"

#include <QAction>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace velnora {
namespace {

QString readSource(const QString& relative)
{
    QFile file(test::sourceDir() + u'/' + relative);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(relative);
    return QString::fromUtf8(file.readAll());
}

// The recipe lines of one Makefile target.
QString recipe(const QString& makefile, const QString& target)
{
    const QRegularExpression block(QStringLiteral("^%1:[^\n]*\n((?:\t[^\n]*\n)*)").arg(target),
                                   QRegularExpression::MultilineOption);
    return block.match(makefile).captured(1);
}

TEST(ReadmeTest, NamesTheTrayMenuAsItIs)
{
    const QString readme = readSource(QStringLiteral("README.md"));
    const QRegularExpression listed(QStringLiteral("点开就是菜单：([^。]+)。"));
    const QRegularExpressionMatch match = listed.match(readme);
    ASSERT_TRUE(match.hasMatch());
    QStringList named = match.captured(1).split(u'、');
    for (QString& item : named) {
        item = item.trimmed();
    }

    StatusMenu menu;
    QStringList actual;
    for (const QAction* action : menu.actions()) {
        if (!action->isSeparator()) {
            actual << action->text();
        }
    }
    EXPECT_EQ(named.join(u'、').toStdString(), actual.join(u'、').toStdString());
    for (const HotKeyChoice& choice : HotKeyChoice::all()) {
        EXPECT_TRUE(readme.contains(choice.title)) << qPrintable(choice.title);
    }
}

TEST(ReadmeTest, NamesThePathsAndKeysTheProgramUses)
{
    const QString readme = readSource(QStringLiteral("README.md"));
    test::TemporaryHome home;
    test::EnvironmentGuard environment;
    environment.unset("VELNORA_DATA_DIR");
    const auto asTyped = [&](const QString& path) {
        return QStringLiteral("~") + QDir::cleanPath(path).mid(QDir::cleanPath(home.path()).size());
    };
    const QString paths[] = {
        asTyped(ConfigurationStore::defaultSettingsPath()), asTyped(RequestStore::defaultDirectory()),
        asTyped(LaunchAtLogin::autostartFilePath()),        QStringLiteral("/usr/share/velnora/extension"),
        QString::fromLatin1(KeychainStore::defaultService),
    };
    for (const QString& path : paths) {
        EXPECT_TRUE(readme.contains(path)) << qPrintable(path);
    }
    // Versions come from the build; one typed into the README goes stale with the next release.
    const QRegularExpression version(QStringLiteral("\\b\\d+\\.\\d+\\.\\d+\\b"));
    EXPECT_FALSE(readme.contains(version)) << qPrintable(version.match(readme).captured());
}

TEST(ReadmeTest, TheTwoCommandsInstallWhatItSays)
{
    const QString readme = readSource(QStringLiteral("README.md"));
    const QString makefile = readSource(QStringLiteral("Makefile"));
    const QString installer = readSource(QStringLiteral("scripts/install-deps.sh"));
    const struct
    {
        const char* target;
        QStringList groups;
    } commands[] = {
        {"run", {QStringLiteral("build"), QStringLiteral("run")}},
        {"test", {QStringLiteral("build"), QStringLiteral("run"), QStringLiteral("test")}},
    };
    for (const auto& command : commands) {
        const QString target = QString::fromLatin1(command.target);
        EXPECT_TRUE(readme.contains(QStringLiteral("make ") + target)) << command.target;
        const QString lines = recipe(makefile, target);
        EXPECT_TRUE(
            lines.contains(QStringLiteral("./scripts/install-deps.sh ") + command.groups.join(u' ') + u'\n'))
            << command.target << ": " << qPrintable(lines);
    }
    // What only the tests need stays out of the groups make run installs.
    const QRegularExpression group(QStringLiteral("^(\\w+)_packages=\\(([^)]*)\\)"),
                                   QRegularExpression::MultilineOption);
    QMap<QString, QStringList> packages;
    for (auto it = group.globalMatch(installer); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        packages[match.captured(1)] =
            match.captured(2).split(QRegularExpression(QStringLiteral("\\s+")), Qt::SkipEmptyParts);
    }
    for (const char* name : {"build", "run", "test"}) {
        ASSERT_TRUE(packages.contains(QLatin1String(name))) << name;
    }
    EXPECT_FALSE(packages[QStringLiteral("build")].contains(QStringLiteral("clang"))); // make fuzz alone
    for (const char* testOnly :
         {"chromium", "firefox-esr", "nodejs", "lintian", "imagemagick", "trayer", "xvfb", "libgtest-dev"}) {
        EXPECT_FALSE(packages[QStringLiteral("build")].contains(QLatin1String(testOnly))) << testOnly;
        EXPECT_FALSE(packages[QStringLiteral("run")].contains(QLatin1String(testOnly))) << testOnly;
        EXPECT_TRUE(packages[QStringLiteral("test")].contains(QLatin1String(testOnly))) << testOnly;
    }
}

// Both valid for desktop-file-validate, and one program to the user.
TEST(DesktopEntryTest, PackagedAndAutostartEntriesAreValidAndAgree)
{
    const QString packagedPath = test::sourceDir() + "/packaging/com.tarnwick.velnora.domestic.desktop";
    QTemporaryDir folder;
    const QString autostartPath = folder.filePath("velnora.desktop");
    QFile file(autostartPath);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(LaunchAtLogin::entryText("/usr/bin/velnora"));
    file.close();
    EXPECT_EQ(QProcess::execute("desktop-file-validate", {packagedPath}), 0);
    EXPECT_EQ(QProcess::execute("desktop-file-validate", {autostartPath}), 0);

    // INI reading is enough for the keys compared here: none holds a list or an escape.
    QSettings packaged(packagedPath, QSettings::IniFormat);
    QSettings autostart(autostartPath, QSettings::IniFormat);
    for (const char* key : {"Type", "Name", "Comment", "Icon", "Terminal", "X-KDE-autostart-after"}) {
        const QString name = QStringLiteral("Desktop Entry/") + QLatin1String(key);
        EXPECT_FALSE(packaged.value(name).toString().isEmpty()) << key;
        EXPECT_EQ(packaged.value(name), autostart.value(name)) << key;
    }
    EXPECT_EQ(autostart.value("Desktop Entry/Exec").toString(), "/usr/bin/velnora");
}

} // namespace
} // namespace velnora
