#include "LlmTestSupport.h"
#include "config/ConfigurationError.h"
#include "config/PromptLibrary.h"
#include "llm/LLMClient.h"
#include "llm/ModelCatalog.h"

using namespace velnora;
using namespace velnora::test;

namespace {

ResolvedProviderConfiguration official(const QString& id, const QString& key = QStringLiteral("sk-test-123"))
{
    const ProviderDefinition& definition = ProviderDefinition::definition(id);
    return {definition, definition.defaultBaseURL, definition.defaultModel, key};
}

QString answerOnly()
{
    return QString::fromUtf8(LLMClient::answerOnlyInstruction);
}

QList<ConversationMessage> conversation()
{
    return {ConversationMessage::user(QStringLiteral("解释“熵”")),
            ConversationMessage::assistant(QStringLiteral("熵是……")),
            ConversationMessage::user(QStringLiteral("再简单点"))};
}

QByteArray json(const QString& text)
{
    return text.toUtf8();
}

} // namespace

TEST(LLMClientRequest, EachProtocolsUrlHeadersAndBodyByteForByte)
{
    const QUrl gateway(QStringLiteral("https://gateway.example.test/v1/"));
    const QByteArray turns = json("{\"content\":\"解释“熵”\",\"role\":\"user\"},{\"content\":\"熵是……\","
                                  "\"role\":\"assistant\"},{\"content\":\"再简单点\",\"role\":\"user\"}");
    const QByteArray system = json("SYS\\n\\n" + answerOnly());
    struct Case
    {
        ResolvedProviderConfiguration provider;
        QString url;
        QList<std::pair<QByteArray, QByteArray>> headers;
        QByteArray body;
    };
    const QList<Case> cases{
        {official("doubao"),
         "https://ark.cn-beijing.volces.com/api/v3/responses",
         {{"Authorization", "Bearer sk-test-123"}, {"Content-Type", "application/json"},
          {"User-Agent", "Lumaquill-macOS/2.0"}},
         "{\"input\":[" + turns + "],\"instructions\":\"" + system +
             "\",\"model\":\"doubao-seed-2-0-lite-260215\",\"store\":false,\"stream\":true,"
             "\"thinking\":{\"type\":\"disabled\"}}"},
        // The base path is kept and the system text leads the messages.
        {official("qwen"),
         "https://dashscope.aliyuncs.com/compatible-mode/v1/chat/completions",
         {{"Authorization", "Bearer sk-test-123"}},
         "{\"messages\":[{\"content\":\"" + system + "\",\"role\":\"system\"}," + turns +
             "],\"model\":\"qwen3.6-plus\",\"stream\":true}"},
        {loopbackProvider("kimi", ProviderWireProtocol::anthropicMessages, gateway, "kimi-k3", "ak"),
         "https://gateway.example.test/v1/messages",
         {{"x-api-key", "ak"}, {"anthropic-version", "2023-06-01"}},
         "{\"max_tokens\":2000,\"messages\":[" + turns + "],\"model\":\"kimi-k3\",\"stream\":true,\"system\":\"" +
             system + "\"}"},
        {loopbackProvider("qwen", ProviderWireProtocol::geminiGenerateContent, gateway, "gemini-3.6-flash", "gk"),
         "https://gateway.example.test/v1/models/gemini-3.6-flash:streamGenerateContent?alt=sse",
         {{"x-goog-api-key", "gk"}},
         json("{\"contents\":[{\"parts\":[{\"text\":\"解释“熵”\"}],\"role\":\"user\"},"
              "{\"parts\":[{\"text\":\"熵是……\"}],\"role\":\"model\"},{\"parts\":[{\"text\":"
              "\"再简单点\"}],\"role\":\"user\"}],\"system_instruction\":{\"parts\":[{\"text\":\"") +
             system + "\"}]}}"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.url.toStdString());
        const PreparedRequest request = LLMClient::makeRequest(c.provider, "SYS", conversation(), acceptAnyAddress);
        EXPECT_EQ(request.method, "POST");
        EXPECT_EQ(request.url().toString(QUrl::FullyEncoded), c.url);
        EXPECT_EQ(request.inactivityTimeout, std::chrono::seconds(120));
        for (const auto& [name, value] : c.headers) {
            EXPECT_EQ(request.header(name), value) << name.toStdString();
        }
        EXPECT_EQ(request.body, c.body);
    }
    // DeepSeek has no path: the endpoint goes right after the host.
    EXPECT_EQ(LLMClient::makeRequest(official("deepseek"), "S", {}).url().toString(),
              "https://api.deepseek.com/chat/completions");
}

