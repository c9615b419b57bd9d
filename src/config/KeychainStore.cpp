#include "config/KeychainStore.h"

#include <QStringDecoder>

namespace velnora {

namespace {

KeychainError errorFor(int32_t status)
{
    return KeychainError(status, SecretServiceBackend::lastFailureDetail());
}

} // namespace

const QStringList& KeychainStore::knownLegacyServices()
{
    static const QStringList names{QStringLiteral("com.tarnwick.brinkwell.api-keys.v2"),
                                   QStringLiteral("com.tarnwick.brinkwell.api-keys")};
    return names;
}

KeychainStore::KeychainStore(QString service)
    : copyItem([](const KeychainQuery& query, QByteArray* secret) {
          return SecretServiceBackend::copyItem(query, secret);
      }),
      addItem([](const KeychainItem& item) { return SecretServiceBackend::addItem(item); }),
      deleteItem([](const KeychainQuery& query) { return SecretServiceBackend::deleteItem(query); }),
      unlockCollection([] { return SecretServiceBackend::unlockDefaultCollection(); }),
      m_service(std::move(service))
{}

KeychainStore KeychainStore::detached() const
{
    KeychainStore copy(m_service);
    copy.copyItem = copyItem;
    copy.addItem = addItem;
    copy.deleteItem = deleteItem;
    copy.unlockCollection = unlockCollection;
    return copy;
}

template <typename Operation>
auto KeychainStore::unlockingIfLocked(Operation operation) -> decltype(operation())
{
    try {
        return operation();
    } catch (const KeychainError& error) {
        if (error.status() != KeychainError::collectionLocked || !unlockCollection) {
            throw;
        }
    }
    if (const int32_t status = unlockCollection(); status != 0) {
        throw errorFor(status);
    }
    return operation();
}

KeychainStore::ReadOutcome KeychainStore::read(const QString& service, const QString& providerID)
{
    QByteArray secret;
    const int32_t status = copyItem(KeychainQuery{service, providerID, true}, &secret);
    if (status == KeychainError::itemNotFound) {
        return {ReadOutcome::Kind::notFound, {}, status};
    }
    if (status != 0) {
        return {ReadOutcome::Kind::failure, {}, status};
    }
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString key = decoder.decode(secret);
    if (decoder.hasError()) {
        return {ReadOutcome::Kind::failure, {}, KeychainError::decodeFailed};
    }
    return {ReadOutcome::Kind::found, key, 0};
}

KeychainStore::ReadOutcome KeychainStore::readLegacy(const QString&) const
{
    // Old items must never cause a prompt, so they are not even looked at.
    return {ReadOutcome::Kind::notFound, {}, KeychainError::itemNotFound};
}

std::optional<QString> KeychainStore::apiKey(const QString& providerID)
{
    if (const auto it = m_cachedKeys.constFind(providerID); it != m_cachedKeys.cend()) {
        return *it;
    }
    return unlockingIfLocked([&]() -> std::optional<QString> {
        const ReadOutcome outcome = read(m_service, providerID);
        switch (outcome.kind) {
        case ReadOutcome::Kind::found:
            m_cachedKeys.insert(providerID, outcome.key);
            return outcome.key;
        case ReadOutcome::Kind::notFound:
            return std::nullopt;
        case ReadOutcome::Kind::failure:
            break;
        }
        throw errorFor(outcome.status);
    });
}

bool KeychainStore::hasAPIKey(const QString& providerID)
{
    if (m_cachedKeys.contains(providerID)) {
        return true;
    }
    return copyItem(KeychainQuery{m_service, providerID, false}, nullptr) == 0;
}

void KeychainStore::saveAPIKey(const QString& key, const QString& providerID)
{
    const QString trimmed = key.trimmed();
    unlockingIfLocked([&] {
        if (trimmed.isEmpty()) {
            deleteAPIKey(m_service, providerID);
        } else {
            storeAPIKey(trimmed, providerID);
        }
    });
}

void KeychainStore::storeAPIKey(const QString& key, const QString& providerID)
{
    // The service replaces an item with the same attributes, so a failed write leaves the old key.
    m_cachedKeys.remove(providerID);
    if (const int32_t status = addItem(KeychainItem{m_service, providerID, key.toUtf8()}); status != 0) {
        throw errorFor(status);
    }
    const ReadOutcome check = read(m_service, providerID);
    if (check.kind == ReadOutcome::Kind::failure) {
        throw errorFor(check.status);
    }
    if (check.kind == ReadOutcome::Kind::notFound || check.key != key) {
        throw KeychainError(KeychainError::decodeFailed);
    }
    m_cachedKeys.insert(providerID, key);
}

void KeychainStore::deleteAPIKey(const QString& service, const QString& providerID)
{
    if (service == m_service) {
        m_cachedKeys.remove(providerID);
    }
    const int32_t status = deleteItem(KeychainQuery{service, providerID, false});
    if (status != 0 && status != KeychainError::itemNotFound) {
        throw errorFor(status);
    }
}

bool KeychainStore::repairAccess(const QString& providerID)
{
    m_cachedKeys.remove(providerID);
    // The Secret Service has no per-build access lists to strip: rewriting the item is the repair.
    return unlockingIfLocked([&] {
        const ReadOutcome outcome = read(m_service, providerID);
        switch (outcome.kind) {
        case ReadOutcome::Kind::found:
            storeAPIKey(outcome.key, providerID); // untrimmed: the repair must not change the secret
            return true;
        case ReadOutcome::Kind::notFound:
            return false;
        case ReadOutcome::Kind::failure:
            break;
        }
        throw errorFor(outcome.status);
    });
}

} // namespace velnora
