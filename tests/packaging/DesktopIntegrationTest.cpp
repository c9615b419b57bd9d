// The menu entry the package installs against the autostart entry the application writes: both
// valid for desktop-file-validate, and one program to the user.
#include "app/LaunchAtLogin.h"
#include "support/TestEnvironment.h"

#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace velnora {
namespace {

TEST(DesktopEntryTest, PackagedAndAutostartEntriesAreValidAndAgree)
{
    const QString packagedPath =
        test::sourceDir() + QStringLiteral("/packaging/com.tarnwick.velnora.domestic.desktop");
    QTemporaryDir folder;
    const QString autostartPath = folder.filePath(QStringLiteral("velnora.desktop"));
    QFile file(autostartPath);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(LaunchAtLogin::entryText(QStringLiteral("/usr/bin/velnora")));
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
    EXPECT_EQ(autostart.value(QStringLiteral("Desktop Entry/Exec")).toString(),
              QStringLiteral("/usr/bin/velnora"));
}

} // namespace
} // namespace velnora
