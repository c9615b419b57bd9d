#include "bridge/BridgeRequest.h"

#include <QJsonDocument>

namespace velnora {

QJsonObject BridgeRequest::toJson() const
{
    QJsonObject object{
        {QStringLiteral("id"), id},
        {QStringLiteral("type"), rawValue(type)},
        {QStringLiteral("createdAt"), createdAt},
    };
    if (text) {
        object.insert(QStringLiteral("text"), *text);
    }
    if (provider) {
        object.insert(QStringLiteral("provider"), *provider);
    }
    if (depthInstruction) {
        object.insert(QStringLiteral("depthInstruction"), *depthInstruction);
    }
    return object;
}

QByteArray BridgeRequest::encode() const
{
    // QJsonObject keeps its keys sorted, which is the order the record is written in.
    return QJsonDocument(toJson()).toJson(QJsonDocument::Compact);
}

std::optional<BridgeRequest> BridgeRequest::decode(const QByteArray& bytes)
{
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        return std::nullopt;
    }
    return fromJson(document.object());
}

std::optional<BridgeRequest> BridgeRequest::fromJson(const QJsonObject& object)
{
    const QJsonValue id = object.value(QStringLiteral("id"));
    const QJsonValue type = object.value(QStringLiteral("type"));
    const QJsonValue createdAt = object.value(QStringLiteral("createdAt"));
    if (!id.isString() || !type.isString() || !createdAt.isDouble()) {
        return std::nullopt;
    }
    const std::optional<BridgeRequestType> kind = fromRawValue<BridgeRequestType>(type.toString());
    if (!kind) {
        return std::nullopt;
    }
    BridgeRequest request;
    request.id = id.toString();
    request.type = *kind;
    request.createdAt = createdAt.toDouble();
    const auto optionalString = [&object](const QString& key, std::optional<QString>& field) {
        const QJsonValue value = object.value(key);
        if (value.isUndefined() || value.isNull()) {
            return true;
        }
        if (!value.isString()) {
            return false;
        }
        field = value.toString();
        return true;
    };
    if (!optionalString(QStringLiteral("text"), request.text) ||
        !optionalString(QStringLiteral("provider"), request.provider) ||
        !optionalString(QStringLiteral("depthInstruction"), request.depthInstruction)) {
        return std::nullopt;
    }
    return request;
}

} // namespace velnora