TEST(LLMClientRequest, GeminiModelIsPercentEncodedInThePathAndTheQueryStaysAltSse)
{
    auto gemini =
        loopbackProvider("qwen", ProviderWireProtocol::geminiGenerateContent,
                         QUrl("https://g.example.test/v1beta"), QStringLiteral("my model/é?x#1%"), "k");
    const PreparedRequest request = LLMClient::makeRequest(gemini, "S", {}, acceptAnyAddress);
    EXPECT_EQ(
        request.url().toString(QUrl::FullyEncoded),
        "https://g.example.test/v1beta/models/my%20model/%C3%A9%3Fx%231%25:streamGenerateContent?alt=sse");
    EXPECT_EQ(request.url().query(QUrl::FullyEncoded), "alt=sse");
}

TEST(LLMClientRequest, EndpointJoinsPathPiecesWhateverTheSlashes)
{
    const QList<std::tuple<const char*, const char*, const char*>> cases{
        {"https://h.test/api/v3", "chat/completions", "https://h.test/api/v3/chat/completions"},
        {"https://h.test/api/v3/", "/chat/completions", "https://h.test/api/v3/chat/completions"},
        {"https://h.test/api/v3", "chat//completions/", "https://h.test/api/v3/chat/completions"},
        {"https://h.test", "models", "https://h.test/models"},
        {"https://h.test:8443/x", "a?b=c", "https://h.test:8443/x/a?b=c"},
    };
    for (const auto& [base, path, expected] : cases) {
        EXPECT_EQ(LLMClient::endpoint(QUrl(base), path).toString(), expected) << base << " + " << path;
    }
}

TEST(LLMClientRequest, AnswerOnlyInstructionIsAddedOnce)
{
    EXPECT_EQ(LLMClient::systemText("SYS"), "SYS\n\n" + answerOnly());
    EXPECT_EQ(LLMClient::systemText("SYS\n" + answerOnly() + "\nMORE"), "SYS\n" + answerOnly() + "\nMORE");
    // The default prompt already carries it.
    const QString defaultText = LLMClient::systemText(QString());
    EXPECT_EQ(defaultText, PromptLibrary::defaultSystemPrompt());
    EXPECT_EQ(defaultText.count(answerOnly()), 1);
    // Prompts written from an older default gain it through normalisation, still once.
    const QString older = QString::fromUtf8(PromptLibrary::openingSentence) + "讲清楚。";
    EXPECT_EQ(LLMClient::systemText(older).count(answerOnly()), 1);
    const PreparedRequest request = LLMClient::makeRequest(official("deepseek"), "  \n", {});
    EXPECT_EQ(request.body.count(answerOnly().toUtf8()), 1);
}

TEST(LLMClientRequest, ThinkingSwitchOnlyForDoubaoWithResponses)
{
    const QUrl base("https://x.test/v1");
    EXPECT_TRUE(LLMClient::makeRequest(official("doubao"), "S", {})
                    .body.contains("\"thinking\":{\"type\":\"disabled\"}"));
    for (ProviderWireProtocol protocol :
         {ProviderWireProtocol::openAIChat, ProviderWireProtocol::anthropicMessages,
          ProviderWireProtocol::geminiGenerateContent}) {
        EXPECT_FALSE(
            LLMClient::makeRequest(loopbackProvider("doubao", protocol, base), "S", {}, acceptAnyAddress)
                .body.contains("thinking"));
    }
    for (const char* id : {"deepseek", "qwen", "kimi", "glm", "hunyuan", "ernie"}) {
        EXPECT_FALSE(LLMClient::makeRequest(loopbackProvider(id, ProviderWireProtocol::openAIResponses, base),
                                            "S", {}, acceptAnyAddress)
                         .body.contains("thinking"))
            << id;
    }
}

