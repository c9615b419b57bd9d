#include "llm/StreamingTransport.h"

#include "LlmTestSupport.h"
#include "llm/LLMClient.h"
#include "llm/NetworkSupport.h"

using namespace velnora;
using namespace velnora::test;

namespace {

constexpr auto chat = ProviderWireProtocol::openAIChat;

// The text a stream delivered, and its failure's sentence (empty for success).
struct Outcome
{
    QString text;
    QString failure;
};

// Every case runs twice: in this process, and in a fetch worker (the executable the tray app uses).
class StreamingTransportTest : public LoopbackTest, public ::testing::WithParamInterface<bool>
{
protected:
    // Runs one transport against base and waits for its one completion, after every delta.
    Outcome run(const QUrl& base, ProviderWireProtocol protocol = chat,
                std::chrono::milliseconds inactivityTimeout = LLMClient::streamTimeout)
    {
        auto outcome = std::make_shared<Outcome>();
        auto completions = std::make_shared<int>(0);
        auto transport = StreamingTransport::create(
            protocol,
            [outcome, completions](const QString& text) {
                EXPECT_EQ(*completions, 0) << "a delta after the completion";
                outcome->text += text;
            },
            [outcome, completions](const StreamResult& result) {
                ++*completions;
                outcome->failure = result.ok() ? QString() : describe(result.failure());
            });
        PreparedRequest request = LLMClient::makeRequest(loopbackProvider("deepseek", protocol, base), "S",
                                                         {ConversationMessage::user("hi")}, acceptAnyAddress);
        request.inactivityTimeout = inactivityTimeout;
        transport->start(request, GetParam() ? velnoraBinary() : QString());
        transport.reset(); // a started transport keeps itself alive
        EXPECT_TRUE(waitUntil([&] { return *completions > 0; }, 15000));
        QCoreApplication::processEvents();
        EXPECT_EQ(*completions, 1);
        return *outcome;
    }
};

} // namespace

INSTANTIATE_TEST_SUITE_P(InProcessAndInWorker, StreamingTransportTest, ::testing::Bool());

