#include "llm/StreamingTransport.h"

#include "LlmTestSupport.h"
#include "llm/LLMClient.h"
#include "llm/NetworkSupport.h"
#include "llm/ProviderDiagnostics.h"

#include <QSslConfiguration>
#include <QTemporaryDir>

using namespace velnora;
using namespace velnora::test;

namespace {

constexpr auto chat = ProviderWireProtocol::openAIChat;

// Proxy variables of the developer's session must not divert loopback requests in these tests.
class StreamingTransportTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const char* name : {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY", "all_proxy",
                                 "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
            m_environment.unset(name);
        }
    }

    PreparedRequest requestTo(const QUrl& base, ProviderWireProtocol protocol,
                              const QList<ConversationMessage>& messages = {ConversationMessage::user("hi")})
    {
        return LLMClient::makeRequest(loopbackProvider("deepseek", protocol, base, "deepseek-v4-flash"), "S",
                                      messages, acceptAnyAddress);
    }

    // Runs one transport against the server and waits for its completion.
    StreamRecorder run(const QUrl& base, ProviderWireProtocol protocol,
                       const std::function<void(PreparedRequest&, StreamingTransport&)>& adjust = {})
    {
        StreamRecorder recorder;
        auto transport =
            StreamingTransport::create(protocol, recorder.deltaHandler(), recorder.completionHandler());
        PreparedRequest request = requestTo(base, protocol);
        if (adjust) {
            adjust(request, *transport);
        }
        transport->start(request);
        transport.reset(); // a started transport keeps itself alive
        EXPECT_TRUE(recorder.waitForCompletion(15000));
        QCoreApplication::processEvents();
        EXPECT_EQ(recorder.completions, 1);
        EXPECT_FALSE(recorder.offMainThread);
        EXPECT_FALSE(recorder.deltaAfterCompletion);
        return recorder;
    }

    // The DeepSeek capture cut right after the event that carries "Hello".
    static ScriptedResponse endingAfterHello(ScriptedResponse::Ending ending, qsizetype piece)
    {
        ScriptedResponse response =
            ScriptedResponse::stream(captureBytes("openai-chat-pydanticai-deepseek-1.sse"), piece);
        response.ending = ending;
        response.endAfter = response.body.indexOf("\n\n", response.body.indexOf("\"content\":\"Hello")) + 2;
        return response;
    }

    static const LLMClientError* clientError(const StreamRecorder& recorder)
    {
        return recorder.result ? recorder.result->clientError() : nullptr;
    }

    EnvironmentGuard m_environment;
    LoopbackHttpServer m_server;
};

} // namespace

TEST_F(StreamingTransportTest, EveryCaptureOverHttpInOneByteAndLargeChunks)
{
    for (const CaptureExpectation& expected : captureExpectations()) {
        for (qsizetype piece : {qsizetype(1), qsizetype(16 * 1024)}) {
            SCOPED_TRACE(expected.name.toStdString() + " pieces of " + std::to_string(piece));
            m_server.enqueue(ScriptedResponse::stream(captureBytes(expected.name), piece));
            const StreamRecorder recorder = run(m_server.url("/v1"), expected.protocol);
            EXPECT_EQ(recorder.text(), expected.text);
            ASSERT_TRUE(recorder.result);
            if (expected.error) {
                ASSERT_NE(clientError(recorder), nullptr);
                EXPECT_EQ(*clientError(recorder), LLMClientError::api(*expected.error));
            } else {
                EXPECT_TRUE(recorder.result->ok()) << describe(recorder.result->failure()).toStdString();
            }
        }
    }
}

TEST_F(StreamingTransportTest, SplitsInsideACharacterAndBetweenCarriageReturnAndLineFeedArriveSeparately)
{
    QByteArray body = "data: {\"choices\":[{\"delta\":{\"content\":\"边际\"}}]}\r\n\r\n"
                      "data: {\"choices\":[{\"delta\":{\"content\":\"效用\"}}]}\r\n\r\n";
    ScriptedResponse response = ScriptedResponse::stream(body);
    response.splitAt = {body.indexOf("边") + 1, body.indexOf("\r\n") + 1, body.indexOf("效") + 2};
    response.pieceDelayMs = 30;
    m_server.enqueue(response);
    const StreamRecorder recorder = run(m_server.url("/v1"), chat);
    EXPECT_EQ(recorder.deltas, (QStringList{"边际", "效用"}));
    EXPECT_TRUE(recorder.result->ok());
}

