#pragma once

#include "config/ResolvedProviderConfiguration.h"
#include "llm/ConversationMessage.h"
#include "llm/PreparedRequest.h"
#include "llm/StreamingTransport.h"

#include <QList>
#include <QUrl>
#include <chrono>
#include <functional>
#include <memory>

namespace velnora {

// Sends an explanation conversation to the chosen service as one streaming request in that service's
// wire dialect. One request runs at a time: a new stream cancels the one before.
class LLMClient
{
public:
    // Throws when a configuration may not be used (by default: the edition's provider and address policy).
    using AddressPolicy = std::function<void(const ResolvedProviderConfiguration&)>;
    using DeltaHandler = StreamingTransport::DeltaHandler;
    using CompletionHandler = StreamingTransport::CompletionHandler;

    static constexpr const char* answerOnlyInstruction =
        "只输出给用户看的最终答案，不要展示内部分析、思考过程、推理草稿或自我对话。";
    static constexpr std::chrono::milliseconds streamTimeout{120'000};
    static constexpr int anthropicMaxTokens = 2000;

    LLMClient();
    // A client with another address policy: diagnostics and tests that talk to a loopback server.
    explicit LLMClient(AddressPolicy policy);
    ~LLMClient();
    LLMClient(const LLMClient&) = delete;
    LLMClient& operator=(const LLMClient&) = delete;

    // Cancels the running request (its completion is `cancelled`), builds the new one and starts it.
    // onDelta and onComplete are called on the main thread. Throws ConfigurationError or
    // LLMClientError when no request can be built; nothing is sent then.
    void stream(const ResolvedProviderConfiguration& provider, const QString& systemPrompt,
                const QList<ConversationMessage>& messages, DeltaHandler onDelta,
                CompletionHandler onComplete);
    // Cancels the running request, if there is one.
    void cancel();
    // Later requests run in a fetch worker started from `program` (FetchWorker), so that the TLS stack
    // they load goes when they end; empty: in this process.
    void setFetchWorker(const QString& program) { m_fetchWorker = program; }

    // The transport of the running request, or none.
    std::shared_ptr<StreamingTransport> activeTransport() const;

    // The HTTP request for a conversation, after the edition policy (or the given one) accepted it.
    static PreparedRequest makeRequest(const ResolvedProviderConfiguration& provider,
                                       const QString& systemPrompt,
                                       const QList<ConversationMessage>& messages);
    static PreparedRequest makeRequest(const ResolvedProviderConfiguration& provider,
                                       const QString& systemPrompt,
                                       const QList<ConversationMessage>& messages,
                                       const AddressPolicy& policy);
    // The system text sent: the normalised prompt, with the answer-only instruction added once.
    static QString systemText(const QString& systemPrompt);
    // Joins a relative path, which may carry an already encoded query, onto a base URL.
    static QUrl endpoint(const QUrl& baseURL, const QString& path);
    // The path of a protocol's streaming endpoint, relative to the base URL.
    static QString endpointPath(ProviderWireProtocol protocol, const QString& model);

private:
    struct State
    {
        std::shared_ptr<StreamingTransport> activeTransport;
    };

    AddressPolicy m_policy;
    QString m_fetchWorker;
    std::shared_ptr<State> m_state;
};

} // namespace velnora
