#include "app/KeychainRepairCommand.h"

#include "app/ModeResult.h"
#include "config/ProviderCatalog.h"

namespace velnora::KeychainRepairCommand {

Outcome repairAll(KeychainStore& store)
{
    Outcome outcome;
    for (const ProviderDefinition& definition : ProviderDefinition::builtIn()) {
        const QString& id = definition.id;
        if (!store.hasAPIKey(id)) {
            continue;
        }
        store.dropCachedKey(id);
        KeychainStore::ReadOutcome read = store.read(store.service(), id);
        if (read.kind == KeychainStore::ReadOutcome::Kind::notFound) {
            read = store.readLegacy(id);
        }
        if (read.kind != KeychainStore::ReadOutcome::Kind::found) {
            outcome.failures.append(id + QStringLiteral(": ") + KeychainError(read.status).description());
            continue;
        }
        try {
            store.saveAPIKey(read.key, id);
            outcome.repaired.append(id);
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
        ModeResult::printLine(QStringLiteral("keychain-access-repair: ok (") + outcome.repaired.join(QStringLiteral(", ")) +
                              QStringLiteral(")"));
    } else if (outcome.failures.isEmpty()) {
        ModeResult::printLine(QStringLiteral("keychain-access-repair: no stored API keys"));
    }
    return outcome.failures.isEmpty() ? 0 : 1;
}

int run(const ProcessArguments&)
{
    KeychainStore store;
    return report(repairAll(store));
}

} // namespace velnora::KeychainRepairCommand
