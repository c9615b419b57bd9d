#include "llm/StreamingTransport.h"

#include "llm/NetworkSupport.h"
#include "llm/StreamPayload.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>

namespace velnora {

namespace {

std::optional<QJsonObject> jsonObject(const QByteArray& body)
{
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (!document.isObject()) {
        return std::nullopt;
    }
    return document.object();
}

} // namespace

std::shared_ptr<StreamingTransport>
StreamingTransport::create(ProviderWireProtocol protocol, DeltaHandler onDelta, CompletionHandler onComplete)
{
    return std::shared_ptr<StreamingTransport>(
        new StreamingTransport(protocol, std::move(onDelta), std::move(onComplete)));
}

StreamingTransport::StreamingTransport(ProviderWireProtocol protocol, DeltaHandler onDelta,
                                       CompletionHandler onComplete)
    : m_onDelta(std::move(onDelta)), m_onComplete(std::move(onComplete)),
      m_reader(
          protocol, [this](const QString& text) { emitDelta(text); },
          [this](const QString& message) {
              // An error event in a refused response (a 429 sent as a stream) is judged with its status.
              const std::optional<int> status = m_fetch          ? m_fetch->status()
                                                : m_processFetch ? m_processFetch->status()
                                                                 : std::nullopt;
              if (status && (*status < 200 || *status > 299)) {
                  finish(StreamResult::failed(LLMClientError::http(*status, message)));
              } else {
                  finish(StreamResult::failed(LLMClientError::api(message)));
              }
          })
{}

StreamingTransport::~StreamingTransport()
{
    releaseNetwork();
}

void StreamingTransport::start(const PreparedRequest& request, const QString& workerProgram)
{
    if (m_started || m_finished) {
        return; // one request per transport
    }
    m_started = true;
    m_self = shared_from_this();
    if (!workerProgram.isEmpty()) {
        m_processFetch = ProcessFetch::start(
            workerProgram, request,
            [this](const QByteArray& bytes, bool last) { return takeBody(bytes, last); },
            [this](const NetworkFetch::Outcome& outcome) { onFetched(outcome); });
        return;
    }
    m_manager = NetworkSupport::createEphemeralManager(nullptr);
    m_fetch = NetworkFetch::start(
        *m_manager, request, [this](const QByteArray& bytes, bool last) { return takeBody(bytes, last); },
        [this](const NetworkFetch::Outcome& outcome) { onFetched(outcome); });
}

void StreamingTransport::cancel()
{
    if (m_finished) {
        return;
    }
    m_finished = true;
    releaseNetwork();
    NetworkSupport::onMainThread([handler = m_onComplete] {
        if (handler) {
            handler(StreamResult::failed(LLMClientError::cancelled()));
        }
    });
    // Let go of the self-reference only after the current call has returned.
    NetworkSupport::onMainThread([self = std::move(m_self)] {});
}

bool StreamingTransport::takeBody(const QByteArray& bytes, bool last)
{
    m_reader.feed(bytes);
    if (last && !m_finished) {
        m_reader.finishInput();
    }
    return !m_finished; // an error event ends the request
}

void StreamingTransport::onFetched(const NetworkFetch::Outcome& outcome)
{
    if (!outcome.ok()) {
        finish(StreamResult::failed(outcome.failure()));
        return;
    }
    const NetworkFetch::Response& response = outcome.value();
    if (response.status && (*response.status < 200 || *response.status > 299)) {
        QString message;
        if (const std::optional<QJsonObject> body = jsonObject(response.body)) {
            message = StreamPayload::errorMessage(*body).value_or(QString());
        }
        if (message.isEmpty()) {
            message = NetworkSupport::reasonPhrase(*response.status);
        }
        finish(StreamResult::failed(LLMClientError::http(*response.status, message)));
        return;
    }
    if (m_reader.receivedText()) {
        finish(StreamResult::success({}));
        return;
    }
    // A service that answered with one JSON document instead of a stream.
    m_reader.offerWholeBody(response.body);
    if (m_reader.receivedText()) {
        finish(StreamResult::success({}));
        return;
    }
    if (const std::optional<QJsonObject> body = jsonObject(response.body)) {
        if (const std::optional<QString> message = StreamPayload::errorMessage(*body)) {
            finish(StreamResult::failed(LLMClientError::api(*message)));
            return;
        }
    }
    finish(StreamResult::failed(LLMClientError::emptyResponse()));
}

void StreamingTransport::emitDelta(const QString& text)
{
    if (m_finished) {
        return;
    }
    NetworkSupport::onMainThread([handler = m_onDelta, text] {
        if (handler) {
            handler(text);
        }
    });
}

void StreamingTransport::finish(StreamResult result)
{
    if (m_finished) {
        return;
    }
    m_finished = true;
    releaseNetwork();
    NetworkSupport::onMainThread([handler = m_onComplete, result = std::move(result)] {
        if (handler) {
            handler(result);
        }
    });
    NetworkSupport::onMainThread([self = std::move(m_self)] {});
}

void StreamingTransport::releaseNetwork()
{
    if (m_fetch) {
        m_fetch->abandon();
        m_fetch = nullptr;
    }
    if (m_processFetch) {
        m_processFetch->abandon();
        m_processFetch = nullptr;
    }
    if (m_manager) {
        m_manager->deleteLater();
        m_manager = nullptr;
    }
}

} // namespace velnora
