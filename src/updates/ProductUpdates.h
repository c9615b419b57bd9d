#pragma once

#include "updates/ProductRelease.h"

#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QUrl>
#include <functional>
#include <optional>
#include <variant>

class QNetworkAccessManager;

namespace velnora {

// The update controller behind the About window: checks the release manifest of the web site for a
// newer companion extension and a newer Linux build. Each check runs at most once at a time; its
// result is one sentence that stays until the next check of the same kind. Main thread only.
class ProductUpdates : public QObject
{
    Q_OBJECT
public:
    static constexpr qsizetype bodyLimit = 100000; // a body must be shorter than this
    static constexpr int requestTimeoutMilliseconds = 15000;
    static constexpr double statusMaximumAge = 60.0;

    static QString initialExtensionStatus() { return QStringLiteral("点击检查扩展更新，核实当前安装版本。"); }
    static QString checkingExtensionStatus() { return QStringLiteral("正在检查扩展更新…"); }
    static QString failureStatus() { return QStringLiteral("暂时无法检查更新，请检查网络后重试。"); }
    static QString initialApplicationStatus();
    static QString checkingApplicationStatus() { return QStringLiteral("正在检查更新…"); }

    // The product's site, and "extension-status.json" in the data folder.
    explicit ProductUpdates(QObject* parent = nullptr);
    // Another site (a loopback server in tests) and status file.
    ProductUpdates(QUrl website, QString extensionStatusPath, QObject* parent = nullptr);
    ~ProductUpdates() override;

    const QUrl& website() const { return m_website; }
    QUrl manifestURL() const;
    // Seconds since 1970; replaceable so the age limit of the status file can be tested to the second.
    void setClock(std::function<double()> now) { m_now = std::move(now); }

    QString extensionStatus() const { return m_extensionStatus; }
    bool isCheckingExtension() const { return m_extensionReply != nullptr; }
    void checkExtension();

    QString applicationStatus() const { return m_applicationStatus; }
    bool isCheckingApplication() const { return m_applicationReply != nullptr; }
    // Where the newer Linux build can be downloaded, after a check found one.
    std::optional<QUrl> downloadURL() const { return m_downloadURL; }
    void checkApplication();

    // The version the extension last reported, when its report is fresh and comes from our extension.
    static std::optional<QString> installedExtensionVersion(const QString& statusPath, double now);
    static QString extensionSentence(const ProductRelease::Manifest& manifest,
                                     const std::optional<QString>& installedVersion);

Q_SIGNALS:
    void extensionStatusChanged(const QString& status);
    void extensionCheckingChanged(bool checking);
    void applicationStatusChanged(const QString& status);
    void applicationCheckingChanged(bool checking);

private:
    using Outcome = std::variant<ProductRelease::Manifest, ReleaseError>;

    QNetworkReply* fetchManifest();
    // One check in flight per slot: the slot holds the reply until it is evaluated and handed on.
    void fetchManifestInto(QPointer<QNetworkReply>& slot, void (ProductUpdates::*finish)(const Outcome&));
    Outcome evaluate(QNetworkReply& reply) const;
    void finishExtensionCheck(const Outcome& outcome);
    void finishApplicationCheck(const Outcome& outcome);

    QUrl m_website;
    QString m_extensionStatusPath;
    std::function<double()> m_now;
    QNetworkAccessManager* m_network;
    QPointer<QNetworkReply> m_extensionReply;
    QPointer<QNetworkReply> m_applicationReply;
    QString m_extensionStatus;
    QString m_applicationStatus;
    std::optional<QUrl> m_downloadURL;
};

} // namespace velnora
