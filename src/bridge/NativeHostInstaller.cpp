#include "bridge/NativeHostInstaller.h"

#include "bridge/AtomicFile.h"
#include "bridge/ChromiumBrowsers.h"
#include "bridge/FileSystemError.h"
#include "bridge/FirefoxBrowser.h"
#include "config/ProviderCatalog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cerrno>
#include <unistd.h>

namespace velnora::NativeHostInstaller {

QByteArray Manifest::encode() const
{
    // QJsonObject sorts its keys and Qt never escapes "/", which is exactly the wanted form.
    QJsonObject object{
        {QStringLiteral("name"), name},
        {QStringLiteral("description"), description},
        {QStringLiteral("path"), path},
        {QStringLiteral("type"), type},
    };
    if (!allowedExtensions.isEmpty()) {
        object.insert(QStringLiteral("allowed_extensions"), QJsonArray::fromStringList(allowedExtensions));
    } else {
        object.insert(QStringLiteral("allowed_origins"), QJsonArray::fromStringList(allowedOrigins));
    }
    return QJsonDocument(object).toJson(QJsonDocument::Indented);
}

std::optional<Manifest> Manifest::decode(const QByteArray& bytes)
{
    const QJsonDocument document = QJsonDocument::fromJson(bytes);
    if (!document.isObject()) {
        return std::nullopt;
    }
    const QJsonObject object = document.object();
    Manifest manifest;
    for (const auto& [key, field] :
         {std::pair{"name", &manifest.name}, std::pair{"description", &manifest.description},
          std::pair{"path", &manifest.path}, std::pair{"type", &manifest.type}}) {
        const QJsonValue value = object.value(QLatin1String(key));
        if (!value.isString()) {
            return std::nullopt;
        }
        *field = value.toString();
    }
    bool listed = false;
    for (const auto& [key, list] : {std::pair{"allowed_origins", &manifest.allowedOrigins},
                                    std::pair{"allowed_extensions", &manifest.allowedExtensions}}) {
        const QJsonValue entries = object.value(QLatin1String(key));
        if (entries.isUndefined()) {
            continue;
        }
        if (!entries.isArray()) {
            return std::nullopt;
        }
        listed = true;
        for (const QJsonValue& entry : entries.toArray()) {
            if (!entry.isString()) {
                return std::nullopt;
            }
            list->append(entry.toString());
        }
    }
    return listed ? std::optional(manifest) : std::nullopt;
}

Manifest manifestFor(const QString& executablePath, BrowserFamily family)
{
    Manifest manifest{
        QString::fromLatin1(hostName),
        QString::fromUtf8(description),
        executablePath,
        QStringLiteral("stdio"),
        {},
        {},
    };
    if (family == BrowserFamily::firefox) {
        manifest.allowedExtensions = {ExplainerConstants::firefoxExtensionIdentifier()};
    } else {
        manifest.allowedOrigins = {QStringLiteral("chrome-extension://") +
                                   ExplainerConstants::extensionIdentifier() + u'/'};
    }
    return manifest;
}

QString hostDirectoryURL()
{
    return ChromiumBrowsers::nativeMessagingHostsDirectory(ChromiumBrowsers::primary());
}

QString currentExecutablePath()
{
    return executablePathOf(QStringLiteral("/proc/self/exe"));
}

QString executablePathOf(const QString& exeLink)
{
    char target[4096];
    const ssize_t length = ::readlink(QFile::encodeName(exeLink).constData(), target, sizeof target);
    if (length <= 0 || length == ssize_t(sizeof target)) {
        return exeLink;
    }
    QString resolved = QFile::decodeName(QByteArray(target, length));
    const QString deleted = QStringLiteral(" (deleted)");
    if (resolved.endsWith(deleted) && QFileInfo::exists(resolved.chopped(deleted.size()))) {
        resolved.chop(deleted.size());
    }
    return resolved;
}

QString install(std::optional<QString> hostDirectory, std::optional<QUrl> executableURL, BrowserFamily family)
{
    const QUrl executable = executableURL.value_or(QUrl::fromLocalFile(currentExecutablePath()));
    if (!executable.isLocalFile() || executable.toLocalFile().isEmpty()) {
        throw FileSystemError(ENOENT, executable.toString());
    }
    const QString directory = hostDirectory.value_or(hostDirectoryURL());
    if (!QDir().mkpath(directory)) {
        throw FileSystemError(QFileInfo(directory).exists() ? ENOTDIR : EACCES, directory);
    }
    const QString standardPath = QDir::cleanPath(QFileInfo(executable.toLocalFile()).absoluteFilePath());
    const QByteArray bytes = manifestFor(standardPath, family).encode();
    const QString target = QDir(directory).filePath(QString::fromLatin1(manifestFileName));
    bool readable = false;
    if (AtomicFile::read(target, &readable) == bytes && readable) {
        return target;
    }
    AtomicFile::write(target, bytes);
    AtomicFile::setPermissions(target, 0644);
    return target;
}

QStringList installForAllBrowsers(std::optional<QUrl> executableURL)
{
    QStringList written;
    std::optional<FileSystemError> chromeFailure;
    for (const ChromiumBrowsers::Browser& browser : ChromiumBrowsers::all()) {
        const bool chrome = &browser == &ChromiumBrowsers::googleChrome();
        if (!chrome && !ChromiumBrowsers::hasUserDataDirectory(browser)) {
            continue;
        }
        try {
            written.append(install(ChromiumBrowsers::nativeMessagingHostsDirectory(browser), executableURL));
        } catch (const FileSystemError& error) {
            if (chrome) {
                chromeFailure = error;
            }
        }
    }
    for (const FirefoxBrowser::Installation& firefox : FirefoxBrowser::all()) {
        const QString folder = FirefoxBrowser::nativeMessagingHostsDirectory(firefox);
        if (!FirefoxBrowser::hasDataFolder(firefox) ||
            written.contains(QDir(folder).filePath(QLatin1String(manifestFileName)))) {
            continue;
        }
        try {
            written.append(install(folder, executableURL, BrowserFamily::firefox));
        } catch (const FileSystemError&) {
        }
    }
    if (chromeFailure) {
        throw *chromeFailure;
    }
    return written;
}

} // namespace velnora::NativeHostInstaller
