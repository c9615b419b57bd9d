#include "llm/NetworkFetch.h"

#include "llm/NetworkSupport.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>

namespace velnora {

QPointer<NetworkFetch> NetworkFetch::start(QNetworkAccessManager& manager, const PreparedRequest& request,
                                           BodyHandler onBody, Completion onComplete)
{
    QPointer<NetworkFetch> fetch = new NetworkFetch(std::move(onBody), std::move(onComplete));
    fetch->send(manager, request);
    return fetch;
}

NetworkFetch::NetworkFetch(BodyHandler onBody, Completion onComplete)
    : m_onBody(std::move(onBody)), m_onComplete(std::move(onComplete))
{
    m_inactivity.setSingleShot(true);
    connect(&m_inactivity, &QTimer::timeout, this, [this] {
        if (!m_ended && m_reply) {
            m_timedOut = true;
            m_reply->abort(); // finishes the reply; onFinished reports the time-out
        }
    });
}

void NetworkFetch::send(QNetworkAccessManager& manager, const PreparedRequest& request)
{
    m_timeout = request.inactivityTimeout;
    m_reply = NetworkSupport::send(manager, request);
    // Sending a large body is activity too.
    connect(m_reply, &QNetworkReply::uploadProgress, this, &NetworkFetch::restartDeadline);
    connect(m_reply, &QNetworkReply::metaDataChanged, this, &NetworkFetch::restartDeadline);
    connect(m_reply, &QNetworkReply::readyRead, this, [this] {
        restartDeadline();
        if (!m_ended && m_reply) {
            take(m_reply->readAll(), false);
        }
    });
    // Which certificate problem it was: the reply's own error only says the handshake failed.
    connect(m_reply, &QNetworkReply::sslErrors, this,
            [this](const QList<QSslError>& errors) { m_sslErrors = errors; });
    connect(m_reply, &QNetworkReply::finished, this, &NetworkFetch::onFinished);
    restartDeadline();
}

std::optional<int> NetworkFetch::status() const
{
    return m_reply ? NetworkSupport::httpStatus(*m_reply) : std::nullopt;
}

void NetworkFetch::restartDeadline()
{
    if (!m_ended && m_timeout.count() > 0) {
        m_inactivity.start(m_timeout);
    }
}

bool NetworkFetch::take(const QByteArray& bytes, bool last)
{
    if (m_ended) {
        return false;
    }
    if (bytes.size() > NetworkSupport::bodyLimit - m_body.size()) {
        complete(Outcome::failed(NetworkSupport::bodyTooLarge(NetworkSupport::bodyLimit)));
        return false;
    }
    m_body.append(bytes);
    if ((bytes.isEmpty() && !last) || !m_onBody || m_onBody(bytes, last)) {
        return !m_ended;
    }
    abandon();
    return false;
}

void NetworkFetch::onFinished()
{
    if (m_ended || !m_reply) {
        return;
    }
    m_inactivity.stop();
    QNetworkReply& reply = *m_reply;
    if (!take(reply.isOpen() ? reply.readAll() : QByteArray(), true)) {
        return;
    }
    const std::optional<int> status = NetworkSupport::httpStatus(reply);
    if (m_timedOut) {
        complete(Outcome::failed(NetworkSupport::inactivityTimeout(m_timeout)));
    } else if (NetworkSupport::isTransportFailure(reply.error(), status)) {
        complete(Outcome::failed(NetworkSupport::transportFailure(reply, m_sslErrors)));
    } else if (std::optional<NetworkError> truncated = NetworkSupport::truncatedBody(reply, m_body.size())) {
        complete(Outcome::failed(*truncated));
    } else {
        complete(Outcome::success(Response{status, m_body}));
    }
}

void NetworkFetch::complete(Outcome outcome)
{
    if (m_ended) {
        return;
    }
    const Completion completion = std::move(m_onComplete);
    abandon();
    if (completion) {
        completion(outcome);
    }
}

void NetworkFetch::abandon()
{
    if (m_ended) {
        return;
    }
    m_ended = true;
    m_inactivity.stop();
    m_body = QByteArray();
    if (m_reply) {
        QNetworkReply* reply = m_reply;
        reply->disconnect(this);
        if (reply->isRunning()) {
            reply->abort();
        }
        reply->deleteLater();
        m_reply = nullptr;
    }
    deleteLater();
}

} // namespace velnora