TEST_F(StreamingTransportTest, RequestReachesTheServerAsBuilt)
{
    m_server.enqueue(ScriptedResponse::stream(captureBytes("openai-chat-openaipython-1.sse")));
    StreamRecorder recorder = run(m_server.url("/compatible-mode/v1/"), chat);
    ASSERT_EQ(m_server.requestCount(), 1);
    const RecordedRequest request = m_server.requests().first();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/compatible-mode/v1/chat/completions");
    EXPECT_EQ(request.header("User-Agent"), "Lumaquill-macOS/2.0");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_EQ(request.header("Authorization"), "Bearer sk-loopback-test");
    EXPECT_EQ(request.header("Cookie"), std::nullopt);
    EXPECT_EQ(request.body, requestTo(m_server.url("/compatible-mode/v1/"), chat).body);
}

TEST_F(StreamingTransportTest, CookiesSetByTheServerAreNeverSentBack)
{
    ScriptedResponse first = ScriptedResponse::stream(captureBytes("anthropic-sdkpython-1.sse"));
    first.headers.append(qMakePair(QByteArray("Set-Cookie"), QByteArray("session=abc; Path=/")));
    m_server.enqueue(first);
    m_server.enqueue(ScriptedResponse::stream(captureBytes("anthropic-sdkpython-1.sse")));
    LLMClient client(acceptAnyAddress);
    for (int i = 0; i < 2; ++i) {
        StreamRecorder recorder;
        client.stream(
            loopbackProvider("kimi", ProviderWireProtocol::anthropicMessages, m_server.url("/v1"), "kimi-k3"),
            "S", {ConversationMessage::user("hi")}, recorder.deltaHandler(), recorder.completionHandler());
        ASSERT_TRUE(recorder.waitForCompletion());
        EXPECT_EQ(recorder.text(), "Hello there!");
    }
    ASSERT_EQ(m_server.requestCount(), 2);
    EXPECT_EQ(m_server.requests().at(1).header("Cookie"), std::nullopt);
}

TEST_F(StreamingTransportTest, ErrorStatusTakesTheJsonMessageOrTheReasonPhraseForHtml)
{
    struct Case
    {
        ScriptedResponse response;
        LLMClientError error;
        QString description;
    };
    const QList<Case> cases{
        {ScriptedResponse::json(
             401,
             R"({"error":{"message":"Authentication Fails, Your api key: ****test is invalid","type":"authentication_error"}})"),
         LLMClientError::http(401, "Authentication Fails, Your api key: ****test is invalid"), QString()},
        {ScriptedResponse::html(401, "<html><body><h1>401 Authorization Required</h1></body></html>"),
         LLMClientError::http(401, NetworkSupport::reasonPhrase(401)), QStringLiteral("请求失败（HTTP 401）：未授权")},
        {ScriptedResponse::html(502, "<!DOCTYPE html><html><head><title>502 Bad Gateway</title></head>"
                                     "<body><center><h1>502 Bad Gateway</h1></center></body></html>\n"),
         LLMClientError::http(502, QStringLiteral("错误的网关")), QString()},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.response.body.toStdString());
        m_server.enqueue(c.response);
        const StreamRecorder recorder = run(m_server.url("/v1"), chat);
        ASSERT_NE(clientError(recorder), nullptr);
        EXPECT_EQ(*clientError(recorder), c.error);
        EXPECT_TRUE(recorder.deltas.isEmpty());
        if (!c.description.isEmpty()) {
            EXPECT_EQ(clientError(recorder)->description(), c.description);
        }
    }
    // The diagnosis points at the key for 401 and at the service for a gateway failure.
    m_server.enqueue(cases.first().response);
    EXPECT_EQ(ProviderDiagnostics::diagnose(run(m_server.url("/v1"), chat).result->failure()).field,
              ProviderField::apiKey);
    m_server.enqueue(cases.last().response);
    EXPECT_EQ(ProviderDiagnostics::diagnose(run(m_server.url("/v1"), chat).result->failure()).summary,
              QStringLiteral("服务端暂时故障（HTTP 502），稍后重试。"));
}

