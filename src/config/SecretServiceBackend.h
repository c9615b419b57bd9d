#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>
#include <cstdint>

namespace velnora {

struct KeychainQuery
{
    QString service;
    QString account;
    bool returnData = false; // false: only ask whether the item exists, never load the secret
};

struct KeychainItem
{
    QString service;
    QString account;
    QByteArray secret;
};

// Items of the desktop's Secret Service (gnome-keyring, KWallet) through libsecret: attributes
// "service" and "account", the secret as bytes. Each call returns a keychain-style status and
// gives up after its deadline, because a Secret Service call can wait forever on an unlock prompt.
namespace SecretServiceBackend {

using namespace std::chrono_literals;
inline constexpr std::chrono::milliseconds defaultDeadline = 8s;
// Long enough to type a password into the desktop's unlock prompt.
inline constexpr std::chrono::milliseconds unlockDeadline = 90s;

int32_t copyItem(const KeychainQuery& query, QByteArray* secret,
                 std::chrono::milliseconds deadline = defaultDeadline);
int32_t addItem(const KeychainItem& item, std::chrono::milliseconds deadline = defaultDeadline);
int32_t deleteItem(const KeychainQuery& query, std::chrono::milliseconds deadline = defaultDeadline);

// Asks the service to unlock the default collection, which shows the desktop's own password prompt.
// 0 when it is unlocked; userCancelled when the user dismissed the prompt.
int32_t unlockDefaultCollection(std::chrono::milliseconds deadline = unlockDeadline);

// The message the service gave for the last failure on this thread, if any.
QString lastFailureDetail();

} // namespace SecretServiceBackend
} // namespace velnora
