#pragma once

#include "config/KeychainError.h"
#include "config/KeychainStore.h"

#include <QObject>
#include <QString>
#include <functional>
#include <optional>

namespace velnora {

// What one piece of keychain work answered.
struct KeychainReply
{
    bool flag = false;          // hasAPIKey, repairAccess
    std::optional<QString> key; // apiKey
    std::optional<KeychainError> error;
};

// Runs keychain work on a thread of its own, so a hung service or an unlock prompt never freezes a window,
// and hands the reply to `done` on the context's thread. Nothing arrives once the context is gone.
// The work gets a detached copy of the store; the caller's cache is left to the caller.
namespace KeychainTask {

using Work = std::function<KeychainReply(KeychainStore&)>;
void start(QObject* context, const KeychainStore& store, Work work,
           std::function<void(const KeychainReply&)> done);

} // namespace KeychainTask
} // namespace velnora
