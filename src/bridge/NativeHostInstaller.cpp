#include "bridge/NativeHostInstaller.h"

#include "bridge/AtomicFile.h"
#include "bridge/ChromiumBrowsers.h"
#include "bridge/FileSystemError.h"
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
    const QJsonObject object{
        {QStringLiteral("name"), name},
        {QStringLiteral("description"), description},
        {QStringLiteral("path"), path},
        {QStringLiteral("type"), type},
        {QStringLiteral("allowed_origins"), QJsonArray::fromStringList(allowedOrigins)},
    };
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
    const QJsonValue origins = object.value(QStringLiteral("allowed_origins"));
    if (!origins.isArray()) {
        return std::nullopt;
    }
    for (const QJsonValue& origin : origins.toArray()) {
        if (!origin.isString()) {
            return std::nullopt;
        }
        manifest.allowedOrigins.append(origin.toString());
    }
    return manifest;
}

Manifest manifestFor(const QString& executablePath)
{
    return Manifest{
        QString::fromLatin1(hostName),
        QString::fromUtf8(description),
        executablePath,
        QStringLiteral("stdio"),
        {QStringLiteral("chrome-extension://") + ExplainerConstants::extensionIdentifier() + u'/'},
    };
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

QString install(std::optional<QString> hostDirectory, std::optional<QUrl> executableURL)
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
    const QByteArray bytes = manifestFor(standardPath).encode();
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
    if (chromeFailure) {
        throw *chromeFailure;
    }
    return written;
}

} // namespace velnora::NativeHostInstaller
