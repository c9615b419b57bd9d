#include "llm/LLMClient.h"

#include "config/AppEdition.h"
#include "config/PromptLibrary.h"
#include "llm/ApiKeyCheck.h"
#include "llm/LLMClientError.h"
#include "llm/NetworkSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace velnora {

namespace {

QString roleName(ConversationMessage::Role role)
{
    return role == ConversationMessage::Role::assistant ? QStringLiteral("assistant")
                                                        : QStringLiteral("user");
}

QJsonArray turns(const QList<ConversationMessage>& messages, ProviderWireProtocol protocol)
{
    QJsonArray array;
    for (const ConversationMessage& message : messages) {
        if (protocol == ProviderWireProtocol::geminiGenerateContent) {
            const QString role = message.role == ConversationMessage::Role::assistant
                                     ? QStringLiteral("model")
                                     : QStringLiteral("user");
            array.append(
                QJsonObject{{QStringLiteral("role"), role},
                            {QStringLiteral("parts"), QJsonArray{QJsonObject{{"text", message.content}}}}});
        } else {
            array.append(QJsonObject{{QStringLiteral("role"), roleName(message.role)},
                                     {QStringLiteral("content"), message.content}});
        }
    }
    return array;
}

// Text that JSON can carry: well-formed UTF-16 (no lone surrogates).
bool isEncodable(const QString& text)
{
    return text.isValidUtf16();
}

} // namespace

LLMClient::LLMClient() : LLMClient(&AppEdition::validate) {}

LLMClient::LLMClient(AddressPolicy policy) : m_policy(std::move(policy)), m_state(std::make_shared<State>())
{}

LLMClient::~LLMClient() = default;

void LLMClient::stream(const ResolvedProviderConfiguration& provider, const QString& systemPrompt,
                       const QList<ConversationMessage>& messages, DeltaHandler onDelta,
                       CompletionHandler onComplete)
{
    if (std::shared_ptr<StreamingTransport> previous = std::move(m_state->activeTransport)) {
        m_state->activeTransport.reset();
        previous->cancel();
    }

    const PreparedRequest request = makeRequest(provider, systemPrompt, messages, m_policy);

    // The wrapper clears whatever transport the client holds when any completion arrives, without
    // asking whose completion it is: a replaced request's late `cancelled` also lets go of the
    // transport that replaced it, which then runs to its end on its own but can no longer be
    // cancelled through the client.
    std::weak_ptr<State> weakState = m_state;
    auto wrapper = [weakState, onComplete = std::move(onComplete)](const StreamResult& result) {
        if (std::shared_ptr<State> state = weakState.lock()) {
            state->activeTransport.reset();
        }
        if (onComplete) {
            onComplete(result);
        }
    };
    std::shared_ptr<StreamingTransport> transport =
        StreamingTransport::create(provider.wireProtocol(), std::move(onDelta), std::move(wrapper));
    m_state->activeTransport = transport;
    transport->start(request, m_fetchWorker);
}

void LLMClient::cancel()
{
    if (m_state->activeTransport) {
        m_state->activeTransport->cancel();
    }
}

std::shared_ptr<StreamingTransport> LLMClient::activeTransport() const
{
    return m_state->activeTransport;
}

PreparedRequest LLMClient::makeRequest(const ResolvedProviderConfiguration& provider,
                                       const QString& systemPrompt,
                                       const QList<ConversationMessage>& messages)
{
    return makeRequest(provider, systemPrompt, messages, &AppEdition::validate);
}

QString LLMClient::systemText(const QString& systemPrompt)
{
    QString text = PromptLibrary::normalizedSystemPrompt(systemPrompt);
    const QString instruction = QString::fromUtf8(answerOnlyInstruction);
    if (!text.contains(instruction)) {
        text += QStringLiteral("\n\n") + instruction;
    }
    return text;
}

QString LLMClient::endpointPath(ProviderWireProtocol protocol, const QString& model)
{
    switch (protocol) {
    case ProviderWireProtocol::openAIResponses:
        return QStringLiteral("responses");
    case ProviderWireProtocol::openAIChat:
        return QStringLiteral("chat/completions");
    case ProviderWireProtocol::anthropicMessages:
        return QStringLiteral("messages");
    case ProviderWireProtocol::geminiGenerateContent: {
        // Percent-encoded with the characters allowed in a URL path left as they are.
        const QByteArray encoded = model.toUtf8().toPercentEncoding("!$&'()*+,-./:;=@_~");
        return QStringLiteral("models/") + QString::fromLatin1(encoded) +
               QStringLiteral(":streamGenerateContent?alt=sse");
    }
    }
    return {};
}