TEST_F(StreamingTransportTest, ErrorStatusIsJudgedAfterTheTextThatCameWithIt)
{
    ScriptedResponse response = ScriptedResponse::stream(captureBytes("openai-chat-pydanticai-glm-1.sse"));
    response.status = 500;
    m_server.enqueue(response);
    const StreamRecorder recorder = run(m_server.url("/v1"), chat);
    EXPECT_EQ(recorder.text(), "4");
    ASSERT_NE(clientError(recorder), nullptr);
    EXPECT_EQ(clientError(recorder)->status(), 500);
}

TEST_F(StreamingTransportTest, ARedirectIsNotFollowedAndEndsTheRequest)
{
    LoopbackHttpServer elsewhere;
    elsewhere.setFallback(ScriptedResponse::stream(captureBytes("openai-chat-openaipython-1.sse")));
    for (int status : {301, 302, 307, 308}) {
        m_server.enqueue(
            ScriptedResponse::redirect(status, elsewhere.url("/v1/chat/completions").toEncoded()));
        const StreamRecorder recorder = run(m_server.url("/v1"), chat);
        ASSERT_NE(clientError(recorder), nullptr) << status;
        EXPECT_EQ(clientError(recorder)->kind(), LLMClientError::Kind::http);
        EXPECT_EQ(clientError(recorder)->status(), status);
        EXPECT_TRUE(recorder.deltas.isEmpty());
    }
    EXPECT_EQ(elsewhere.requestCount(), 0) << "the key never follows a redirect";
}

TEST_F(StreamingTransportTest, AStalledStreamEndsWithATimeOut)
{
    ScriptedResponse response = ScriptedResponse::stream(captureBytes("openai-chat-openaipython-1.sse"));
    response.ending = ScriptedResponse::Ending::stall;
    response.endAfter = response.body.indexOf("\n\n", 1200) + 2;
    m_server.enqueue(response);
    QElapsedTimer clock;
    clock.start();
    const StreamRecorder recorder =
        run(m_server.url("/v1"), chat, [](PreparedRequest& request, StreamingTransport&) {
            request.inactivityTimeout = std::chrono::milliseconds(400);
        });
    EXPECT_GE(clock.elapsed(), 350);
    EXPECT_FALSE(recorder.deltas.isEmpty());
    ASSERT_TRUE(recorder.result && recorder.result->networkError());
    EXPECT_EQ(recorder.result->networkError()->code, QNetworkReply::TimeoutError);
    EXPECT_EQ(ProviderDiagnostics::diagnose(recorder.result->failure()).summary,
              QStringLiteral("网络不可用或超时，稍后重试。"));
    m_server.closeConnections();
}

TEST_F(StreamingTransportTest, SteadyTrickleIsNotATimeOut)
{
    // 32 pieces 60 ms apart: about 1.9 s in all, longer than the time-out, but never 0.8 s of silence.
    ScriptedResponse response = ScriptedResponse::stream(captureBytes("gemini-pydanticai-2.sse"), 40);
    response.pieceDelayMs = 60;
    m_server.enqueue(response);
    QElapsedTimer clock;
    clock.start();
    const StreamRecorder recorder = run(m_server.url("/v1"), ProviderWireProtocol::geminiGenerateContent,
                                        [](PreparedRequest& request, StreamingTransport&) {
                                            request.inactivityTimeout = std::chrono::milliseconds(800);
                                        });
    EXPECT_GT(clock.elapsed(), 800);
    EXPECT_TRUE(recorder.result->ok());
    EXPECT_EQ(recorder.text().size(), 80);
}

TEST_F(StreamingTransportTest, AConnectionResetMidStreamIsATransportFailureAfterItsText)
{
    ScriptedResponse response = endingAfterHello(ScriptedResponse::Ending::reset, 4096);
    response.pieceDelayMs = 20; // the text reaches the client before the reset does
    m_server.enqueue(response);
    const StreamRecorder recorder = run(m_server.url("/v1"), chat);
    EXPECT_EQ(recorder.text(), "Hello");
    ASSERT_TRUE(recorder.result);
    ASSERT_NE(recorder.result->networkError(), nullptr)
        << (recorder.result->ok() ? std::string("success")
                                  : describe(recorder.result->failure()).toStdString());
    EXPECT_EQ(recorder.result->networkError()->code, QNetworkReply::RemoteHostClosedError);
    EXPECT_EQ(ProviderDiagnostics::diagnose(recorder.result->failure()).summary,
              QStringLiteral("网络不可用或超时，稍后重试。"));
    EXPECT_FALSE(ProviderDiagnostics::diagnose(recorder.result->failure()).allowsFallback());
}

