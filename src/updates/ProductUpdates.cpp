#include "updates/ProductUpdates.h"

#include "bridge/RequestStore.h"
#include "config/ProviderCatalog.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTimer>

namespace velnora {

namespace {

// The transfer timeout only notices silence; this bounds a server that drips bytes forever.
constexpr int overallDeadlineMilliseconds = 2 * ProductUpdates::requestTimeoutMilliseconds;
// The host writes a few hundred bytes; anything far larger is not its file.
constexpr qint64 statusFileLimit = 64 * 1024;

QString defaultExtensionStatusPath()
{
    const QString folder = RequestStore::dataDirectoryOverride().value_or(RequestStore::defaultDirectory());
    return QDir(folder).filePath(QString::fromLatin1(RequestStore::extensionStatusFileName));
}

double currentSeconds()
{
    return static_cast<double>(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
}

ReleaseError badResponse(const QString& detail)
{
    return ReleaseError(ReleaseError::Kind::badServerResponse, detail);
}

} // namespace

QString ProductUpdates::initialApplicationStatus()
{
    return QStringLiteral("当前版本 ") + ProductRelease::version() +
           QStringLiteral("。点击检查更新，核实是否有新版本。");
}

ProductUpdates::ProductUpdates(QObject* parent)
    : ProductUpdates(ProductRelease::website(), defaultExtensionStatusPath(), parent)
{}

ProductUpdates::ProductUpdates(QUrl website, QString extensionStatusPath, QObject* parent)
    : QObject(parent), m_website(std::move(website)), m_extensionStatusPath(std::move(extensionStatusPath)),
      m_now(currentSeconds), m_network(new QNetworkAccessManager(this)),
      m_extensionStatus(initialExtensionStatus()), m_applicationStatus(initialApplicationStatus())
{
    // A manifest must always come fresh from the site.
    m_network->setCache(nullptr);
}

ProductUpdates::~ProductUpdates()
{
    for (QNetworkReply* reply : {m_extensionReply.data(), m_applicationReply.data()}) {
        if (reply) {
            reply->disconnect(this);
            reply->abort();
        }
    }
}

QUrl ProductUpdates::manifestURL() const
{
    QUrl url = m_website;
    QString path = url.path();
    if (!path.endsWith(u'/')) {
        path += u'/';
    }
    url.setPath(path + QStringLiteral("release.json"));
    return url;
}

QNetworkReply* ProductUpdates::fetchManifest()
{
    QNetworkRequest request(manifestURL());
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setTransferTimeout(requestTimeoutMilliseconds);
    request.setRawHeader("Accept", "application/json");
    QNetworkReply* reply = m_network->get(request);
    // Stop reading as soon as the body can no longer be a manifest.
    connect(reply, &QNetworkReply::downloadProgress, reply, [reply](qint64 received, qint64) {
        if (received >= bodyLimit && !reply->property("oversized").toBool()) {
            reply->setProperty("oversized", true);
            reply->abort();
        }
    });
    QTimer::singleShot(overallDeadlineMilliseconds, reply, [reply] {
        if (reply->isRunning()) {
            reply->abort();
        }
    });
    return reply;
}

ProductUpdates::Outcome ProductUpdates::evaluate(QNetworkReply& reply) const
{
    if (reply.property("oversized").toBool()) {
        return badResponse(QStringLiteral("响应过大"));
    }
    const QVariant status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid()) {
        return ReleaseError(ReleaseError::Kind::transport, reply.errorString());
    }
    if (status.toInt() != 200) {
        return badResponse(QStringLiteral("HTTP %1").arg(status.toInt()));
    }
    if (reply.error() != QNetworkReply::NoError) {
        // The status arrived but the body did not (cut off or timed out).
        return ReleaseError(ReleaseError::Kind::transport, reply.errorString());
    }
    const QByteArray body = reply.readAll();
    if (body.isEmpty()) {
        return badResponse(QStringLiteral("响应为空"));
    }
    if (body.size() >= bodyLimit) {
        return badResponse(QStringLiteral("响应过大"));
    }
    // A redirect may stay on the site; one that leaves it is not our manifest.
    if (reply.url().host().compare(m_website.host(), Qt::CaseInsensitive) != 0) {
        return badResponse(QStringLiteral("响应来自其他主机：") + reply.url().host());
    }
    try {
        return ProductRelease::decode(body);
    } catch (const ReleaseError& error) {
        return badResponse(error.detail());
    }
}

void ProductUpdates::fetchManifestInto(QPointer<QNetworkReply>& slot,
                                       void (ProductUpdates::*finish)(const Outcome&))
{
    QNetworkReply* reply = fetchManifest();
    slot = reply;
    connect(reply, &QNetworkReply::finished, this, [this, reply, &slot, finish] {
        const Outcome outcome = evaluate(*reply);
        slot = nullptr;
        reply->deleteLater();
        (this->*finish)(outcome);
    });
}

void ProductUpdates::checkExtension()
{
    if (m_extensionReply) {
        return;
    }
    fetchManifestInto(m_extensionReply, &ProductUpdates::finishExtensionCheck);
    m_extensionStatus = checkingExtensionStatus();
    Q_EMIT extensionCheckingChanged(true);
    Q_EMIT extensionStatusChanged(m_extensionStatus);
}

void ProductUpdates::finishExtensionCheck(const Outcome& outcome)
{
    Q_EMIT extensionCheckingChanged(false);
    if (const auto* manifest = std::get_if<ProductRelease::Manifest>(&outcome)) {
        m_extensionStatus =
            extensionSentence(*manifest, installedExtensionVersion(m_extensionStatusPath, m_now()));
    } else {
        m_extensionStatus = failureStatus();
    }
    Q_EMIT extensionStatusChanged(m_extensionStatus);
}

void ProductUpdates::checkApplication()
{
    if (m_applicationReply) {
        return;
    }
    fetchManifestInto(m_applicationReply, &ProductUpdates::finishApplicationCheck);
    m_applicationStatus = checkingApplicationStatus();
    Q_EMIT applicationCheckingChanged(true);
    Q_EMIT applicationStatusChanged(m_applicationStatus);
}

void ProductUpdates::finishApplicationCheck(const Outcome& outcome)
{
    Q_EMIT applicationCheckingChanged(false);
    m_downloadURL.reset();
    const auto* manifest = std::get_if<ProductRelease::Manifest>(&outcome);
    const std::optional<ProductRelease::Asset> package =
        manifest ? ProductRelease::linuxAsset(*manifest) : std::nullopt;
    if (!manifest) {
        m_applicationStatus = failureStatus();
    } else if (package && ProductRelease::isNewer(package->version, ProductRelease::version())) {
        m_downloadURL = m_website.resolved(QUrl(package->url));
        m_applicationStatus = QStringLiteral("发现新版本 ") + package->version + QStringLiteral("（当前 ") +
                              ProductRelease::version() + QStringLiteral("），可前往官网下载安装。");
    } else {
        m_applicationStatus =
            QStringLiteral("澜镜 ") + ProductRelease::version() + QStringLiteral(" 已是最新版本。");
    }
    Q_EMIT applicationStatusChanged(m_applicationStatus);
}

std::optional<QString> ProductUpdates::installedExtensionVersion(const QString& statusPath, double now)
{
    QFile file(statusPath);
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    const QByteArray data = file.read(statusFileLimit + 1);
    if (data.size() > statusFileLimit) {
        return std::nullopt;
    }
    const QJsonObject status = QJsonDocument::fromJson(data).object();
    const QJsonValue identifier = status.value(QLatin1String("extensionID"));
    const QJsonValue updatedAt = status.value(QLatin1String("updatedAt"));
    const QJsonValue version = status.value(QLatin1String("version"));
    if (!identifier.isString() ||
        (identifier.toString() != ExplainerConstants::extensionIdentifier() &&
         identifier.toString() != ExplainerConstants::firefoxExtensionIdentifier())) {
        return std::nullopt;
    }
    if (!updatedAt.isDouble() || !(now - updatedAt.toDouble() < statusMaximumAge)) {
        return std::nullopt;
    }
    if (!version.isString()) {
        return std::nullopt;
    }
    return version.toString();
}

QString ProductUpdates::extensionSentence(const ProductRelease::Manifest& manifest,
                                          const std::optional<QString>& installedVersion)
{
    const QString& latest = manifest.chrome.version;
    if (!installedVersion) {
        return QStringLiteral("最新扩展 ") + latest +
               QStringLiteral("。尚未收到扩展版本信息，请启动 Chrome；旧扩展可按指引更新后重试。");
    }
    const QString& installed = *installedVersion;
    const bool updateAvailable = ProductRelease::isNewer(latest, installed);
    QString sentence = QStringLiteral("当前扩展 ") + installed;
    sentence += updateAvailable ? QStringLiteral("，可更新至 ") + latest + QStringLiteral("。")
                                : QStringLiteral("，已是最新版本。");
    if (ProductRelease::isNewer(manifest.minimumExtensionVersion, installed)) {
        sentence += QStringLiteral("此版本需要升级才能完整配合应用。");
    }
    if (updateAvailable) {
        sentence += QStringLiteral("商店安装由 Chrome 更新；手动加载请按更新指引替换并重新加载。");
    }
    return sentence;
}

} // namespace velnora
