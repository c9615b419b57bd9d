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
    using UnlockCollection = std::function<int32_t()>;

    explicit KeychainStore(QString service = QString::fromLatin1(defaultService));

    const QString& service() const { return m_service; }

    // The three operations on the secret store; tests replace them to produce failures on demand.
    CopyItem copyItem;
    AddItem addItem;
    DeleteItem deleteItem;
    // Shows the desktop's unlock prompt for a locked collection; asked once per user action.
    UnlockCollection unlockCollection;

    // A store on the same items and operations with an empty cache, for work on another thread.
    KeychainStore detached() const;

    // apiKey, saveAPIKey and repairAccess are user actions: a locked collection is unlocked through
    // the desktop's prompt first, and a refused prompt throws KeychainError(userCancelled).

    // The stored key, or none when no item exists. Throws KeychainError.
    std::optional<QString> apiKey(const QString& providerID);
    // Whether an item exists, without loading the secret. Never throws.
    bool hasAPIKey(const QString& providerID);
    // Stores the trimmed key; a blank key deletes the item. Throws KeychainError.
    void saveAPIKey(const QString& key, const QString& providerID);
    // Reads the item and writes exactly those bytes again. True when a key was rewritten, false when
    // none is stored.
    bool repairAccess(const QString& providerID);
    // Forgets the cached key, so the next read asks the secret store.
    void dropCachedKey(const QString& providerID) { m_cachedKeys.remove(providerID); }
    bool isCached(const QString& providerID) const { return m_cachedKeys.contains(providerID); }
    // Takes in a key read by a detached copy of this store (KeychainTask) as if read here.
    void rememberKey(const QString& providerID, const QString& key) { m_cachedKeys.insert(providerID, key); }

    struct ReadOutcome
    {
        enum class Kind { found, failure, notFound } kind;
        QString key;
        int32_t status = 0;
    };
    ReadOutcome read(const QString& service, const QString& providerID);
    ReadOutcome readLegacy(const QString& providerID) const;

private:
    // Runs an operation; when it meets a locked collection, unlocks it once and runs it again.
    template <typename Operation> auto unlockingIfLocked(Operation operation) -> decltype(operation());
    void storeAPIKey(const QString& key, const QString& providerID);
    void deleteAPIKey(const QString& service, const QString& providerID);

    QString m_service;
    QHash<QString, QString> m_cachedKeys;
};

} // namespace velnora
