#pragma once

#include "config/ProviderCatalog.h"

#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <optional>

namespace velnora::StreamPayload {

// Where the answer text sits in the JSON objects of the four wire protocols. An empty string means
// "no text here"; none of these functions fails on unexpected shapes.

// The text piece carried by one streamed event.
QString deltaText(const QJsonObject& event, ProviderWireProtocol protocol);
// The whole answer of a final ("done", "completed") event or of a non-streamed response body.
QString completedText(const QJsonObject& object, ProviderWireProtocol protocol);
// The error message of an error object ({"error":{"message"}} or {"type":"error","message"}).
std::optional<QString> errorMessage(const QJsonObject& object);

// A Responses-style object: "output_text", a done event's "text", or the texts of its "output" items.
QString responseText(const QJsonObject& object);
// A string, a content block ("text", else "content", else "parts"), or an array of those, joined.
QString contentText(const QJsonValue& value);

} // namespace velnora::StreamPayload
