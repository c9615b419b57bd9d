#include "LlmTestSupport.h"
#include "config/ConfigurationError.h"
#include "llm/ApiKeyCheck.h"
#include "llm/LLMClient.h"
#include "llm/ProviderDiagnostics.h"

using namespace velnora;
using namespace velnora::test;

namespace {

ResolvedProviderConfiguration official(const QString& id)
{
    const ProviderDefinition& definition = ProviderDefinition::definition(id);
    return {definition, definition.defaultBaseURL, definition.defaultModel, QStringLiteral("sk-test-123")};
}

const QString answerOnly = QString::fromUtf8(LLMClient::answerOnlyInstruction);

} // namespace

TEST(LLMClientRequest, EachProtocolsUrlHeadersAndBodyByteForByte)
{
    const QList<ConversationMessage> conversation{ConversationMessage::user("解释“熵”"),
                                                  ConversationMessage::assistant("熵是……"),
                                                  ConversationMessage::user("再简单点")};
    const QUrl gateway(QStringLiteral("https://gateway.example.test/v1/"));
    const QByteArray turns = "{\"content\":\"解释“熵”\",\"role\":\"user\"},{\"content\":\"熵是……\","
                             "\"role\":\"assistant\"},{\"content\":\"再简单点\",\"role\":\"user\"}";
    const QByteArray system = ("SYS\\n\\n" + answerOnly).toUtf8();
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
         {{"Authorization", "Bearer sk-test-123"},
          {"Content-Type", "application/json"},
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
         "{\"max_tokens\":2000,\"messages\":[" + turns +
             "],\"model\":\"kimi-k3\",\"stream\":true,\"system\":\"" + system + "\"}"},
        // The model is one encoded path segment; the query stays alt=sse.
        {loopbackProvider("qwen", ProviderWireProtocol::geminiGenerateContent, gateway, "my model/é?x#1%",
                          "gk"),
         "https://gateway.example.test/v1/models/my%20model/%C3%A9%3Fx%231%25:streamGenerateContent?alt=sse",
         {{"x-goog-api-key", "gk"}},
         QByteArray(
             "{\"contents\":[{\"parts\":[{\"text\":\"解释“熵”\"}],\"role\":\"user\"},{\"parts\":[{\"text\":"
             "\"熵是……\"}],\"role\":\"model\"},{\"parts\":[{\"text\":\"再简单点\"}],\"role\":\"user\"}],"
             "\"system_instruction\":{\"parts\":[{\"text\":\"") +
             system + "\"}]}}"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.url.toStdString());
        const PreparedRequest request =
            LLMClient::makeRequest(c.provider, "SYS", conversation, acceptAnyAddress);
        EXPECT_EQ(request.method, "POST");
        EXPECT_EQ(request.url().toString(QUrl::FullyEncoded), c.url);
        for (const auto& [name, value] : c.headers) {
            EXPECT_EQ(request.header(name), value) << name.toStdString();
        }
        EXPECT_EQ(request.body, c.body);
    }
    // A blank prompt means the default one, which carries the answer-only instruction once.
    EXPECT_EQ(LLMClient::makeRequest(official("deepseek"), "  \n", {}).body.count(answerOnly.toUtf8()), 1);
}

TEST(LLMClientRequest, RequestsThatMayNotOrCannotBeSentThrowAndSendNothing)
{
    // The edition's own policy refuses a foreign address, and nothing is sent.
    ResolvedProviderConfiguration foreign = official("deepseek");
    foreign.baseURL = QStringLiteral("https://api.openai.com/v1");
    LLMClient client;
    bool called = false;
    EXPECT_THROW(client.stream(
                     foreign, "S", {}, [&](const QString&) { called = true; },
                     [&](const StreamResult&) { called = true; }),
                 ConfigurationError);
    EXPECT_EQ(client.activeTransport(), nullptr);
    QCoreApplication::processEvents();
    EXPECT_FALSE(called);

    // A lone surrogate cannot become UTF-8, and a line break in the key would inject a header.
    const QUrl base("https://x.test/v1");
    EXPECT_THROW(LLMClient::makeRequest(loopbackProvider("glm", ProviderWireProtocol::openAIChat, base), "S",
                                        {ConversationMessage::user(QString(QChar(0xD800)))},
                                        acceptAnyAddress),
                 LLMClientError);
    // A key that cannot stand in a header (a line break would inject one) names the API Key field and the
    // character, whatever the protocol.
    const std::tuple<QString, ProviderWireProtocol, QString> keys[]{
        {"key\r\nX-Injected: 1", ProviderWireProtocol::openAIChat, "第 4 个字符是控制字符（U+000D）"},
        {"sk-\u200Babc", ProviderWireProtocol::anthropicMessages, "第 4 个字符是看不见的零宽空格（U+200B）"},
        {"sk-ａbc", ProviderWireProtocol::geminiGenerateContent,
         "第 4 个字符是全角字符“ａ”（应为半角的“a”）"},
        {"sk-\u00E9t\u00E9", ProviderWireProtocol::openAIResponses, "第 4 个字符是“é”（U+00E9）"},
    };
    for (const auto& [key, protocol, named] : keys) {
        try {
            LLMClient::makeRequest(loopbackProvider("glm", protocol, base, "m", key), "S", {},
                                   acceptAnyAddress);
            ADD_FAILURE() << "no error thrown for " << key.toStdString();
        } catch (const LLMClientError& error) {
            const ProviderDiagnosis diagnosis = ProviderDiagnostics::diagnose(error);
            EXPECT_EQ(diagnosis.field, ProviderField::apiKey) << key.toStdString();
            EXPECT_TRUE(diagnosis.summary.startsWith("API Key 的" + named + "，"))
                << diagnosis.summary.toStdString();
            EXPECT_EQ(ApiKeyCheck::problem(key), diagnosis.summary);
        }
    }
    EXPECT_EQ(ApiKeyCheck::problem("sk-Az09~!@#$%^&*()_+-={}[]|:;'<>,.?/ "), std::nullopt);
}
