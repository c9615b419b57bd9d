#pragma once

#include "base/ProcessArguments.h"
#include "config/KeychainStore.h"

#include <QStringList>
#include <chrono>
#include <optional>

namespace velnora::KeychainRepairCommand {

struct Outcome
{
    QStringList repaired; // provider ids whose key was written again
    QStringList failures; // "<id>: <description>"
};

// Re-reads and re-stores the key of every built-in provider that has one.
Outcome repairAll(KeychainStore& store);
// How long the mode waits to learn whether a Secret Service answers at all.
inline constexpr std::chrono::milliseconds serviceCheckDeadline = std::chrono::seconds(2);
// Why the store's Secret Service cannot be used (absent, silent, refusing), or none.
std::optional<KeychainError> serviceFailure(const KeychainStore& store, std::chrono::milliseconds deadline);
// The "--repair-keychain-access" mode: prints the outcome, exit status 1 when any provider failed.
int run(const ProcessArguments& arguments);
int report(const Outcome& outcome);

} // namespace velnora::KeychainRepairCommand
