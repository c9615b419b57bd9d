#pragma once

#include "llm/LLMClientError.h"
#include "llm/NetworkError.h"
#include "llm/PreparedRequest.h"

#include <QCoreApplication>
#include <QNetworkReply>
#include <QSslError>
#include <chrono>
#include <optional>

class QNetworkAccessManager;
class QObject;

namespace velnora::NetworkSupport {

// Sent with every request to a model service.
inline constexpr const char* userAgent = "Lumaquill-macOS/2.0";
// The most of a response body that is ever kept in memory.
inline constexpr qsizetype bodyLimit = 16 * 1024 * 1024;

// A request with method, URL, the User-Agent and the attributes of applyEphemeralPolicy.
PreparedRequest prepare(const QByteArray& method, const QUrl& url,
                        std::chrono::milliseconds inactivityTimeout);
// Redirects refused (the 3xx response completes the request), no cookies sent or stored, no cache,
// no stored credentials reused.
void applyEphemeralPolicy(QNetworkRequest& request);

// A manager that keeps nothing between requests (no cookie jar, no cache, no credentials), takes its
// proxy from the session's system settings (http_proxy, https_proxy, no_proxy …) and verifies TLS.
QNetworkAccessManager* createEphemeralManager(QObject* parent);
QNetworkReply* send(QNetworkAccessManager& manager, const PreparedRequest& request);

// The HTTP status of a reply, once its headers have arrived.
std::optional<int> httpStatus(const QNetworkReply& reply);
// Whether a reply's error is a failure of the transport (connection, DNS, TLS, time-out …) rather than
// Qt's translation of an HTTP status that was received and is judged on its own.
bool isTransportFailure(QNetworkReply::NetworkError code, std::optional<int> status);
// The certificate problems the reply reported, if any, name what was wrong with the server's certificate.
NetworkError transportFailure(const QNetworkReply& reply, const QList<QSslError>& sslErrors = {});
// False only when the system says there is no network at all (no route out); for a failed request, this
// tells "offline" from "this address does not exist".
bool networkReachable();
// A body that ended before the length its Content-Length announced (the connection closed early), which
// Qt does not always report itself. Bodies in a content encoding are not judged.
std::optional<NetworkError> truncatedBody(const QNetworkReply& reply, qint64 receivedBytes);
// The failure reported when nothing was received for the whole inactivity timeout.
NetworkError inactivityTimeout(std::chrono::milliseconds timeout);
// The failure reported when a response body grows past bodyLimit.
LLMClientError bodyTooLarge(qsizetype limit);

// Runs fn on the main thread, after everything queued there before it: completions and pieces are
// delivered there, never inside the network code that produced them.
template <typename Fn> void onMainThread(Fn&& fn)
{
    QMetaObject::invokeMethod(QCoreApplication::instance(), std::forward<Fn>(fn), Qt::QueuedConnection);
}

// A short Chinese phrase for an HTTP status code ("未授权" for 401), for error bodies that carry no message.
QString reasonPhrase(int status);

} // namespace velnora::NetworkSupport
