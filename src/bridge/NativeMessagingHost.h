#pragma once

#include "bridge/RequestClaims.h"
#include "bridge/RequestStore.h"

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QSet>
#include <functional>
#include <mutex>
#include <optional>

class QFileSystemWatcher;
class QTimer;

namespace velnora {

// The process Chrome starts for the companion extension. Standard input is read on a thread of its own;
// every other piece of state lives on the thread that calls run() and is driven by its event loop, so
// no lock guards it. Standard output is shared and written one whole frame at a time under a mutex.
class NativeMessagingHost : public QObject
{
    Q_OBJECT

public:
    static constexpr quint32 maximumFrameSize = 1048576;
    static constexpr double defaultPortHeartbeatInterval = 20;
    // The extension gives up on a delivery after 60 s; past this an unanswered request is treated as
    // refused and its claim let go, so a lost answer cannot hold it forever.
    static constexpr double deliveryDeadline = 75;

    // Monotonic seconds; a seam so retry back-off can be tested without waiting for it.
    using Clock = std::function<double()>;

    explicit NativeMessagingHost(RequestStore& store, int inputDescriptor = 0, int outputDescriptor = 1,
                                 QObject* parent = nullptr);
    ~NativeMessagingHost() override;

    // The host's whole life: heartbeat, HOST_READY, scanning, then reading until input ends or a frame
    // is bad. Needs a QCoreApplication.
    void run();

    // Frames and writes one message; false when it was dropped (too large) or the write failed.
    bool send(const QJsonObject& message);
    // One frame from input; nullopt at end of input and for every malformed frame.
    std::optional<QJsonObject> readMessage();
    std::optional<QByteArray> readExactly(qsizetype count);
    // Runs on the reading thread; queue answers are handed to the state thread.
    void handleIncoming(const QJsonObject& message);

    void startScanning();
    void scanPendingRequests();
    void refreshHeartbeatIfNeeded();
    void sendPortHeartbeatIfNeeded();
    // ACK_REQUEST / NACK_REQUEST on the state thread.
    void handleAnswer(const QString& type, const QString& requestID);

    void setClock(Clock clock)
    {
        m_clock = std::move(clock);
        m_lastPortHeartbeatAt = m_clock();
    }
    bool isInFlight(const QString& requestID) const { return m_inFlight.contains(requestID); }
    bool holdsClaim(const QString& requestID) const { return m_claims.holds(requestID); }
    std::optional<double> retryNotBefore(const QString& requestID) const;

    // VELNORA_PORT_HEARTBEAT_SECONDS, else BRINKWELL_PORT_HEARTBEAT_SECONDS, when it is a positive
    // decimal number; 20 otherwise.
    static double portHeartbeatIntervalFromEnvironment();
    // 2, 4, 8, 16, 32, then 60 seconds for the sixth and every later refusal.
    static double retryDelaySeconds(int refusals);
    static QJsonObject hostReadyMessage();
    static QJsonObject requestMessage(const BridgeRequest& request);

private:
    void scheduleScan();
    void writeExtensionStatus(const QJsonObject& message);
    void refuse(const QString& requestID);
    double now() const { return m_clock(); }

    RequestStore& m_store;
    int m_input;
    int m_output;
    std::mutex m_outputLock;
    RequestClaims m_claims;
    QHash<QString, double> m_inFlight; // request id → when it was sent
    QHash<QString, int> m_retryCounts;
    QHash<QString, double> m_retryNotBefore;
    QTimer* m_scanTimer = nullptr;
    QFileSystemWatcher* m_watcher = nullptr;
    bool m_scanScheduled = false;
    Clock m_clock;
    double m_lastHeartbeatAt;
    double m_lastPortHeartbeatAt;
    double m_portHeartbeatInterval;
};

} // namespace velnora
