#pragma once

#include <QHash>
#include <QString>
#include <functional>

namespace velnora {

// Which host delivers a request when several hosts (two browser profiles, Chrome and Chromium) serve
// one queue. A claim is an exclusive flock on "<data folder>/DeliveryClaims/<id>.lock": the kernel
// drops it when its holder dies, and the holder drops it when the delivery ends or its deadline passes.
// The lock file itself goes only after the request was acknowledged, so a late claimer always finds
// the request gone rather than a fresh, unlocked file.
class RequestClaims
{
public:
    static constexpr const char* folderName = "DeliveryClaims";

    explicit RequestClaims(const QString& baseDirectory);
    ~RequestClaims();
    RequestClaims(const RequestClaims&) = delete;
    RequestClaims& operator=(const RequestClaims&) = delete;

    // True when this object holds the claim afterwards (also when it already did). False when another
    // holder has it or the folder cannot be written.
    bool tryClaim(const QString& requestID);
    bool holds(const QString& requestID) const { return m_descriptors.contains(requestID); }
    // Lets go of the claim; with forget the lock file goes too (call only once the request is gone).
    void release(const QString& requestID, bool forget = false);
    // Deletes the lock files no one holds of requests that are no longer queued.
    void sweep(const std::function<bool(const QString&)>& isQueued);

private:
    QString lockPath(const QString& requestID) const;

    QString m_directory;
    QHash<QString, int> m_descriptors;
};

} // namespace velnora
