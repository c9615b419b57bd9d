// The files the package installs for the desktop, against what the application itself writes and
// claims: the autostart copy, the D-Bus name, and the first-run hint in the settings window.
#include "app/ControlBus.h"
#include "app/FirstRunHint.h"
#include "app/LaunchAtLogin.h"
#include "config/ConfigurationStore.h"
#include "support/TestEnvironment.h"

#include <QFile>
#include <QMap>
#include <QProcess>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace velnora {
namespace {

QString packagingFile(const QString& name)
{
    return test::sourceDir() + QStringLiteral("/packaging/") + name;
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
    return file.readAll();
}

// The keys of the [Desktop Entry] group, values as written.
QMap<QString, QString> entryKeys(const QByteArray& text)
{
    QMap<QString, QString> keys;
    bool inEntry = false;
    for (const QByteArray& raw : text.split('\n')) {
        const QString line = QString::fromUtf8(raw).trimmed();
        if (line.startsWith(u'[')) {
            inEntry = line == u"[Desktop Entry]";
        } else if (inEntry && line.contains(u'=') && !line.startsWith(u'#')) {
            const qsizetype at = line.indexOf(u'=');
            keys.insert(line.left(at).trimmed(), line.mid(at + 1).trimmed());
        }
    }
    return keys;
}

// desktop-file-validate's verdict: empty when the file is valid, else what it printed.
QString validate(const QString& path)
{
    const QString tool = QStandardPaths::findExecutable(QStringLiteral("desktop-file-validate"));
    if (tool.isEmpty()) {
        return QStringLiteral("desktop-file-validate is missing (desktop-file-utils)");
    }
    QProcess process;
    process.start(tool, {path});
    if (!process.waitForFinished(10000)) {
        return QStringLiteral("desktop-file-validate did not finish");
    }
    const QString output =
        QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError());
    return process.exitCode() == 0 && output.trimmed().isEmpty() ? QString() : output;
}

const QString packagedEntry = QStringLiteral("com.tarnwick.velnora.domestic.desktop");

TEST(DesktopEntryTest, PackagedAndAutostartEntriesAreValidAndAgree)
{
    EXPECT_EQ(validate(packagingFile(packagedEntry)), QString());

    QTemporaryDir folder;
    const QString autostartPath = folder.filePath(QStringLiteral("velnora.desktop"));
    {
        QFile file(autostartPath);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(LaunchAtLogin::entryText(QStringLiteral("/usr/bin/velnora")));
    }
    EXPECT_EQ(validate(autostartPath), QString());

    const auto packaged = entryKeys(readAll(packagingFile(packagedEntry)));
    const auto autostart = entryKeys(readAll(autostartPath));
    // What the user sees in the menu and in the session's autostart list is one program.
    for (const char* key : {"Type", "Name", "Comment", "Icon", "Terminal", "X-KDE-autostart-after"}) {
        EXPECT_EQ(packaged.value(QLatin1String(key)), autostart.value(QLatin1String(key))) << key;
        EXPECT_FALSE(packaged.value(QLatin1String(key)).isEmpty()) << key;
    }
    EXPECT_EQ(packaged.value(QStringLiteral("X-KDE-autostart-after")), QStringLiteral("panel"));
    EXPECT_EQ(autostart.value(QStringLiteral("Exec")), QStringLiteral("/usr/bin/velnora"));
    // The icon the entries name is the one the package installs.
    EXPECT_TRUE(QFile::exists(packagingFile(
        QStringLiteral("icons/") + packaged.value(QStringLiteral("Icon")) + QStringLiteral(".svg"))));
}

TEST(DesktopEntryTest, BusServiceFileNamesTheNameTheApplicationClaims)
{
    const QString name = QString::fromLatin1(ControlBus::serviceName);
    const QByteArray text = readAll(packagingFile(name + QStringLiteral(".service.in")));
    EXPECT_TRUE(text.startsWith("[D-BUS Service]\n"));
    EXPECT_TRUE(text.contains("\nName=" + name.toLatin1() + "\n")) << text.toStdString();
    EXPECT_TRUE(text.contains("\nExec=@VELNORA_EXEC@")) << text.toStdString();
}

class FirstRunHintTest : public ::testing::Test
{
protected:
    test::TemporaryHome m_home;
    const QString m_path = m_home.filePath(QStringLiteral("settings.conf"));
};

TEST_F(FirstRunHintTest, WithATrayOnlyTheSetupNoteOnlyOnce)
{
    ConfigurationStore store(m_path);
    EXPECT_EQ(FirstRunHint::takeLaunchMessage(store, true, QStringLiteral("Ctrl+Alt+E")),
              FirstRunHint::setupMessage());
    EXPECT_EQ(FirstRunHint::takeLaunchMessage(store, true, QStringLiteral("Ctrl+Alt+E")), std::nullopt);
}

TEST_F(FirstRunHintTest, WithoutATrayTheHotKeyAndSendSettingsAreNamedOnceAcrossLaunches)
{
    {
        ConfigurationStore store(m_path);
        const std::optional<QString> first =
            FirstRunHint::takeLaunchMessage(store, false, QStringLiteral("Super+Alt+E"));
        ASSERT_TRUE(first.has_value());
        EXPECT_TRUE(first->startsWith(FirstRunHint::setupMessage()));
        EXPECT_TRUE(first->contains(QStringLiteral("Super+Alt+E")));
        EXPECT_TRUE(first->contains(QStringLiteral("velnora --send-settings")));
    }
    // The next launch reads the same file afresh.
    ConfigurationStore again(m_path);
    EXPECT_TRUE(again.didShowVersion2Setup());
    EXPECT_EQ(FirstRunHint::takeLaunchMessage(again, false, QStringLiteral("Super+Alt+E")), std::nullopt);
}

TEST_F(FirstRunHintTest, ATrayThatGoesAwayAfterSetupIsStillExplainedOnce)
{
    {
        ConfigurationStore store(m_path);
        ASSERT_TRUE(FirstRunHint::takeLaunchMessage(store, true, QStringLiteral("Ctrl+Alt+E")));
    }
    ConfigurationStore store(m_path);
    EXPECT_EQ(FirstRunHint::takeLaunchMessage(store, false, QStringLiteral("Ctrl+Alt+E")),
              FirstRunHint::noTrayMessage(QStringLiteral("Ctrl+Alt+E")));
    EXPECT_EQ(FirstRunHint::takeLaunchMessage(store, false, QStringLiteral("Ctrl+Alt+E")), std::nullopt);
}

} // namespace
} // namespace velnora