// How each kind of answer ends: its text, and the failure's sentence (empty for success).
TEST_P(StreamingTransportTest, EveryWayAnAnswerCanEnd)
{
    const auto cutAfterHello = [](ScriptedResponse::Ending ending) {
        ScriptedResponse response =
            ScriptedResponse::stream(captureBytes("openai-chat-pydanticai-deepseek-1.sse"));
        response.chunked = false;
        response.ending = ending;
        response.endAfter = response.body.indexOf("\n\n", response.body.indexOf("\"content\":\"Hello")) + 2;
        return response;
    };
    ScriptedResponse textThen500 = ScriptedResponse::stream(captureBytes("openai-chat-pydanticai-glm-1.sse"));
    textThen500.status = 500;
    // Pieces 60 ms apart: longer than the time-out in all, but never silent for that long.
    ScriptedResponse trickle = ScriptedResponse::stream(captureBytes("anthropic-sdkpython-1.sse"), 40);
    trickle.pieceDelayMs = 60;
    // A refusal sent as a stream: its error event is judged with the status.
    ScriptedResponse rateLimitedStream = ScriptedResponse::stream(
        R"(data: {"error":{"message":"Rate limit reached for requests","type":"rate_limit_error"}})"
        "\n\n");
    rateLimitedStream.status = 429;
    LoopbackHttpServer elsewhere;
    const QString noModel =
        "The model or endpoint doubao-typo-xyz does not exist or you do not have access to it.";
    const QString empty = QStringLiteral("模型没有返回可显示的文字。");
    struct Case
    {
        ScriptedResponse response;
        QString text;
        QString failure;
        ProviderWireProtocol protocol = chat;
    };
    const QList<Case> cases{
        {ScriptedResponse::json(200, R"({"output":[{"type":"reasoning","content":[]},{"type":"message",)"
                                     R"("content":[{"type":"output_text","text":"整段答案"}]}]})"),
         "整段答案", "", ProviderWireProtocol::openAIResponses},
        {ScriptedResponse::json(
             200, R"({"content":[{"type":"text","text":"整段"},{"type":"text","text":"答案"}]})"),
         "整段答案", "", ProviderWireProtocol::anthropicMessages},
        {trickle, "Hello there!", "", ProviderWireProtocol::anthropicMessages},
        {ScriptedResponse::json(
             401, R"({"error":{"message":"Authentication Fails","type":"authentication_error"}})"),
         "", QStringLiteral("请求失败（HTTP 401）：Authentication Fails")},
        // An HTML error page: the status's own phrase instead of the markup.
        {ScriptedResponse::json(502, "<html><head><title>502 Bad Gateway</title></head></html>"), "",
         QStringLiteral("请求失败（HTTP 502）：错误的网关")},
        // The status is judged after the text that came with it.
        {textThen500, "4", QStringLiteral("请求失败（HTTP 500）：服务器内部错误")},
        {ScriptedResponse::redirect(302, elsewhere.url("/v1/chat/completions").toEncoded()), "",
         QStringLiteral("请求失败（HTTP 302）：已找到")},
        {ScriptedResponse::json(200, R"({"error":{"message":")" + noModel.toUtf8() + R"("}})"), "", noModel},
        {ScriptedResponse::stream(QByteArray()), "", empty},
        {rateLimitedStream, "", QStringLiteral("请求失败（HTTP 429）：Rate limit reached for requests")},
        {ScriptedResponse::stream(
             "event: response.output_text.delta\n"
             R"(data: {"type":"response.output_text.delta","delta":"开头"})"
             "\n\nevent: response.failed\n"
             R"(data: {"type":"response.failed","response":{"status":"failed","error":)"
             R"({"code":"server_error","message":"The server had an error processing your request."}}})"
             "\n\n"),
         "开头", "The server had an error processing your request.", ProviderWireProtocol::openAIResponses},
        {cutAfterHello(ScriptedResponse::Ending::stall), "Hello",
         QStringLiteral("网络请求失败（1 秒内没有收到任何数据）。")},
        // Qt's own words; the worker speaks Chinese like the app, this test process does not.
        {cutAfterHello(ScriptedResponse::Ending::drop), "Hello",
         GetParam() ? QStringLiteral("网络请求失败（连接已关闭）。")
                    : QStringLiteral("网络请求失败（Connection closed）。")},
        // One endless line, never an event: all of it is kept, up to 16 MiB.
        {ScriptedResponse::stream(QByteArray(NetworkSupport::bodyLimit, 'x'), 1 << 20), "", empty},
        {ScriptedResponse::stream(QByteArray(NetworkSupport::bodyLimit + 1, 'x'), 1 << 20), "",
         QStringLiteral("模型服务返回的内容超过 16 MiB，已停止接收。")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.response.body.left(80).toStdString());
        m_server.enqueue(c.response);
        const Outcome outcome = run(m_server.url("/v1"), c.protocol, std::chrono::seconds(1));
        EXPECT_EQ(outcome.text, c.text);
        EXPECT_EQ(outcome.failure, c.failure);
    }
    EXPECT_EQ(elsewhere.requestCount(), 0) << "the key never follows a redirect";
    // What went out, whichever process sent it.
    const RecordedRequest request = m_server.requests().first();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/v1/responses");
    EXPECT_EQ(request.header("Authorization"), "Bearer sk-loopback-test");
    EXPECT_TRUE(request.body.contains(R"({"content":"hi","role":"user"})")) << request.body.toStdString();
    m_server.closeConnections();
}

TEST_P(StreamingTransportTest, TheSessionProxySettingsAreHonoured)
{
    // The server plays an HTTP proxy: the request reaches it in absolute form.
    m_environment.set("http_proxy", m_server.url().toEncoded());
    m_environment.set("no_proxy", "localhost");
    m_server.enqueue(ScriptedResponse::stream(captureBytes("anthropic-sdkpython-1.sse")));
    EXPECT_EQ(
        run(QUrl("http://api.velnora-proxy-test.invalid/v1"), ProviderWireProtocol::anthropicMessages).text,
        "Hello there!");
    ASSERT_EQ(m_server.requestCount(), 1);
    EXPECT_EQ(m_server.requests().first().target, "http://api.velnora-proxy-test.invalid/v1/messages");
}
