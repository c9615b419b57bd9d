#pragma once

#include "app/ProcessArguments.h"
#include "config/KeychainStore.h"

#include <QStringList>

namespace velnora::KeychainRepairCommand {

struct Outcome
{
    QStringList repaired; // provider ids whose key was written again
    QStringList failures; // "<id>: <description>"
};

// Re-reads and re-stores the key of every built-in provider that has one.
Outcome repairAll(KeychainStore& store);
// The "--repair-keychain-access" mode: prints the outcome, exit status 1 when any provider failed.
int run(const ProcessArguments& arguments);
int report(const Outcome& outcome);

} // namespace velnora::KeychainRepairCommand
