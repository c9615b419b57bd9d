#pragma once

#include <QNetworkReply>
#include <QString>

namespace velnora {

// A transport failure: no answer from the server at all.
struct NetworkError
{
    QNetworkReply::NetworkError code = QNetworkReply::UnknownNetworkError;
    QString systemMessage; // what Qt said, kept verbatim

    // A Chinese sentence for the failure, with the system's own words in parentheses.
    QString description() const;
};

} // namespace velnora
