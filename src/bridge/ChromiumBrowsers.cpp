#include "bridge/ChromiumBrowsers.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <cerrno>
#include <csignal>
#include <unistd.h>

namespace velnora::ChromiumBrowsers {

namespace {

QString configHome()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
}

std::optional<bool> singletonLockSaysRunning(const QString& userDataDirectory)
{
    const QString target =
        QFile::symLinkTarget(QDir(userDataDirectory).filePath(QStringLiteral("SingletonLock")));
    if (target.isEmpty()) {
        return std::nullopt;
    }
    const QString linkText = QFileInfo(target).fileName();
    const qsizetype dash = linkText.lastIndexOf(u'-');
    bool ok = false;
    const qint64 pid = linkText.mid(dash + 1).toLongLong(&ok);
    if (dash < 0 || !ok) {
        return std::nullopt;
    }
    // A crash leaves the link behind; only a live pid counts.
    return isProcessAlive(pid);
}

QStringList commandLine(const QString& pidDirectory)
{
    QFile file(pidDirectory + QStringLiteral("/cmdline"));
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    QStringList arguments;
    for (const QByteArray& piece : file.readAll().split('\0')) {
        if (!piece.isEmpty()) {
            arguments.append(QString::fromLocal8Bit(piece));
        }
    }
    return arguments;
}

bool processScanSaysRunning(const Browser& browser, const QString& userDataDirectory)
{
    const QString wanted = QDir::cleanPath(userDataDirectory);
    const QString ownDefault = QDir::cleanPath(ChromiumBrowsers::userDataDirectory(browser));
    const QDir proc(QStringLiteral("/proc"));
    for (const QString& entry : proc.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        bool numeric = false;
        entry.toLongLong(&numeric);
        if (!numeric) {
            continue;
        }
        const QStringList arguments = commandLine(proc.filePath(entry));
        if (arguments.isEmpty() || !browser.processNames.contains(QFileInfo(arguments.first()).fileName())) {
            continue;
        }
        QString dataDirectory = ownDefault;
        bool child = false;
        for (const QString& argument : arguments) {
            if (argument.startsWith(QStringLiteral("--type="))) {
                child = true;
            } else if (argument.startsWith(QStringLiteral("--user-data-dir="))) {
                dataDirectory = QDir::cleanPath(argument.mid(16));
            }
        }
        if (!child && dataDirectory == wanted) {
            return true;
        }
    }
    return false;
}

} // namespace

bool isProcessAlive(qint64 pid)
{
    if (pid <= 0) {
        return false;
    }
    return ::kill(pid_t(pid), 0) == 0 || errno == EPERM;
}

