#pragma once

#include "bridge/BridgeRequest.h"

#include <QString>
#include <optional>
#include <vector>

namespace velnora {

// The on-disk queue shared by the application and the native-messaging host, with the heartbeat and
// status files beside it. The file system is the only channel between the two processes: a record
// exists only after the rename of a complete hidden file. One instance is used from one thread.
class RequestStore
{
public:
    struct Pending
    {
        BridgeRequest request;
        QString filePath;
    };

    static constexpr const char* folderName = "VelNoraDomestic";
    static constexpr const char* queueFolderName = "PendingRequests";
    static constexpr const char* heartbeatFileName = "native-host-heartbeat";
    static constexpr const char* appStatusFileName = "app-status.json";
    static constexpr const char* extensionStatusFileName = "extension-status.json";

    // Without a base directory: the environment override, else the per-user data folder. Never throws
    // and creates nothing; sweeps stale leftovers of interrupted writes.
    explicit RequestStore(std::optional<QString> baseDirectory = std::nullopt);

    const QString& baseDirectory() const { return m_baseDirectory; }
    const QString& queueDirectory() const { return m_queueDirectory; }
    QString heartbeatFilePath() const;
    QString appStatusFilePath() const;
    QString extensionStatusFilePath() const;

    // VELNORA_DATA_DIR, then BRINKWELL_DATA_DIR, when set and not empty.
    static std::optional<QString> dataDirectoryOverride();
    // $XDG_DATA_HOME/VelNoraDomestic.
    static QString defaultDirectory();
    // Moves legacy to target unless they are equal, legacy is missing or target exists. Never fails.
    static void migrateLegacyDirectory(const QString& legacy, const QString& target);

    // All of these throw FileSystemError.
    void ensureDirectories() const;
    BridgeRequest enqueue(BridgeRequestType type, std::optional<QString> text = std::nullopt,
                          std::optional<QString> provider = std::nullopt,
                          std::optional<QString> depthInstruction = std::nullopt);
    // Oldest first (createdAt, then id); unreadable records are skipped and left in place.
    std::vector<Pending> pendingRequests() const;
    bool contains(const QString& requestID) const;
    void acknowledge(const QString& requestID) const;
    void removePending(BridgeRequestType type) const;
    void markBridgeActive() const;
    void writeAppStatus(bool accessibilityTrusted) const;

    // The host is alive while its heartbeat file is no older than maximumAge seconds.
    bool isBridgeActive(double maximumAge) const;

    // Not empty, at most 80 characters, only Unicode letters, marks, digits and "-".
    static bool isValidRequestIdentifier(const QString& requestID);
    // Leftovers of an atomic write: "<something>.sb-<8 hex>-<6 alphanumerics>".
    static bool isAtomicWriteTemporary(const QString& name);
    // Leftovers of an interrupted enqueue: "." + identifier + ".tmp".
    static bool isEnqueueTemporary(const QString& name);
    // Deletes the leftovers of both kinds older than olderThan seconds; every failure is ignored.
    static void sweepStaleWriteTemporaries(const QString& directory, double olderThan, double nowSeconds);

    // Seconds since 1970 with the fraction.
    static double nowSeconds();

private:
    QString requestFilePath(const QString& requestID) const;

    QString m_baseDirectory;
    QString m_queueDirectory;
};

} // namespace velnora
