#include "LlmTestSupport.h"

#include <QProcess>

using namespace velnora;
using namespace velnora::test;

namespace {

struct ModeRun
{
    int exitCode = -1;
    QString output;
    QStringList lines() const { return output.split(u'\n', Qt::SkipEmptyParts); }
};

ModeRun runMode(const QStringList& arguments)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name :
         {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
        environment.remove(QString::fromLatin1(name));
    }
    process.setProcessEnvironment(environment);
    process.start(velnoraBinary(), arguments);
    ModeRun run;
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished();
        ADD_FAILURE() << "velnora did not finish";
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.output = QString::fromUtf8(process.readAllStandardOutput());
    return run;
}

} // namespace

TEST(ApiStreamSelfTestMode, StreamsTheAnswerThenReportsOk)
{
    LoopbackHttpServer server;
    ScriptedResponse response =
        ScriptedResponse::stream(captureBytes("openai-chat-pydanticai-deepseek-1.sse"), 7);
    server.enqueue(response);
    const ModeRun run = runMode({"--api-stream-self-test", server.url("/v1").toString()});
    EXPECT_EQ(run.exitCode, 0) << run.output.toStdString();
    EXPECT_EQ(run.output,
              QString::fromUtf8("Hello there! 😊 How can I help you today?\napi-stream-self-test: ok\n"));
    ASSERT_EQ(server.requestCount(), 1);
    const RecordedRequest request = server.requests().first();
    EXPECT_EQ(request.target, "/v1/chat/completions");
    EXPECT_EQ(request.header("User-Agent"), "Lumaquill-macOS/2.0");
    EXPECT_TRUE(request.header("Authorization").value_or("").startsWith("Bearer "));
    EXPECT_TRUE(QString::fromUtf8(request.body).contains(QStringLiteral("<待解释材料>\\n边际效用递减")));
}

TEST(ApiStreamSelfTestMode, ProtocolArgumentChoosesTheWireDialect)
{
    LoopbackHttpServer server;
    server.enqueue(ScriptedResponse::stream(captureBytes("gemini-pydanticai-2.sse")));
    ModeRun run =
        runMode({"--api-stream-self-test", server.url("/v1beta").toString(), "geminiGenerateContent"});
    EXPECT_EQ(run.exitCode, 0) << run.output.toStdString();
    EXPECT_TRUE(run.output.endsWith("30\napi-stream-self-test: ok\n"));
    ASSERT_TRUE(server.waitForRequests(1));
    RecordedRequest request = server.requests().last();
    EXPECT_EQ(request.target, "/v1beta/models/gemini-2.5-flash:streamGenerateContent?alt=sse");
    EXPECT_EQ(request.header("x-goog-api-key"), "velnora-self-test-key");

    server.enqueue(ScriptedResponse::stream(captureBytes("responses-pydanticai-openai-1.sse")));
    run = runMode({"--api-stream-self-test", server.url("/api/v3").toString(), "openAIResponses"});
    EXPECT_EQ(run.exitCode, 0);
    request = server.requests().last();
    EXPECT_EQ(request.target, "/api/v3/responses");
    EXPECT_TRUE(request.body.contains("\"thinking\":{\"type\":\"disabled\"}"));

    // A word that is not a protocol's name means Chat Completions.
    server.enqueue(ScriptedResponse::stream(captureBytes("openai-chat-openaipython-1.sse")));
    run = runMode({"--api-stream-self-test", server.url("/v1").toString(), "anthropic"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(server.requests().last().target, "/v1/chat/completions");
}

TEST(ApiStreamSelfTestMode, FailureIsTheDiagnosisOnOneLine)
{
    LoopbackHttpServer server;
    server.enqueue(ScriptedResponse::json(
        401, R"({"error":{"message":"Authentication Fails, Your api key: ****test is invalid"}})"));
    ModeRun run = runMode({"--api-stream-self-test", server.url("/v1").toString()});
    EXPECT_EQ(run.exitCode, 1);
    ASSERT_EQ(run.lines().size(), 1) << run.output.toStdString();
    EXPECT_TRUE(run.lines().first().startsWith(
        QStringLiteral("api-stream-self-test: API Key 无效或已失效，请重新填写。（设置 → API Key）")));
    EXPECT_TRUE(run.lines().first().contains("Authentication Fails"));

    // Text that came before an error event is printed, then the diagnosis.
    server.enqueue(ScriptedResponse::stream(captureBytes("openai-chat-pydanticai-groq-error-1.sse")));
    run = runMode({"--api-stream-self-test", server.url("/v1").toString()});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.output,
              QStringLiteral(
                  "maybe\napi-stream-self-test: Tool choice is required, but model did not call a tool\n"));
}

TEST(ApiStreamSelfTestMode, PlainHttpOnlyForLoopbackHosts)
{
    const QString refused =
        QStringLiteral("api-stream-self-test: API 地址无效，必须是完整的 https 地址。（设置 → Base URL）\n");
    for (const QString address :
         {"http://example.com/v1", "http://10.0.0.1/v1", "ftp://127.0.0.1/v1", "not a url"}) {
        const ModeRun run = runMode({"--api-stream-self-test", address});
        EXPECT_EQ(run.exitCode, 1) << address.toStdString();
        EXPECT_EQ(run.output, refused) << address.toStdString();
    }
    LoopbackHttpServer server;
    server.setFallback(ScriptedResponse::stream(captureBytes("anthropic-sdkpython-1.sse")));
    const QString port = QString::number(server.port());
    for (const QString& address : {"http://localhost:" + port + "/v1", "http://127.0.0.1:" + port}) {
        const ModeRun run = runMode({"--api-stream-self-test", address, "anthropicMessages"});
        EXPECT_EQ(run.exitCode, 0) << address.toStdString() << run.output.toStdString();
    }
}