const std::vector<Browser>& all()
{
    using Sandbox = Browser::Sandbox;
    const QStringList chrome{QStringLiteral("chrome")};
    const QStringList chromium{QStringLiteral("chromium"), QStringLiteral("chromium-browser")};
    static const std::vector<Browser> browsers{
        {QStringLiteral("google-chrome"),
         QStringLiteral("google-chrome"),
         {QStringLiteral("google-chrome-stable"), QStringLiteral("google-chrome")},
         {QStringLiteral("chrome"), QStringLiteral("google-chrome"), QStringLiteral("google-chrome-stable")},
         Sandbox::none,
         QStringLiteral("Google Chrome")},
        {QStringLiteral("google-chrome-beta"),
         QStringLiteral("google-chrome-beta"),
         {QStringLiteral("google-chrome-beta")},
         {QStringLiteral("chrome"), QStringLiteral("google-chrome-beta")},
         Sandbox::none,
         QStringLiteral("Google Chrome Beta")},
        {QStringLiteral("google-chrome-unstable"),
         QStringLiteral("google-chrome-unstable"),
         {QStringLiteral("google-chrome-unstable")},
         {QStringLiteral("chrome"), QStringLiteral("google-chrome-unstable")},
         Sandbox::none,
         QStringLiteral("Google Chrome Dev")},
        {QStringLiteral("chromium"), QStringLiteral("chromium"), chromium, chromium, Sandbox::none,
         QStringLiteral("Chromium")},
        {QStringLiteral("brave"),
         QStringLiteral("BraveSoftware/Brave-Browser"),
         {QStringLiteral("brave-browser"), QStringLiteral("brave")},
         {QStringLiteral("brave"), QStringLiteral("brave-browser")},
         Sandbox::none,
         QStringLiteral("Brave")},
        {QStringLiteral("microsoft-edge"),
         QStringLiteral("microsoft-edge"),
         {QStringLiteral("microsoft-edge-stable"), QStringLiteral("microsoft-edge")},
         {QStringLiteral("msedge"), QStringLiteral("microsoft-edge")},
         Sandbox::none,
         QStringLiteral("Microsoft Edge")},
        {QStringLiteral("vivaldi"),
         QStringLiteral("vivaldi"),
         {QStringLiteral("vivaldi-stable"), QStringLiteral("vivaldi")},
         {QStringLiteral("vivaldi-bin"), QStringLiteral("vivaldi")},
         Sandbox::none,
         QStringLiteral("Vivaldi")},
        // Never started from PATH: they live behind "flatpak run" and "snap run".
        {QStringLiteral("google-chrome-flatpak"),
         QStringLiteral(".var/app/com.google.Chrome/config/google-chrome"),
         {},
         chrome,
         Sandbox::flatpak,
         QStringLiteral("Flatpak 版 Google Chrome")},
        {QStringLiteral("chromium-flatpak"),
         QStringLiteral(".var/app/org.chromium.Chromium/config/chromium"),
         {},
         chromium,
         Sandbox::flatpak,
         QStringLiteral("Flatpak 版 Chromium")},
        {QStringLiteral("brave-flatpak"),
         QStringLiteral(".var/app/com.brave.Browser/config/BraveSoftware/Brave-Browser"),
         {},
         {QStringLiteral("brave")},
         Sandbox::flatpak,
         QStringLiteral("Flatpak 版 Brave")},
        {QStringLiteral("microsoft-edge-flatpak"),
         QStringLiteral(".var/app/com.microsoft.Edge/config/microsoft-edge"),
         {},
         {QStringLiteral("msedge")},
         Sandbox::flatpak,
         QStringLiteral("Flatpak 版 Microsoft Edge")},
        {QStringLiteral("chromium-snap"),
         QStringLiteral("snap/chromium/common/chromium"),
         {},
         chromium,
         Sandbox::snap,
         QStringLiteral("Snap 版 Chromium")},
    };
    return browsers;
}

const Browser& googleChrome()
{
    return all().front();
}

QString userDataDirectory(const Browser& browser)
{
    const QString base = browser.sandbox == Browser::Sandbox::none ? configHome() : QDir::homePath();
    return QDir(base).filePath(browser.configFolder);
}

bool hasUserDataDirectory(const Browser& browser)
{
    return QFileInfo(userDataDirectory(browser)).isDir();
}

QString nativeMessagingHostsDirectory(const Browser& browser)
{
    return QDir(userDataDirectory(browser)).filePath(QStringLiteral("NativeMessagingHosts"));
}

bool isInUse(const Browser& browser)
{
    return QFileInfo::exists(QDir(userDataDirectory(browser)).filePath(QStringLiteral("Local State")));
}

const Browser& primary()
{
    const Browser& chrome = googleChrome();
    if (isInUse(chrome)) {
        return chrome;
    }
    for (const Browser& browser : all()) {
        if (browser.id == u"chromium" && isInUse(browser)) {
            return browser;
        }
    }
    return chrome;
}

bool isRunning(const Browser& browser, const QString& userDataDirectory)
{
    // Flatpak gives the browser a pid namespace of its own: the pid in its lock means nothing here,
    // so the lock itself is the sign. Sandboxed processes cannot be told from the host's by name.
    if (browser.sandbox == Browser::Sandbox::flatpak) {
        return QFileInfo(QDir(userDataDirectory).filePath(QStringLiteral("SingletonLock"))).isSymLink();
    }
    if (browser.sandbox == Browser::Sandbox::snap) {
        return singletonLockSaysRunning(userDataDirectory).value_or(false);
    }
    if (const std::optional<bool> locked = singletonLockSaysRunning(userDataDirectory)) {
        if (*locked) {
            return true;
        }
    }
    return processScanSaysRunning(browser, userDataDirectory);
}

std::optional<QString> findProgram(const Browser& browser)
{
    for (const QString& program : browser.programs) {
        const QString path = QStandardPaths::findExecutable(program);
        if (!path.isEmpty()) {
            return path;
        }
    }
    return std::nullopt;
}

} // namespace velnora::ChromiumBrowsers
