#pragma once

#include "config/ProviderCatalog.h"
#include "llm/NetworkFetch.h"
#include "llm/ProcessFetch.h"
#include "llm/PreparedRequest.h"
#include "llm/ProviderResult.h"
#include "llm/StreamEventReader.h"

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <functional>
#include <memory>
#include <optional>

class QNetworkAccessManager;

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

    // Sends the request on a manager of its own that keeps nothing afterwards, or, given a fetch worker
    // program, in a process of its own (ProcessFetch).
    void start(const PreparedRequest& request, const QString& workerProgram = {});
    // Stops the request; the completion `cancelled` follows asynchronously. Nothing once completed.
    void cancel();

private:
    StreamingTransport(ProviderWireProtocol protocol, DeltaHandler onDelta, CompletionHandler onComplete);

    bool takeBody(const QByteArray& bytes, bool last);
    void onFetched(const NetworkFetch::Outcome& outcome);
    void emitDelta(const QString& text);
    void finish(StreamResult result);
    void releaseNetwork();

    DeltaHandler m_onDelta;
    CompletionHandler m_onComplete;
    StreamEventReader m_reader;

    QPointer<QNetworkAccessManager> m_manager;
    QPointer<NetworkFetch> m_fetch;
    QPointer<ProcessFetch> m_processFetch;
    bool m_started = false;
    bool m_finished = false;
    std::shared_ptr<StreamingTransport> m_self; // held from start until completion
};

} // namespace velnora
