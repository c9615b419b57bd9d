#include "bridge/ChromeProfileProbe.h"

#include "bridge/ChromiumBrowsers.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QJsonDocument>
#include <QJsonObject>
#include <mutex>

namespace velnora::ChromeProfileProbe {

namespace {

std::optional<QJsonObject> readObject(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    if (!document.isObject()) {
        return std::nullopt;
    }
    return document.object();
}

// Unpacked folders: 4 is "loaded from the extensions page", 8 is "--load-extension" on the command line.
bool isUnpackedLocation(const QJsonValue& location)
{
    return location.isDouble() && (location.toInt() == 4 || location.toInt() == 8) &&
           location.toDouble() == double(location.toInt());
}

// The profile's extension records, "Secure Preferences" first, filled in from "Preferences".
std::optional<QJsonObject> extensionSettings(const QString& profileFolder)
{
    std::optional<QJsonObject> merged;
    for (const char* fileName : {"Secure Preferences", "Preferences"}) {
        const std::optional<QJsonObject> preferences =
            readObject(QDir(profileFolder).filePath(QLatin1String(fileName)));
        if (!preferences) {
            continue;
        }
        if (!merged) {
            merged.emplace();
        }
        const QJsonObject settings = preferences->value(QStringLiteral("extensions"))
                                         .toObject()
                                         .value(QStringLiteral("settings"))
                                         .toObject();
        for (auto it = settings.begin(); it != settings.end(); ++it) {
            QJsonObject record = merged->value(it.key()).toObject();
            const QJsonObject more = it.value().toObject();
            for (auto field = more.begin(); field != more.end(); ++field) {
                if (!record.contains(field.key())) {
                    record.insert(field.key(), field.value());
                }
            }
            merged->insert(it.key(), record);
        }
    }
    return merged;
}

ChromeExtensionInstall answerFor(const QJsonObject& settings, const QString& identifier)
{
    const QJsonObject record = settings.value(identifier).toObject();
    const QString path = record.value(QStringLiteral("path")).toString();
    if (!isUnpackedLocation(record.value(QStringLiteral("location"))) || path.isEmpty()) {
        return ChromeExtensionInstall::installed();
    }
    std::optional<QString> stale;
    for (auto it = settings.begin(); it != settings.end(); ++it) {
        const QString otherPath = it.value().toObject().value(QStringLiteral("path")).toString();
        if (it.key() != identifier && !otherPath.isEmpty() &&
            QDir::cleanPath(otherPath) == QDir::cleanPath(path)) {
            stale = it.key();
            break;
        }
    }
    return ChromeExtensionInstall::unpacked(path, stale);
}

} // namespace

QString defaultSupportURL()
{
    return ChromiumBrowsers::userDataDirectory(ChromiumBrowsers::primary());
}

QStringList profileNames(const QString& root)
{
    QStringList names;
    const auto add = [&names](const QString& name) {
        if (!name.isEmpty() && !name.contains(u'/') && name != u".." && !names.contains(name)) {
            names.append(name);
        }
    };
    if (const std::optional<QJsonObject> localState =
            readObject(QDir(root).filePath(QStringLiteral("Local State")))) {
        const QJsonObject profile = localState->value(QStringLiteral("profile")).toObject();
        add(profile.value(QStringLiteral("last_used")).toString());
        for (const QString& key : profile.value(QStringLiteral("info_cache")).toObject().keys()) {
            add(key);
        }
    }
    const QStringList folders = QDir(root).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString& folder : folders) {
        if (folder == u"Default" || folder.startsWith(QStringLiteral("Profile "))) {
            add(folder);
        }
    }
    return names;
}

ChromeExtensionInstall inspect(const QString& extensionIdentifier, const QString& supportURL)
{
    const QString otherEdition = QString::fromLatin1(otherEditionIdentifier);
    bool anyReadable = false;
    bool otherEditionSeen = false;
    for (const QString& profile : profileNames(supportURL)) {
        const std::optional<QJsonObject> settings = extensionSettings(QDir(supportURL).filePath(profile));
        if (!settings) {
            continue;
        }
        anyReadable = true;
        if (settings->contains(extensionIdentifier)) {
            return answerFor(*settings, extensionIdentifier);
        }
        if (extensionIdentifier != otherEdition && settings->contains(otherEdition)) {
            otherEditionSeen = true;
        }
    }
    if (otherEditionSeen) {
        return ChromeExtensionInstall::differentEdition();
    }
    return anyReadable ? ChromeExtensionInstall::absent() : ChromeExtensionInstall::unknown();
}

ChromeExtensionInstall inspect(const QString& extensionIdentifier)
{
    return inspect(extensionIdentifier, defaultSupportURL());
}

ChromeExtensionInstall inspectCached(double ttl, const QString& extensionIdentifier,
                                     const QString& supportURL)
{
    struct Entry
    {
        ChromeExtensionInstall answer;
        QElapsedTimer age;
    };
    static std::mutex mutex;
    static QHash<QString, Entry> cache;

    const QString key = extensionIdentifier + u'\n' + supportURL;
    {
        const std::lock_guard lock(mutex);
        const auto it = cache.constFind(key);
        if (it != cache.constEnd() && it->age.isValid() && double(it->age.elapsed()) / 1000.0 < ttl) {
            return it->answer;
        }
    }
    const ChromeExtensionInstall answer = inspect(extensionIdentifier, supportURL);
    const std::lock_guard lock(mutex);
    Entry entry{answer, {}};
    entry.age.start();
    cache.insert(key, entry);
    return answer;
}

ChromeExtensionInstall inspectCached(double ttl, const QString& extensionIdentifier)
{
    return inspectCached(ttl, extensionIdentifier, defaultSupportURL());
}

} // namespace velnora::ChromeProfileProbe
