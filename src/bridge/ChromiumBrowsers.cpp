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

bool processAlive(qint64 pid)
{
    if (pid <= 0) {
        return false;
    }
    return ::kill(pid_t(pid), 0) == 0 || errno == EPERM;
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
    return processAlive(pid);
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

const std::vector<Browser>& all()
{
    static const std::vector<Browser> browsers{
        {QStringLiteral("google-chrome"),
         QStringLiteral("google-chrome"),
         {QStringLiteral("google-chrome-stable"), QStringLiteral("google-chrome")},
         {QStringLiteral("chrome"), QStringLiteral("google-chrome"), QStringLiteral("google-chrome-stable")}},
        {QStringLiteral("google-chrome-beta"),
         QStringLiteral("google-chrome-beta"),
         {QStringLiteral("google-chrome-beta")},
         {QStringLiteral("chrome"), QStringLiteral("google-chrome-beta")}},
        {QStringLiteral("google-chrome-unstable"),
         QStringLiteral("google-chrome-unstable"),
         {QStringLiteral("google-chrome-unstable")},
         {QStringLiteral("chrome"), QStringLiteral("google-chrome-unstable")}},
        {QStringLiteral("chromium"),
         QStringLiteral("chromium"),
         {QStringLiteral("chromium"), QStringLiteral("chromium-browser")},
         {QStringLiteral("chromium"), QStringLiteral("chromium-browser")}},
        {QStringLiteral("brave"),
         QStringLiteral("BraveSoftware/Brave-Browser"),
         {QStringLiteral("brave-browser"), QStringLiteral("brave")},
         {QStringLiteral("brave"), QStringLiteral("brave-browser")}},
        {QStringLiteral("microsoft-edge"),
         QStringLiteral("microsoft-edge"),
         {QStringLiteral("microsoft-edge-stable"), QStringLiteral("microsoft-edge")},
         {QStringLiteral("msedge"), QStringLiteral("microsoft-edge")}},
        {QStringLiteral("vivaldi"),
         QStringLiteral("vivaldi"),
         {QStringLiteral("vivaldi-stable"), QStringLiteral("vivaldi")},
         {QStringLiteral("vivaldi-bin"), QStringLiteral("vivaldi")}},
    };
    return browsers;
}

const Browser& googleChrome()
{
    return all().front();
}

QString userDataDirectory(const Browser& browser)
{
    return QDir(configHome()).filePath(browser.configFolder);
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
