#include "updates/UpdateSelfChecks.h"

#include "config/ProviderCatalog.h"
#include "updates/ProductRelease.h"
#include "updates/ProductUpdates.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

namespace velnora::UpdateSelfChecks {

namespace {

QJsonObject validManifest()
{
    return QJsonObject{
        {"edition", "domestic"},
        {"macos", QJsonObject{{"version", "2.11.0"}, {"url", "/downloads/app.dmg"}}},
        {"chrome", QJsonObject{{"version", "2.11.1"},
                               {"url", "/downloads/ext.zip"},
                               {"extensionID", ExplainerConstants::extensionIdentifier()}}},
        {"minimumExtensionVersion", "2.11.0"},
    };
}

bool accepted(const QJsonObject& manifest)
{
    try {
        ProductRelease::decode(QJsonDocument(manifest).toJson());
        return true;
    } catch (const ReleaseError&) {
        return false;
    }
}

QJsonObject withChrome(const char* key, const QJsonValue& value)
{
    QJsonObject manifest = validManifest();
    QJsonObject chrome = manifest.value("chrome").toObject();
    if (value.isUndefined()) {
        chrome.remove(QLatin1String(key));
    } else {
        chrome.insert(QLatin1String(key), value);
    }
    manifest.insert("chrome", chrome);
    return manifest;
}

QString statusFileFailure()
{
    QTemporaryDir directory;
    if (!directory.isValid()) {
        return QStringLiteral("无法创建临时目录");
    }
    const QString path = directory.filePath(QStringLiteral("extension-status.json"));
    const double now = 1'800'000'000.0;
    const auto writeStatus = [&](double updatedAt) {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            return false;
        }
        const QJsonObject status{{"extensionID", ExplainerConstants::extensionIdentifier()},
                                 {"updatedAt", updatedAt},
                                 {"version", "2.11.1"}};
        return file.write(QJsonDocument(status).toJson()) > 0;
    };
    if (!writeStatus(now - 59) ||
        ProductUpdates::installedExtensionVersion(path, now) != QStringLiteral("2.11.1")) {
        return QStringLiteral("59 秒前的扩展状态没有被采用");
    }
    if (!writeStatus(now - 60) || ProductUpdates::installedExtensionVersion(path, now).has_value()) {
        return QStringLiteral("60 秒前的扩展状态被采用了");
    }
    return {};
}

} // namespace

QString failure()
{
    if (!accepted(validManifest())) {
        return QStringLiteral("合法清单被拒绝");
    }
    QJsonObject otherEdition = validManifest();
    otherEdition.insert("edition", "international");
    if (accepted(otherEdition)) {
        return QStringLiteral("其他版本类型的清单被接受");
    }
    if (accepted(withChrome("extensionID", QJsonValue::Undefined)) ||
        accepted(withChrome("extensionID", "dgldcbgpnkooljhfhcjpkojcdnfkepnb"))) {
        return QStringLiteral("扩展 ID 缺失或不符的清单被接受");
    }
    for (const char* url :
         {"https://velnora.tarnwick.cn/downloads/ext.zip", "/downloads/../ext.zip", "/downloads\\ext.zip",
          "/downloads/ext.zip?x=1", "/downloads/ext.zip#a", "/ext.zip"}) {
        if (accepted(withChrome("url", QString::fromLatin1(url)))) {
            return QStringLiteral("下载地址 ") + QString::fromLatin1(url) + QStringLiteral(" 被接受");
        }
    }
    if (!ProductRelease::isNewer(QStringLiteral("2.11.1"), QStringLiteral("2.9.0"))) {
        return QStringLiteral("版本比较没有按数字进行");
    }
    const ProductRelease::Manifest manifest = ProductRelease::decode(QJsonDocument(validManifest()).toJson());
    if (ProductUpdates::extensionSentence(manifest, QStringLiteral("2.11.1")) !=
        QStringLiteral("当前扩展 2.11.1，已是最新版本。")) {
        return QStringLiteral("最新扩展的提示语不对");
    }
    return statusFileFailure();
}

} // namespace velnora::UpdateSelfChecks