TEST_F(StreamingTransportTest, ABodyShorterThanItsContentLengthIsATransportFailure)
{
    ScriptedResponse response = endingAfterHello(ScriptedResponse::Ending::drop, 0);
    response.framing = ScriptedResponse::Framing::contentLength;
    for (int attempt = 0; attempt < 5; ++attempt) {
        m_server.enqueue(response);
        const StreamRecorder recorder = run(m_server.url("/v1"), chat);
        EXPECT_EQ(recorder.text(), "Hello");
        ASSERT_TRUE(recorder.result);
        ASSERT_NE(recorder.result->networkError(), nullptr);
        EXPECT_EQ(recorder.result->networkError()->code, QNetworkReply::RemoteHostClosedError);
    }
}

TEST_F(StreamingTransportTest, AChunkedBodyClosedEarlyDeliversItsTextAndOneCompletion)
{
    // Qt 6.4 takes a graceful close in the middle of a chunked body for its end now and then, and
    // nothing above it can tell the difference: the text must arrive once either way, followed by one
    // completion that is either success or the closed connection.
    ScriptedResponse response = endingAfterHello(ScriptedResponse::Ending::drop, 512);
    for (int attempt = 0; attempt < 5; ++attempt) {
        m_server.enqueue(response);
        const StreamRecorder recorder = run(m_server.url("/v1"), chat);
        EXPECT_EQ(recorder.text(), "Hello");
        ASSERT_TRUE(recorder.result);
        if (!recorder.result->ok()) {
            ASSERT_NE(recorder.result->networkError(), nullptr);
            EXPECT_EQ(recorder.result->networkError()->code, QNetworkReply::RemoteHostClosedError);
        }
    }
}

TEST_F(StreamingTransportTest, NoServerListeningIsAConnectionFailure)
{
    QUrl closed = m_server.url("/v1");
    {
        LoopbackHttpServer gone;
        closed = gone.url("/v1");
    }
    const StreamRecorder recorder = run(closed, chat);
    ASSERT_TRUE(recorder.result && recorder.result->networkError());
    EXPECT_EQ(recorder.result->networkError()->code, QNetworkReply::ConnectionRefusedError);
    EXPECT_EQ(ProviderDiagnostics::diagnose(recorder.result->failure()).field, ProviderField::baseURL);
}

TEST_F(StreamingTransportTest, NonStreamedJsonAnswersOfEachProtocol)
{
    const QList<std::pair<ProviderWireProtocol, QByteArray>> bodies{
        {ProviderWireProtocol::openAIResponses, R"({"object":"response","output_text":"整段答案"})"},
        {ProviderWireProtocol::openAIChat,
         R"({"choices":[{"index":0,"message":{"role":"assistant","content":"整段答案"}}]})"},
        {ProviderWireProtocol::anthropicMessages,
         R"({"type":"message","content":[{"type":"text","text":"整段答案"}]})"},
        {ProviderWireProtocol::geminiGenerateContent,
         R"({"candidates":[{"content":{"parts":[{"text":"整段答案"}]}}]})"},
    };
    for (const auto& [protocol, body] : bodies) {
        m_server.enqueue(ScriptedResponse::json(200, body));
        const StreamRecorder recorder = run(m_server.url("/v1"), protocol);
        EXPECT_EQ(recorder.deltas, QStringList{"整段答案"}) << rawValue(protocol).toStdString();
        EXPECT_TRUE(recorder.result->ok());
    }
}

TEST_F(StreamingTransportTest, A200BodyWithOnlyAnErrorObject)
{
    m_server.enqueue(ScriptedResponse::json(
        200,
        R"({"error":{"message":"The model or endpoint doubao-typo-xyz does not exist or you do not have access to it."}})"));
    const StreamRecorder recorder = run(m_server.url("/v1"), chat);
    ASSERT_NE(clientError(recorder), nullptr);
    EXPECT_EQ(clientError(recorder)->kind(), LLMClientError::Kind::api);
    EXPECT_EQ(ProviderDiagnostics::diagnose(recorder.result->failure()).field, ProviderField::model);
}

