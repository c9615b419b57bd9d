#include "llm/StreamingTransport.h"

#include "llm/NetworkSupport.h"
#include "llm/StreamPayload.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>

namespace velnora {

namespace {

// Runs fn on the main thread, after everything queued there before it.
template <typename Fn> void onMainThread(Fn&& fn)
{
    QMetaObject::invokeMethod(QCoreApplication::instance(), std::forward<Fn>(fn), Qt::QueuedConnection);
}

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
    : m_protocol(protocol), m_onDelta(std::move(onDelta)), m_onComplete(std::move(onComplete)),
      m_reader(
          protocol, [this](const QString& text) { emitDelta(text); },
          [this](const QString& message) { finish(StreamResult::failed(LLMClientError::api(message))); }),
      m_bodyLimit(NetworkSupport::bodyLimit)
{
    m_inactivity.setSingleShot(true);
    connect(&m_inactivity, &QTimer::timeout, this, &StreamingTransport::onInactivity);
}

StreamingTransport::~StreamingTransport()
{
    if (m_reply) {
        m_reply->disconnect(this);
        m_reply->abort();
    }
    delete m_manager.data();
}

void StreamingTransport::start(const PreparedRequest& request)
{
    if (m_manager || m_finished) {
        return; // one request per transport
    }
    m_self = shared_from_this();
    m_manager = NetworkSupport::createEphemeralManager(nullptr);
    m_timeout = request.inactivityTimeout;
    m_reply = NetworkSupport::send(*m_manager, request);
    connect(m_reply, &QNetworkReply::metaDataChanged, this, &StreamingTransport::onMetaData);
    connect(m_reply, &QNetworkReply::readyRead, this, &StreamingTransport::onReadyRead);
    connect(m_reply, &QNetworkReply::finished, this, &StreamingTransport::onFinished);
    // Sending a large body is activity too.
    connect(m_reply, &QNetworkReply::uploadProgress, this, [this] {
        if (m_timeout.count() > 0 && !m_finished) {
            m_inactivity.start(m_timeout);
        }
    });
    if (m_timeout.count() > 0) {
        m_inactivity.start(m_timeout);
    }
}

void StreamingTransport::cancel()
{
    if (m_finished) {
        return;
    }
    m_finished = true;
    releaseNetwork();
    onMainThread([handler = m_onComplete] {
        if (handler) {
            handler(StreamResult::failed(LLMClientError::cancelled()));
        }
    });
    // Let go of the self-reference only after the current call has returned.
    onMainThread([self = std::move(m_self)] {});
}

void StreamingTransport::onMetaData()
{
    if (m_reply) {
        m_statusCode = NetworkSupport::httpStatus(*m_reply);
    }
    if (m_timeout.count() > 0 && !m_finished) {
        m_inactivity.start(m_timeout);
    }
}

void StreamingTransport::onReadyRead()
{
    if (m_finished || !m_reply) {
        return;
    }
    if (m_timeout.count() > 0) {
        m_inactivity.start(m_timeout);
    }
    take(m_reply->readAll());
}

bool StreamingTransport::take(const QByteArray& bytes)
{
    if (bytes.isEmpty() || m_finished) {
        return !m_finished;
    }
    if (bytes.size() > m_bodyLimit - m_rawResponse.size()) {
        finish(StreamResult::failed(NetworkSupport::bodyTooLarge(m_bodyLimit)));
        return false;
    }
    m_rawResponse.append(bytes);
    m_reader.feed(bytes);
    return !m_finished;
}

void StreamingTransport::onInactivity()
{
    if (m_finished || !m_reply) {
        return;
    }
    m_timedOut = true;
    m_reply->abort(); // finishes the reply; onFinished reports the time-out
}

void StreamingTransport::onFinished()
{
    if (m_finished || !m_reply) {
        return;
    }
    m_inactivity.stop();
    if (!m_statusCode) {
        m_statusCode = NetworkSupport::httpStatus(*m_reply);
    }
    if (m_reply->isOpen() && !take(m_reply->readAll())) {
        return;
    }

    m_reader.finishInput();
    if (m_finished) {
        return; // an error event in the last lines
    }
    if (m_timedOut) {
        finish(StreamResult::failed(NetworkSupport::inactivityTimeout(m_timeout)));
        return;
    }
    if (NetworkSupport::isTransportFailure(m_reply->error(), m_statusCode)) {
        finish(StreamResult::failed(NetworkSupport::transportFailure(*m_reply)));
        return;
    }
    if (std::optional<NetworkError> truncated =
            NetworkSupport::truncatedBody(*m_reply, m_rawResponse.size())) {
        finish(StreamResult::failed(*truncated));
        return;
    }
    if (m_statusCode && (*m_statusCode < 200 || *m_statusCode > 299)) {
        QString message;
        if (const std::optional<QJsonObject> body = jsonObject(m_rawResponse)) {
            message = StreamPayload::errorMessage(*body).value_or(QString());
        }
        if (message.isEmpty()) {
            message = NetworkSupport::reasonPhrase(*m_statusCode);
        }
        finish(StreamResult::failed(LLMClientError::http(*m_statusCode, message)));
        return;
    }
    if (m_reader.receivedText()) {
        finish(StreamResult::success({}));
        return;
    }
    // A service that answered with one JSON document instead of a stream.
    m_reader.offerWholeBody(m_rawResponse);
    if (m_reader.receivedText()) {
        finish(StreamResult::success({}));
        return;
    }
    if (const std::optional<QJsonObject> body = jsonObject(m_rawResponse)) {
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
    onMainThread([handler = m_onDelta, text] {
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
    onMainThread([handler = m_onComplete, result = std::move(result)] {
        if (handler) {
            handler(result);
        }
    });
    onMainThread([self = std::move(m_self)] {});
}

void StreamingTransport::releaseNetwork()
{
    m_inactivity.stop();
    if (m_reply) {
        QNetworkReply* reply = m_reply;
        reply->disconnect(this);
        if (reply->isRunning()) {
            reply->abort();
        }
        reply->deleteLater();
        m_reply = nullptr;
    }
    if (m_manager) {
        m_manager->deleteLater();
        m_manager = nullptr;
    }
    m_rawResponse = QByteArray();
}

} // namespace velnora
