#pragma once

#include <QByteArray>
#include <QNetworkRequest>
#include <QUrl>
#include <chrono>

namespace velnora {

// One HTTP request to a model service, complete and ready to send: method, URL, headers and body, and
// how long the transfer may go without receiving anything.
struct PreparedRequest
{
    QByteArray method;
    QNetworkRequest request; // URL, headers and the attributes that keep the request ephemeral
    QByteArray body;
    std::chrono::milliseconds inactivityTimeout{0};

    QUrl url() const { return request.url(); }
    QByteArray header(const QByteArray& name) const { return request.rawHeader(name); }
};

} // namespace velnora