TEST_F(StreamingTransportTest, WhitespaceOnlyAnswersAndEmptyBodiesAreEmptyResponses)
{
    m_server.enqueue(ScriptedResponse::stream("data: {\"choices\":[{\"delta\":{\"content\":\"  \"}}]}\n\n"
                                              "data: {\"choices\":[{\"delta\":{\"content\":\"\\n\"}}]}\n\n"
                                              "data: [DONE]\n\n"));
    const StreamRecorder blank = run(m_server.url("/v1"), chat);
    EXPECT_EQ(blank.deltas, (QStringList{"  ", "\n"}));
    ASSERT_NE(clientError(blank), nullptr);
    EXPECT_EQ(*clientError(blank), LLMClientError::emptyResponse());
    EXPECT_EQ(clientError(blank)->description(), QStringLiteral("模型没有返回可显示的文字。"));

    m_server.enqueue(ScriptedResponse::stream(QByteArray()));
    const StreamRecorder empty = run(m_server.url("/v1"), chat);
    ASSERT_NE(clientError(empty), nullptr);
    EXPECT_EQ(*clientError(empty), LLMClientError::emptyResponse());
}

TEST_F(StreamingTransportTest, ABodyPastTheLimitEndsTheRequestWithoutGrowing)
{
    QByteArray huge(64 * 1024, 'x'); // one endless line: never an event
    ScriptedResponse response = ScriptedResponse::stream(huge.repeated(8), 16 * 1024);
    m_server.enqueue(response);
    const StreamRecorder recorder =
        run(m_server.url("/v1"), chat,
            [&](PreparedRequest&, StreamingTransport& transport) { transport.setBodyLimit(100 * 1024); });
    ASSERT_NE(clientError(recorder), nullptr);
    EXPECT_EQ(clientError(recorder)->kind(), LLMClientError::Kind::api);
    EXPECT_EQ(clientError(recorder)->message(),
              QStringLiteral("模型服务返回的内容超过 0.0977 MiB，已停止接收。"));
    EXPECT_EQ(NetworkSupport::bodyTooLarge(NetworkSupport::bodyLimit).message(),
              QStringLiteral("模型服务返回的内容超过 16 MiB，已停止接收。"));
}

TEST_F(StreamingTransportTest, CancelDeliversCancelledAfterTheCallReturnedAndOnlyOnce)
{
    ScriptedResponse response = ScriptedResponse::stream(captureBytes("openai-chat-openaipython-1.sse"));
    response.ending = ScriptedResponse::Ending::stall;
    response.endAfter = 400;
    m_server.enqueue(response);
    StreamRecorder recorder;
    auto transport = StreamingTransport::create(chat, recorder.deltaHandler(), recorder.completionHandler());
    transport->start(requestTo(m_server.url("/v1"), chat));
    ASSERT_TRUE(m_server.waitForRequests(1));
    transport->cancel();
    EXPECT_EQ(recorder.completions, 0) << "delivered asynchronously";
    transport->cancel();
    ASSERT_TRUE(recorder.waitForCompletion());
    waitUntil([] { return false; }, 100);
    EXPECT_EQ(recorder.completions, 1);
    EXPECT_TRUE(recorder.result->isCancelled());
    EXPECT_FALSE(ProviderDiagnostics::diagnose(recorder.result->failure()).allowsFallback());
    m_server.closeConnections();
}

TEST_F(StreamingTransportTest, ASecondStreamCancelsTheFirstAndTheClientKeepsTheReplacedTransportQuirk)
{
    ScriptedResponse slow = ScriptedResponse::stream(captureBytes("openai-chat-openaipython-1.sse"), 200);
    slow.pieceDelayMs = 40;
    m_server.enqueue(slow);
    ScriptedResponse second = ScriptedResponse::stream(captureBytes("openai-chat-openaipython-1.sse"), 400);
    second.pieceDelayMs = 40;
    m_server.enqueue(second);

    LLMClient client(acceptAnyAddress);
    const auto provider = loopbackProvider("deepseek", chat, m_server.url("/v1"), "deepseek-v4-flash");
    StreamRecorder first;
    StreamRecorder next;
    client.stream(provider, "S", {ConversationMessage::user("one")}, first.deltaHandler(),
                  first.completionHandler());
    ASSERT_TRUE(m_server.waitForRequests(1));
    client.stream(provider, "S", {ConversationMessage::user("two")}, next.deltaHandler(),
                  next.completionHandler());
    EXPECT_EQ(first.completions, 0) << "cancelled is delivered after stream returned";
    const std::shared_ptr<StreamingTransport> replacing = client.activeTransport();
    ASSERT_NE(replacing, nullptr);

    ASSERT_TRUE(first.waitForCompletion());
    EXPECT_TRUE(first.result->isCancelled());
    // The late `cancelled` cleared the client's reference to the new transport as well.
    EXPECT_EQ(client.activeTransport(), nullptr);
    EXPECT_FALSE(replacing->isFinished());
    client.cancel(); // can no longer reach it
    ASSERT_TRUE(next.waitForCompletion());
    EXPECT_TRUE(next.result->ok());
    EXPECT_EQ(next.text().size(), 159);
    EXPECT_FALSE(next.offMainThread || first.offMainThread || next.deltaAfterCompletion);
}

