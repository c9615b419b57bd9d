#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

namespace velnora::test {

// An OpenAI-style chat stream that sends the pieces in order, then the end marker.
inline QByteArray chatStream(const QStringList& pieces)
{
    QByteArray body;
    for (const QString& piece : pieces) {
        const QJsonObject delta{{"content", piece}};
        const QJsonObject event{{"choices", QJsonArray{QJsonObject{{"index", 0}, {"delta", delta}}}}};
        body += "data: " + QJsonDocument(event).toJson(QJsonDocument::Compact) + "\n\n";
    }
    return body + "data: [DONE]\n\n";
}

// "role:content" of each message a chat request carried, the system message included.
inline QStringList sentMessages(const QByteArray& requestBody)
{
    QStringList sent;
    for (const auto& message : QJsonDocument::fromJson(requestBody).object().value("messages").toArray()) {
        sent << message.toObject().value("role").toString() + ":" +
                    message.toObject().value("content").toString();
    }
    return sent;
}

} // namespace velnora::test
