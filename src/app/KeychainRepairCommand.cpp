#include "app/KeychainRepairCommand.h"

#include "base/ModeResult.h"
#include "config/ProviderCatalog.h"
#include "config/SecretServiceBackend.h"

namespace velnora::KeychainRepairCommand {

Outcome repairAll(KeychainStore& store)
{
    Outcome outcome;
    for (const ProviderDefinition& definition : ProviderDefinition::builtIn()) {
        const QString& id = definition.id;
        if (!store.hasAPIKey(id)) {
            continue;
        }
        try {
            // Exactly the bytes that were read go back: no trimming, and a blank secret stays.
            if (store.repairAccess(id)) {
                outcome.repaired.append(id);
            }
        } catch (const KeychainError& error) {
            outcome.failures.append(id + QStringLiteral(": ") + error.description());
        }
    }
    return outcome;
}

int report(const Outcome& outcome)
{
    for (const QString& failure : outcome.failures) {
        ModeResult::printErrorLine(QStringLiteral("keychain-access-repair: ") + failure);
    }
    if (!outcome.repaired.isEmpty()) {
        ModeResult::printLine(QStringLiteral("keychain-access-repair: ok (") +
                              outcome.repaired.join(QStringLiteral(", ")) + QStringLiteral(")"));
    } else if (outcome.failures.isEmpty()) {
        ModeResult::printLine(QStringLiteral("keychain-access-repair: no stored API keys"));
    }
    return outcome.failures.isEmpty() ? 0 : 1;
}

std::optional<KeychainError> serviceFailure(const KeychainStore& store, std::chrono::milliseconds deadline)
{
    // Any answer about an item that does not exist proves the service is there.
    const int32_t status = SecretServiceBackend::copyItem(
        KeychainQuery{store.service(), QStringLiteral("-"), false}, nullptr, deadline);
    if (status == 0 || status == KeychainError::itemNotFound) {
        return std::nullopt;
    }
    return KeychainError(status, SecretServiceBackend::lastFailureDetail());
}

int run(const ProcessArguments&)
{
    KeychainStore store;
    // Without a service every provider would look keyless: say so once and fail instead.
    if (const auto failure = serviceFailure(store, serviceCheckDeadline)) {
        ModeResult::printErrorLine(QStringLiteral("keychain-access-repair: ") + failure->description());
        return 1;
    }
    return report(repairAll(store));
}

} // namespace velnora::KeychainRepairCommand
