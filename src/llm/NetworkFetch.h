#pragma once

#include "llm/PreparedRequest.h"
#include "llm/ProviderResult.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QSslError>
#include <QTimer>
#include <chrono>
#include <functional>

class QNetworkAccessManager;
class QNetworkReply;

namespace velnora {

// One HTTP exchange from sending to its end, the part every request to a model service shares: the
// inactivity deadline, the cap on the body kept in memory, and the transport, truncation and time-out
// failures. What the body means is the caller's. Deletes itself once it has ended.
class NetworkFetch : public QObject
{
    Q_OBJECT
public:
    struct Response
    {
        std::optional<int> status;
        QByteArray body;
    };
    using Outcome = ProviderResult<Response>;
    // Each piece of the body as it arrives, then once with `last` set (the piece may be empty). False
    // when the caller has ended the exchange itself (an error event in a stream): nothing more follows.
    using BodyHandler = std::function<bool(const QByteArray& bytes, bool last)>;
    // Called once, synchronously, unless the body handler or abandon() ended the exchange first.
    using Completion = std::function<void(const Outcome& outcome)>;

    static QPointer<NetworkFetch> start(QNetworkAccessManager& manager, const PreparedRequest& request,
                                        BodyHandler onBody, Completion onComplete);
    // The HTTP status, once the response headers have arrived.
    std::optional<int> status() const;
    // Ends the exchange at once, without a completion.
    void abandon();

private:
    NetworkFetch(BodyHandler onBody, Completion onComplete);
    void send(QNetworkAccessManager& manager, const PreparedRequest& request);
    void restartDeadline();
    bool take(const QByteArray& bytes, bool last);
    void onFinished();
    void complete(Outcome outcome);

    BodyHandler m_onBody;
    Completion m_onComplete;
    QPointer<QNetworkReply> m_reply;
    QTimer m_inactivity;
    std::chrono::milliseconds m_timeout{0};
    QByteArray m_body;
    QList<QSslError> m_sslErrors;
    bool m_timedOut = false;
    bool m_ended = false;
};

} // namespace velnora