QUrl LLMClient::endpoint(const QUrl& baseURL, const QString& path)
{
    const qsizetype question = path.indexOf(u'?');
    const QString pathPart = question < 0 ? path : path.left(question);
    const QString query = question < 0 ? QString() : path.mid(question + 1);

    QString joined = baseURL.path(QUrl::FullyEncoded);
    while (joined.endsWith(u'/')) {
        joined.chop(1);
    }
    for (const QString& piece : pathPart.split(u'/', Qt::SkipEmptyParts)) {
        joined += u'/' + piece;
    }
    QUrl url = baseURL;
    url.setPath(joined, QUrl::TolerantMode);
    if (!query.isEmpty()) {
        QUrl withQuery = url;
        withQuery.setQuery(query, QUrl::TolerantMode);
        if (withQuery.isValid()) {
            return withQuery;
        }
    }
    return url;
}

PreparedRequest LLMClient::makeRequest(const ResolvedProviderConfiguration& provider,
                                       const QString& systemPrompt,
                                       const QList<ConversationMessage>& messages,
                                       const AddressPolicy& policy)
{
    if (policy) {
        policy(provider);
    }
    const ProviderWireProtocol protocol = provider.wireProtocol();
    const QUrl url = endpoint(QUrl(provider.baseURL), endpointPath(protocol, provider.model));
    PreparedRequest request = NetworkSupport::prepare("POST", url, streamTimeout);
    request.request.setRawHeader("Content-Type", "application/json");

    if (const std::optional<QString> problem = ApiKeyCheck::problem(provider.apiKey)) {
        throw LLMClientError::invalidAPIKey(*problem);
    }
    const QString system = systemText(systemPrompt);
    bool encodable = isEncodable(system) && isEncodable(provider.model);
    for (const ConversationMessage& message : messages) {
        encodable = encodable && isEncodable(message.content);
    }
    if (!encodable || !url.isValid()) {
        throw LLMClientError::invalidRequest();
    }

    const QByteArray key = provider.apiKey.toLatin1();
    QJsonObject body;
    switch (protocol) {
    case ProviderWireProtocol::openAIResponses:
        request.request.setRawHeader("Authorization", "Bearer " + key);
        body.insert(QStringLiteral("model"), provider.model);
        body.insert(QStringLiteral("instructions"), system);
        body.insert(QStringLiteral("input"), turns(messages, protocol));
        body.insert(QStringLiteral("stream"), true);
        body.insert(QStringLiteral("store"), false);
        if (provider.definition.id == u"doubao") {
            body.insert(QStringLiteral("thinking"),
                        QJsonObject{{QStringLiteral("type"), QStringLiteral("disabled")}});
        }
        break;
    case ProviderWireProtocol::openAIChat: {
        request.request.setRawHeader("Authorization", "Bearer " + key);
        QJsonArray chat{QJsonObject{{QStringLiteral("role"), QStringLiteral("system")},
                                    {QStringLiteral("content"), system}}};
        for (const QJsonValue& turn : turns(messages, protocol)) {
            chat.append(turn);
        }
        body.insert(QStringLiteral("model"), provider.model);
        body.insert(QStringLiteral("messages"), chat);
        body.insert(QStringLiteral("stream"), true);
        break;
    }
    case ProviderWireProtocol::anthropicMessages:
        request.request.setRawHeader("x-api-key", key);
        request.request.setRawHeader("anthropic-version", "2023-06-01");
        body.insert(QStringLiteral("model"), provider.model);
        body.insert(QStringLiteral("max_tokens"), anthropicMaxTokens);
        body.insert(QStringLiteral("system"), system);
        body.insert(QStringLiteral("messages"), turns(messages, protocol));
        body.insert(QStringLiteral("stream"), true);
        break;
    case ProviderWireProtocol::geminiGenerateContent:
        request.request.setRawHeader("x-goog-api-key", key);
        body.insert(QStringLiteral("system_instruction"),
                    QJsonObject{{QStringLiteral("parts"),
                                 QJsonArray{QJsonObject{{QStringLiteral("text"), system}}}}});
        body.insert(QStringLiteral("contents"), turns(messages, protocol));
        break;
    }
    request.body = QJsonDocument(body).toJson(QJsonDocument::Compact);
    return request;
}

} // namespace velnora