TEST(LLMClientRequest, EmptyConversationBodies)
{
    const QUrl base("https://x.test/v1");
    const auto body = [&](ProviderWireProtocol protocol) {
        return LLMClient::makeRequest(loopbackProvider("glm", protocol, base, "m"), "S", {}, acceptAnyAddress)
            .body;
    };
    EXPECT_TRUE(body(ProviderWireProtocol::openAIResponses).contains("\"input\":[]"));
    EXPECT_TRUE(body(ProviderWireProtocol::geminiGenerateContent).contains("\"contents\":[]"));
    EXPECT_TRUE(body(ProviderWireProtocol::anthropicMessages).contains("\"messages\":[]"));
    const QByteArray chat = body(ProviderWireProtocol::openAIChat);
    EXPECT_TRUE(chat.startsWith("{\"messages\":[{\"content\":\"S\\n\\n"));
    EXPECT_TRUE(chat.contains("\"role\":\"system\"}],"));
}

TEST(LLMClientRequest, TheKeyTravelsOnlyInAHeader)
{
    const QString key = QStringLiteral("sk-SECRET-4711");
    const QUrl base("https://x.test/v1");
    for (ProviderWireProtocol protocol : allCases<ProviderWireProtocol>()) {
        const PreparedRequest request = LLMClient::makeRequest(
            loopbackProvider("glm", protocol, base, "m", key), "S", {}, acceptAnyAddress);
        EXPECT_FALSE(request.url().toString(QUrl::FullyEncoded).contains("SECRET"));
        EXPECT_FALSE(request.body.contains("SECRET"));
        int headersWithKey = 0;
        for (const QByteArray& name : request.request.rawHeaderList()) {
            headersWithKey += request.header(name).contains("SECRET") ? 1 : 0;
        }
        EXPECT_EQ(headersWithKey, 1);
    }
}

TEST(LLMClientRequest, EditionPolicyRefusalIsThrownUnchanged)
{
    ResolvedProviderConfiguration foreign = official("deepseek");
    foreign.baseURL = QStringLiteral("https://api.openai.com/v1");
    try {
        LLMClient::makeRequest(foreign, "S", {});
        FAIL() << "no error thrown";
    } catch (const ConfigurationError& error) {
        EXPECT_EQ(error.kind(), ConfigurationError::Kind::editionRestricted);
    }
    ResolvedProviderConfiguration wrongModel = official("kimi");
    wrongModel.model = QStringLiteral("gpt-4o");
    EXPECT_THROW(LLMClient::makeRequest(wrongModel, "S", {}), ConfigurationError);
    LLMClient client;
    bool called = false;
    EXPECT_THROW(client.stream(
                     foreign, "S", {}, [&](const QString&) { called = true; },
                     [&](const StreamResult&) { called = true; }),
                 ConfigurationError);
    EXPECT_EQ(client.activeTransport(), nullptr);
    QCoreApplication::processEvents();
    EXPECT_FALSE(called);
}

TEST(LLMClientRequest, TextThatCannotBeSentIsAnInvalidRequest)
{
    const QUrl base("https://x.test/v1");
    const QString loneSurrogate(QChar(0xD800));
    EXPECT_THROW(LLMClient::makeRequest(loopbackProvider("glm", ProviderWireProtocol::openAIChat, base), "S",
                                        {ConversationMessage::user(loneSurrogate)}, acceptAnyAddress),
                 LLMClientError);
    try {
        LLMClient::makeRequest(
            loopbackProvider("glm", ProviderWireProtocol::openAIChat, base, "m", "key\r\nX-Injected: 1"), "S",
            {}, acceptAnyAddress);
        FAIL() << "no error thrown";
    } catch (const LLMClientError& error) {
        EXPECT_EQ(error, LLMClientError::invalidRequest());
        EXPECT_EQ(error.description(), QStringLiteral("无法生成模型请求。"));
    }
}
