#pragma once

#include <QString>

#include <cstdint>
#include <exception>

namespace velnora {

// A failure of the secret store, identified by a keychain-style status code.
class KeychainError : public std::exception
{
public:
    // Statuses shared with the keychain item model.
    static constexpr int32_t itemNotFound = -25300;
    static constexpr int32_t decodeFailed = -26275;
    // Secret Service conditions, each with its own status.
    static constexpr int32_t collectionLocked = -25308;
    static constexpr int32_t serviceUnavailable = -25291;
    static constexpr int32_t userCancelled = -128;
    static constexpr int32_t timedOut = -25320;
    static constexpr int32_t accessDenied = -25293;
    static constexpr int32_t serviceFailed = -25299;

    explicit KeychainError(int32_t status, QString detail = {}) : m_status(status), m_detail(std::move(detail)) {}

    int32_t status() const { return m_status; }
    // What the secret service itself said, when it said anything.
    const QString& detail() const { return m_detail; }
    // "无法访问系统钥匙串：" + the message for the status.
    QString description() const;
    const char* what() const noexcept override { return "KeychainError"; }

    static QString messageForStatus(int32_t status);

private:
    int32_t m_status;
    QString m_detail;
};

} // namespace velnora
