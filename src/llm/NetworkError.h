#pragma once

#include <QNetworkReply>
#include <QString>

namespace velnora {

// A transport failure: no answer from the server at all.
struct NetworkError
{
    QNetworkReply::NetworkError code = QNetworkReply::UnknownNetworkError;
    QString systemMessage; // what Qt said, kept verbatim; for a rejected certificate, which problems
    // The system reported no usable network when the request failed: the address is not to blame.
    bool offline = false;
    // The TLS handshake failed on the server's certificate (an intercepting proxy, a wrong clock …).
    bool certificateRejected = false;

    // A Chinese sentence for the failure, with the system's own words in parentheses.
    QString description() const;
};

} // namespace velnora
