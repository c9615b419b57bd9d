#include "bridge/FirefoxBrowser.h"

#include "bridge/ChromiumBrowsers.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QStandardPaths>

namespace velnora::FirefoxBrowser {

namespace {

QString underHome(const QString& relative)
{
    return QDir(QDir::homePath()).filePath(relative);
}

QString resolved(const QString& root, const QSettings& ini, const QString& section, const QString& path)
{
    const bool relative = ini.value(section + QStringLiteral("/IsRelative"), 1).toInt() != 0;
    return QDir::cleanPath(relative ? QDir(root).filePath(path) : path);
}

} // namespace

const std::vector<Installation>& all()
{
    static const std::vector<Installation> installations{
        {QStringLiteral("firefox"), QStringLiteral(".mozilla/firefox"),
         QStringLiteral(".mozilla/native-messaging-hosts"), QStringLiteral("Firefox")},
        {QStringLiteral("firefox-xdg"), QStringLiteral(".config/mozilla/firefox"),
         QStringLiteral(".mozilla/native-messaging-hosts"), QStringLiteral("Firefox")},
        {QStringLiteral("firefox-snap"), QStringLiteral("snap/firefox/common/.mozilla/firefox"),
         QStringLiteral("snap/firefox/common/.mozilla/native-messaging-hosts"),
         QStringLiteral("Snap 版 Firefox")},
        {QStringLiteral("firefox-flatpak"), QStringLiteral(".var/app/org.mozilla.firefox/.mozilla/firefox"),
         QStringLiteral(".var/app/org.mozilla.firefox/.mozilla/native-messaging-hosts"),
         QStringLiteral("Flatpak 版 Firefox"), true},
    };
    return installations;
}

QString profilesRoot(const Installation& installation)
{
    return underHome(installation.profilesRoot);
}

QString nativeMessagingHostsDirectory(const Installation& installation)
{
    return underHome(installation.hostsFolder);
}

bool isInUse(const Installation& installation)
{
    return QFileInfo::exists(QDir(profilesRoot(installation)).filePath(QStringLiteral("profiles.ini")));
}

bool hasDataFolder(const Installation& installation)
{
    // The folder above native-messaging-hosts: ~/.mozilla, ~/snap/firefox/common/.mozilla.
    return isInUse(installation) ||
           QFileInfo(QFileInfo(nativeMessagingHostsDirectory(installation)).absolutePath()).isDir();
}

std::optional<QString> defaultProfile(const QString& root)
{
    const QString iniPath = QDir(root).filePath(QStringLiteral("profiles.ini"));
    if (!QFileInfo(iniPath).isFile()) {
        return std::nullopt;
    }
    const QSettings ini(iniPath, QSettings::IniFormat);
    std::optional<QString> marked;
    std::optional<QString> only;
    int profiles = 0;
    for (const QString& group : ini.childGroups()) {
        const QString path =
            ini.value(group + (group.startsWith(QStringLiteral("Install")) ? QStringLiteral("/Default")
                                                                           : QStringLiteral("/Path")))
                .toString();
        if (path.isEmpty()) {
            continue;
        }
        // An [Install…] section always names a path relative to the root.
        if (group.startsWith(QStringLiteral("Install"))) {
            return QDir::cleanPath(QDir(root).filePath(path));
        }
        if (!group.startsWith(QStringLiteral("Profile"))) {
            continue;
        }
        ++profiles;
        only = resolved(root, ini, group, path);
        if (!marked && ini.value(group + QStringLiteral("/Default")).toInt() == 1) {
            marked = only;
        }
    }
    if (marked) {
        return marked;
    }
    return profiles == 1 ? only : std::nullopt;
}

ChromeExtensionInstall inspect(const QString& extensionIdentifier, const QString& profileFolder)
{
    QFile file(QDir(profileFolder).filePath(QStringLiteral("extensions.json")));
    if (!file.open(QIODevice::ReadOnly)) {
        return ChromeExtensionInstall::unknown();
    }
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    const QJsonValue addons = document.object().value(QStringLiteral("addons"));
    if (!addons.isArray()) {
        return ChromeExtensionInstall::unknown();
    }
    for (const QJsonValue& addon : addons.toArray()) {
        if (addon.toObject().value(QStringLiteral("id")).toString() == extensionIdentifier) {
            return ChromeExtensionInstall::installed();
        }
    }
    return ChromeExtensionInstall::absent();
}

bool isRunning(const QString& profileFolder, bool sandboxed)
{
    if (sandboxed) {
        return QFileInfo(QDir(profileFolder).filePath(QStringLiteral("lock"))).isSymLink();
    }
    // "127.0.1.1:+4242"; a crash leaves the link behind, so only a live pid counts.
    const QString link =
        QFileInfo(QFile::symLinkTarget(QDir(profileFolder).filePath(QStringLiteral("lock")))).fileName();
    const qsizetype plus = link.lastIndexOf(QStringLiteral(":+"));
    bool ok = false;
    const qint64 pid = plus < 0 ? 0 : link.mid(plus + 2).toLongLong(&ok);
    return ok && ChromiumBrowsers::isProcessAlive(pid);
}

std::optional<QString> findProgram()
{
    for (const char* program : {"firefox", "firefox-esr", "firefox-developer-edition"}) {
        const QString path = QStandardPaths::findExecutable(QLatin1String(program));
        if (!path.isEmpty()) {
            return path;
        }
    }
    return std::nullopt;
}

} // namespace velnora::FirefoxBrowser
