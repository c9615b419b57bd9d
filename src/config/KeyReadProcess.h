#pragma once

#include "base/ProcessArguments.h"
#include "config/KeychainTask.h"

#include <QObject>
#include <QString>
#include <functional>

namespace velnora {

// Reads one API key in a short-lived process of this executable, so that the tray process does not
// load the keyring stack (libsecret, gio's D-Bus, libgcrypt) for good on its way to a card. The
// child prints "found" and the key, "none", or "error", the status and the service's own words.
namespace KeyReadProcess {

inline constexpr const char* flag = "--read-api-key";

// The child: `--read-api-key SERVICE PROVIDER`. A locked collection is unlocked through the prompt.
int run(const ProcessArguments& arguments);

// The parent: `done` gets the key, none, or the KeychainError, on the context's thread; nothing once
// the context is gone. `program` runs `run` when given the flag.
void start(QObject* context, const QString& program, const QString& service, const QString& providerID,
           std::function<void(const KeychainReply&)> done);

// What the child printed, as a reply; an unreadable answer is a failure of the service.
KeychainReply parse(const QByteArray& output);

} // namespace KeyReadProcess

} // namespace velnora
