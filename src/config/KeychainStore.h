#pragma once

#include "config/KeychainError.h"
#include "config/SecretServiceBackend.h"

#include <QHash>
#include <QStringList>

#include <functional>
#include <optional>

namespace velnora {

// One API key per provider in the desktop's secret store, cached for the run.
class KeychainStore
{
public:
    static constexpr const char* defaultService = "com.tarnwick.velnora.domestic.api-keys.v1";
    // Names older releases stored keys under; listed so nothing reuses them, never read.
    static const QStringList& knownLegacyServices();

    using CopyItem = std::function<int32_t(const KeychainQuery&, QByteArray* secret)>;
    using AddItem = std::function<int32_t(const KeychainItem&)>;
    using DeleteItem = std::function<int32_t(const KeychainQuery&)>;

    explicit KeychainStore(QString service = QString::fromLatin1(defaultService));

    const QString& service() const { return m_service; }

    // The three operations on the secret store; tests replace them to produce failures on demand.
    CopyItem copyItem;
    AddItem addItem;
    DeleteItem deleteItem;

    // The stored key, or none when no item exists. Throws KeychainError.
    std::optional<QString> apiKey(const QString& providerID);
    // Whether an item exists, without loading the secret. Never throws.
    bool hasAPIKey(const QString& providerID);
    // Stores the trimmed key; a blank key deletes the item. Throws KeychainError.
    void saveAPIKey(const QString& key, const QString& providerID);
    // Reads the item and writes it again. True when a key was rewritten, false when none is stored.
    bool repairAccess(const QString& providerID);
    // Forgets the cached key, so the next read asks the secret store.
    void dropCachedKey(const QString& providerID) { m_cachedKeys.remove(providerID); }
    bool isCached(const QString& providerID) const { return m_cachedKeys.contains(providerID); }

    struct ReadOutcome
    {
        enum class Kind { found, failure, notFound } kind;
        QString key;
        int32_t status = 0;
    };
    ReadOutcome read(const QString& service, const QString& providerID);
    ReadOutcome readLegacy(const QString& providerID) const;

private:
    void storeAPIKey(const QString& key, const QString& providerID);
    void deleteAPIKey(const QString& service, const QString& providerID);

    QString m_service;
    QHash<QString, QString> m_cachedKeys;
};

} // namespace velnora