TEST_F(StreamingTransportTest, ClientCancelReachesTheRunningTransport)
{
    ScriptedResponse response = ScriptedResponse::stream(captureBytes("openai-chat-openaipython-1.sse"));
    response.ending = ScriptedResponse::Ending::stall;
    response.endAfter = 10;
    m_server.enqueue(response);
    LLMClient client(acceptAnyAddress);
    StreamRecorder recorder;
    client.stream(loopbackProvider("deepseek", chat, m_server.url("/v1"), "deepseek-v4-flash"), "S", {},
                  recorder.deltaHandler(), recorder.completionHandler());
    ASSERT_TRUE(m_server.waitForRequests(1));
    client.cancel();
    ASSERT_TRUE(recorder.waitForCompletion());
    EXPECT_TRUE(recorder.result->isCancelled());
    EXPECT_EQ(client.activeTransport(), nullptr);
    m_server.closeConnections();
}

TEST_F(StreamingTransportTest, TlsWithACertificateTrustedOnlyByThisTest)
{
    QTemporaryDir directory;
    QString error;
    const std::optional<TlsIdentity> identity = TlsIdentity::createThrowaway(directory, &error);
    ASSERT_TRUE(identity) << error.toStdString();
    LoopbackHttpServer secure(*identity);
    secure.setFallback(ScriptedResponse::stream(captureBytes("responses-pydanticai-openai-1.sse"), 64));

    // Not trusted: verification fails and nothing is sent.
    const StreamRecorder refused = run(secure.url("/v1"), ProviderWireProtocol::openAIResponses);
    ASSERT_TRUE(refused.result && refused.result->networkError());
    EXPECT_EQ(refused.result->networkError()->code, QNetworkReply::SslHandshakeFailedError);
    EXPECT_EQ(ProviderDiagnostics::diagnose(refused.result->failure()).summary,
              QStringLiteral("连不上这个地址，请检查 Base URL 或网络。"));
    EXPECT_EQ(secure.requestCount(), 0);

    // Trusted for the length of this test only.
    const QSslConfiguration saved = QSslConfiguration::defaultConfiguration();
    QSslConfiguration trusting = saved;
    trusting.addCaCertificate(identity->certificate);
    QSslConfiguration::setDefaultConfiguration(trusting);
    const StreamRecorder accepted = run(secure.url("/v1"), ProviderWireProtocol::openAIResponses);
    QSslConfiguration::setDefaultConfiguration(saved);
    EXPECT_TRUE(accepted.result && accepted.result->ok());
    EXPECT_EQ(accepted.text(), "The capital of France is Paris.");
    EXPECT_EQ(secure.requestCount(), 1);
}

TEST_F(StreamingTransportTest, TheSessionProxySettingsAreHonoured)
{
    // The server plays an HTTP proxy: the request reaches it in absolute form.
    m_environment.set("http_proxy", m_server.url().toEncoded());
    m_environment.set("no_proxy", "localhost");
    m_server.enqueue(ScriptedResponse::stream(captureBytes("anthropic-sdkpython-1.sse")));
    const StreamRecorder recorder =
        run(QUrl("http://api.velnora-proxy-test.invalid/v1"), ProviderWireProtocol::anthropicMessages);
    EXPECT_TRUE(recorder.result && recorder.result->ok());
    EXPECT_EQ(recorder.text(), "Hello there!");
    ASSERT_EQ(m_server.requestCount(), 1);
    EXPECT_EQ(m_server.requests().first().target, "http://api.velnora-proxy-test.invalid/v1/messages");
}
