#pragma once

#include "config/ProviderCatalog.h"
#include "llm/PreparedRequest.h"
#include "llm/ProviderResult.h"
#include "llm/StreamEventReader.h"

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QTimer>
#include <functional>
#include <memory>
#include <optional>

class QNetworkAccessManager;
class QNetworkReply;

namespace velnora {

// Runs one streaming request and reports its text pieces and exactly one completion. Both callbacks
// are queued calls on the main thread, in the order produced: every delta before the completion.
// A started transport keeps itself alive until it has completed, whoever else still holds it.
class StreamingTransport : public QObject, public std::enable_shared_from_this<StreamingTransport>
{
    Q_OBJECT
public:
    using DeltaHandler = std::function<void(const QString& text)>;
    using CompletionHandler = std::function<void(const StreamResult& result)>;

    static std::shared_ptr<StreamingTransport> create(ProviderWireProtocol protocol, DeltaHandler onDelta,
                                                      CompletionHandler onComplete);
    ~StreamingTransport() override;

    // Sends the request on a manager of its own that keeps nothing afterwards.
    void start(const PreparedRequest& request);
    // Stops the request; the completion `cancelled` follows asynchronously. Nothing once completed.
    void cancel();

    bool isFinished() const { return m_finished; }
    // The largest body kept in memory (error bodies, non-streamed answers); past it the request fails.
    void setBodyLimit(qsizetype limit) { m_bodyLimit = limit; }
    qsizetype bodyLimit() const { return m_bodyLimit; }
    // Bytes of the response body kept so far.
    qsizetype keptBodyBytes() const { return m_rawResponse.size(); }

private:
    StreamingTransport(ProviderWireProtocol protocol, DeltaHandler onDelta, CompletionHandler onComplete);

    void onMetaData();
    void onReadyRead();
    void onFinished();
    void onInactivity();
    bool take(const QByteArray& bytes);
    void emitDelta(const QString& text);
    void finish(StreamResult result);
    void releaseNetwork();

    ProviderWireProtocol m_protocol;
    DeltaHandler m_onDelta;
    CompletionHandler m_onComplete;
    StreamEventReader m_reader;

    QPointer<QNetworkAccessManager> m_manager;
    QPointer<QNetworkReply> m_reply;
    QTimer m_inactivity;
    std::chrono::milliseconds m_timeout{0};

    QByteArray m_rawResponse;
    qsizetype m_bodyLimit;
    std::optional<int> m_statusCode;
    bool m_timedOut = false;
    bool m_finished = false;
    std::shared_ptr<StreamingTransport> m_self; // held from start until completion
};

} // namespace velnora
