#include "updates/ProductRelease.h"

#include "config/ProviderCatalog.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace velnora::ProductRelease {

namespace {

[[noreturn]] void malformed(const QString& detail)
{
    throw ReleaseError(ReleaseError::Kind::decodingFailed, detail);
}

[[noreturn]] void refuse(const QString& detail)
{
    throw ReleaseError(ReleaseError::Kind::cannotParseResponse, detail);
}

QString requiredString(const QJsonObject& object, const char* key, const QString& where)
{
    const QJsonValue value = object.value(QLatin1String(key));
    if (!value.isString()) {
        malformed(where + QLatin1String(key) + QStringLiteral(" 缺失或不是字符串"));
    }
    return value.toString();
}

Asset decodeAsset(const QJsonValue& value, const QString& name)
{
    if (!value.isObject()) {
        malformed(name + QStringLiteral(" 缺失或不是对象"));
    }
    const QJsonObject object = value.toObject();
    const QString where = name + u'.';
    Asset asset{requiredString(object, "version", where), requiredString(object, "url", where), std::nullopt};
    const QJsonValue identifier = object.value(QLatin1String("extensionID"));
    if (identifier.isString()) {
        asset.extensionID = identifier.toString();
    } else if (!identifier.isUndefined() && !identifier.isNull()) {
        malformed(where + QStringLiteral("extensionID 不是字符串"));
    }
    return asset;
}

// Keyed by Debian architecture. A manifest from before the keys names one package with no
// architecture: the amd64 one, the only one there was.
std::map<QString, Asset> decodeLinuxAssets(const QJsonValue& value)
{
    if (value.isUndefined() || value.isNull()) {
        return {};
    }
    if (!value.isObject()) {
        malformed(QStringLiteral("linux 不是对象"));
    }
    const QJsonObject object = value.toObject();
    if (object.contains(QLatin1String("version"))) {
        return {{QStringLiteral("amd64"), decodeAsset(value, QStringLiteral("linux"))}};
    }
    std::map<QString, Asset> assets;
    for (auto it = object.begin(); it != object.end(); ++it) {
        assets.emplace(it.key(), decodeAsset(it.value(), QStringLiteral("linux.") + it.key()));
    }
    return assets;
}

// Only ASCII digits make numbers: other scripts' digits taken as numbers too would break the order's
// transitivity ("a" < "١" < "10" < "a").
bool isAsciiDigit(QChar c)
{
    return c >= u'0' && c <= u'9';
}

qsizetype digitRunEnd(const QString& text, qsizetype from)
{
    while (from < text.size() && isAsciiDigit(text.at(from))) {
        ++from;
    }
    return from;
}

QStringView withoutLeadingZeros(QStringView digits)
{
    while (digits.size() > 1 && digits.front() == u'0') {
        digits = digits.mid(1);
    }
    return digits;
}

} // namespace

QUrl website()
{
    return QUrl(QStringLiteral("https://velnora.tarnwick.cn"));
}

QString version()
{
    return QStringLiteral(VELNORA_VERSION);
}

QString build()
{
    return QStringLiteral(VELNORA_BUILD_NUMBER);
}

QString architecture()
{
    return QStringLiteral(VELNORA_DEBIAN_ARCHITECTURE);
}

std::optional<Asset> linuxAsset(const Manifest& manifest, const QString& architecture)
{
    const auto found = manifest.linuxAssets.find(architecture);
    return found == manifest.linuxAssets.end() ? std::nullopt : std::optional<Asset>(found->second);
}

bool isAllowedDownloadPath(const QString& path)
{
    if (!path.startsWith(QLatin1String("/downloads/"))) {
        return false;
    }
    for (const char* forbidden : {"..", "\\", "?", "#"}) {
        if (path.contains(QLatin1String(forbidden))) {
            return false;
        }
    }
    return true;
}

Manifest decode(const QByteArray& data)
{
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(data, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        malformed(parseError.errorString());
    }
    if (!document.isObject()) {
        malformed(QStringLiteral("清单不是 JSON 对象"));
    }
    const QJsonObject root = document.object();
    Manifest manifest;
    manifest.edition = requiredString(root, "edition", {});
    manifest.macos = decodeAsset(root.value(QLatin1String("macos")), QStringLiteral("macos"));
    manifest.chrome = decodeAsset(root.value(QLatin1String("chrome")), QStringLiteral("chrome"));
    manifest.minimumExtensionVersion = requiredString(root, "minimumExtensionVersion", {});
    manifest.linuxAssets = decodeLinuxAssets(root.value(QLatin1String("linux")));

    if (manifest.edition != QLatin1String(editionName)) {
        refuse(QStringLiteral("版本类型不符：") + manifest.edition);
    }
    if (manifest.chrome.extensionID != ExplainerConstants::extensionIdentifier()) {
        refuse(QStringLiteral("扩展 ID 不符：") +
               manifest.chrome.extensionID.value_or(QStringLiteral("（缺失）")));
    }
    if (!isAllowedDownloadPath(manifest.macos.url)) {
        refuse(QStringLiteral("macos 下载地址不被接受：") + manifest.macos.url);
    }
    if (!isAllowedDownloadPath(manifest.chrome.url)) {
        refuse(QStringLiteral("chrome 下载地址不被接受：") + manifest.chrome.url);
    }
    for (const auto& [architecture, asset] : manifest.linuxAssets) {
        if (!isAllowedDownloadPath(asset.url)) {
            refuse(QStringLiteral("linux.%1 下载地址不被接受：%2").arg(architecture, asset.url));
        }
    }
    return manifest;
}

int compareVersions(const QString& a, const QString& b)
{
    qsizetype i = 0;
    qsizetype j = 0;
    while (i < a.size() && j < b.size()) {
        if (isAsciiDigit(a.at(i)) && isAsciiDigit(b.at(j))) {
            const qsizetype endA = digitRunEnd(a, i);
            const qsizetype endB = digitRunEnd(b, j);
            // Compared as digit strings, so a run longer than any integer type still orders correctly.
            const QStringView runA = withoutLeadingZeros(QStringView(a).mid(i, endA - i));
            const QStringView runB = withoutLeadingZeros(QStringView(b).mid(j, endB - j));
            if (runA.size() != runB.size()) {
                return runA.size() < runB.size() ? -1 : 1;
            }
            if (const int order = runA.compare(runB); order != 0) {
                return order < 0 ? -1 : 1;
            }
            i = endA;
            j = endB;
            continue;
        }
        if (a.at(i) != b.at(j)) {
            return a.at(i) < b.at(j) ? -1 : 1;
        }
        ++i;
        ++j;
    }
    const qsizetype restA = a.size() - i;
    const qsizetype restB = b.size() - j;
    return restA == restB ? 0 : (restA < restB ? -1 : 1);
}

} // namespace velnora::ProductRelease
