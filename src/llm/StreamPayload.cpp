#include "llm/StreamPayload.h"

#include <QJsonArray>

namespace velnora::StreamPayload {

namespace {

QString nonEmptyString(const QJsonObject& object, QLatin1StringView key)
{
    const QJsonValue value = object.value(key);
    return value.isString() ? value.toString() : QString();
}

// The first element of an array of objects, when it is one.
std::optional<QJsonObject> firstObject(const QJsonValue& value)
{
    if (!value.isArray()) {
        return std::nullopt;
    }
    const QJsonArray array = value.toArray();
    if (array.isEmpty() || !array.first().isObject()) {
        return std::nullopt;
    }
    return array.first().toObject();
}

} // namespace

QString contentText(const QJsonValue& value)
{
    if (value.isString()) {
        return value.toString();
    }
    if (value.isObject()) {
        const QJsonObject object = value.toObject();
        const QString text = nonEmptyString(object, QLatin1StringView("text"));
        if (!text.isEmpty()) {
            return text;
        }
        const QString content = contentText(object.value(QLatin1StringView("content")));
        if (!content.isEmpty()) {
            return content;
        }
        return contentText(object.value(QLatin1StringView("parts")));
    }
    if (value.isArray()) {
        QString joined;
        for (const QJsonValue& element : value.toArray()) {
            joined += contentText(element);
        }
        return joined;
    }
    return {};
}

QString responseText(const QJsonObject& object)
{
    const QString outputText = nonEmptyString(object, QLatin1StringView("output_text"));
    if (!outputText.isEmpty()) {
        return outputText;
    }
    if (object.value(QLatin1StringView("type")).toString() == u"response.output_text.done") {
        const QString text = nonEmptyString(object, QLatin1StringView("text"));
        if (!text.isEmpty()) {
            return text;
        }
    }
    const QJsonValue output = object.value(QLatin1StringView("output"));
    QString joined;
    if (output.isArray()) {
        for (const QJsonValue& item : output.toArray()) {
            if (item.isObject()) {
                joined += contentText(item.toObject().value(QLatin1StringView("content")));
            }
        }
    }
    return joined;
}

QString deltaText(const QJsonObject& event, ProviderWireProtocol protocol)
{
    switch (protocol) {
    case ProviderWireProtocol::openAIResponses:
        if (event.value(QLatin1StringView("type")).toString() == u"response.output_text.delta") {
            return nonEmptyString(event, QLatin1StringView("delta"));
        }
        return {};
    case ProviderWireProtocol::openAIChat: {
        const std::optional<QJsonObject> choice = firstObject(event.value(QLatin1StringView("choices")));
        if (!choice) {
            return {};
        }
        const QJsonValue delta = choice->value(QLatin1StringView("delta"));
        return delta.isObject() ? nonEmptyString(delta.toObject(), QLatin1StringView("content")) : QString();
    }
    case ProviderWireProtocol::anthropicMessages: {
        const QJsonValue delta = event.value(QLatin1StringView("delta"));
        return delta.isObject() ? nonEmptyString(delta.toObject(), QLatin1StringView("text")) : QString();
    }
    case ProviderWireProtocol::geminiGenerateContent: {
        const std::optional<QJsonObject> candidate =
            firstObject(event.value(QLatin1StringView("candidates")));
        if (!candidate) {
            return {};
        }
        const QJsonValue content = candidate->value(QLatin1StringView("content"));
        if (!content.isObject()) {
            return {};
        }
        const QJsonValue parts = content.toObject().value(QLatin1StringView("parts"));
        if (!parts.isArray()) {
            return {};
        }
        QString joined;
        for (const QJsonValue& part : parts.toArray()) {
            if (part.isObject()) {
                joined += nonEmptyString(part.toObject(), QLatin1StringView("text"));
            }
        }
        return joined;
    }
    }
    return {};
}

QString completedText(const QJsonObject& object, ProviderWireProtocol protocol)
{
    switch (protocol) {
    case ProviderWireProtocol::openAIResponses:
        for (const QLatin1StringView key : {QLatin1StringView("response"), QLatin1StringView("item")}) {
            const QJsonValue nested = object.value(key);
            if (nested.isObject()) {
                const QString text = responseText(nested.toObject());
                if (!text.isEmpty()) {
                    return text;
                }
            }
        }
        return responseText(object);
    case ProviderWireProtocol::openAIChat: {
        const QJsonValue choices = object.value(QLatin1StringView("choices"));
        if (!choices.isArray()) {
            return {};
        }
        for (const QJsonValue& element : choices.toArray()) {
            if (!element.isObject()) {
                continue;
            }
            const QJsonObject choice = element.toObject();
            QJsonValue carrier = choice.value(QLatin1StringView("message"));
            if (!carrier.isObject()) {
                carrier = choice.value(QLatin1StringView("delta"));
            }
            if (!carrier.isObject()) {
                continue;
            }
            const QString text = contentText(carrier.toObject().value(QLatin1StringView("content")));
            if (!text.isEmpty()) {
                return text;
            }
        }
        return {};
    }
    case ProviderWireProtocol::anthropicMessages: {
        const QJsonValue message = object.value(QLatin1StringView("message"));
        if (message.isObject()) {
            return contentText(message.toObject().value(QLatin1StringView("content")));
        }
        return contentText(object.value(QLatin1StringView("content")));
    }
    case ProviderWireProtocol::geminiGenerateContent: {
        const QJsonValue candidates = object.value(QLatin1StringView("candidates"));
        if (!candidates.isArray()) {
            return {};
        }
        for (const QJsonValue& element : candidates.toArray()) {
            if (!element.isObject()) {
                continue;
            }
            const QJsonValue content = element.toObject().value(QLatin1StringView("content"));
            if (!content.isObject()) {
                continue;
            }
            const QString text = contentText(content.toObject().value(QLatin1StringView("parts")));
            if (!text.isEmpty()) {
                return text;
            }
        }
        return {};
    }
    }
    return {};
}

std::optional<QString> errorMessage(const QJsonObject& object)
{
    const QJsonValue error = object.value(QLatin1StringView("error"));
    if (error.isObject()) {
        const QJsonObject details = error.toObject();
        const QString message = nonEmptyString(details, QLatin1StringView("message"));
        if (!message.isEmpty()) {
            return message;
        }
        const QString type = nonEmptyString(details, QLatin1StringView("type"));
        if (!type.isEmpty()) {
            return type;
        }
        return std::nullopt;
    }
    const QString type = object.value(QLatin1StringView("type")).toString();
    if (type == u"response.failed") {
        // The Responses API puts the reason inside the failed response.
        return errorMessage(object.value(QLatin1StringView("response")).toObject())
            .value_or(QStringLiteral("模型服务中止了这次回答。"));
    }
    if (type == u"error") {
        const QString message = nonEmptyString(object, QLatin1StringView("message"));
        if (!message.isEmpty()) {
            return message;
        }
    }
    return std::nullopt;
}

} // namespace velnora::StreamPayload
