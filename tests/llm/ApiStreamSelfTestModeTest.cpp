#include "LlmTestSupport.h"
#include "app/ApiStreamSelfTest.h"
#include "config/KeychainStore.h"

#include <QTcpServer>

using namespace velnora;
using namespace velnora::test;

using ApiStreamSelfTestMode = LoopbackTest;

// velnora --api-stream-self-test URL [protocol] prints the answer, then "ok" or the diagnosis on one line.
TEST_F(ApiStreamSelfTestMode, PrintsTheAnswerThenOkOrTheDiagnosis)
{
    const QString url = m_server.url("/v1").toString();
    m_server.enqueue(ScriptedResponse::stream(captureBytes("openai-chat-pydanticai-deepseek-1.sse"), 7));
    EXPECT_EQ(selfTest({url}), "Hello there! 😊 How can I help you today?\napi-stream-self-test: ok\n0");
    EXPECT_TRUE(QString::fromUtf8(m_server.requests().value(0).body).contains("<待解释材料>\\n边际效用递减"));

    m_server.enqueue(ScriptedResponse::stream(captureBytes("anthropic-sdkpython-1.sse")));
    EXPECT_EQ(selfTest({"http://localhost:" + QString::number(m_server.port()) + "/v1", "anthropicMessages"}),
              "Hello there!\napi-stream-self-test: ok\n0");
    EXPECT_EQ(m_server.requests().value(1).target, "/v1/messages");

    // Plain HTTP is for loopback hosts only.
    EXPECT_EQ(selfTest({"http://example.com/v1"}),
              "api-stream-self-test: API 地址无效，必须是完整的 https 地址。（设置 → Base URL）\n1");
    // Qt's own description of the failure is the detail the user reads: it must be Chinese too.
    QTcpServer closed;
    ASSERT_TRUE(closed.listen(QHostAddress::LocalHost));
    const QString refused = "http://127.0.0.1:" + QString::number(closed.serverPort()) + "/v1";
    closed.close();
    EXPECT_EQ(selfTest({refused}),
              "api-stream-self-test: 连不上这个地址，请检查 Base URL 或网络。（设置 → Base URL）  "
              "服务端原文：连接被拒绝\n1");
}

// A stored key goes only to its own service's official address; anywhere else gets the placeholder.
TEST_F(ApiStreamSelfTestMode, AStoredKeyNeverLeavesForAnotherHost)
{
    // Keys in the session's real Secret Service for every service of the protocol, one with a stray space.
    KeychainStore keychain;
    QStringList stored;
    for (const ProviderDefinition& definition : ProviderDefinition::builtIn()) {
        if (definition.wireProtocol == ProviderWireProtocol::openAIChat &&
            !keychain.hasAPIKey(definition.id)) {
            keychain.saveAPIKey(" sk-must-stay-home ", definition.id);
            stored << definition.id;
        }
    }
    m_server.enqueue(ScriptedResponse::stream(captureBytes("openai-chat-pydanticai-deepseek-1.sse")));
    const ProgramRun run =
        runProgram(velnoraBinary(), {"--api-stream-self-test", m_server.url("/v1").toString()});
    for (const QString& id : stored) {
        keychain.saveAPIKey("", id);
    }
    EXPECT_EQ(m_server.requests().value(0).header("Authorization"),
              QByteArray("Bearer ") + ApiStreamSelfTest::placeholderKey);
    EXPECT_TRUE(run.err.contains("使用占位 Key")) << run.err.toStdString();

    const ProviderDefinition& deepseek = ProviderDefinition::definition("deepseek");
    const std::pair<const char*, bool> addresses[]{
        {"https://api.deepseek.com", true},
        {"https://API.DeepSeek.com/v1/", true},
        {"https://api.deepseek.com:443/v1", true},
        {"http://api.deepseek.com/v1", false},
        {"https://api.deepseek.com:8443/v1", false},
        {"https://api.deepseek.com.evil.test/v1", false},
        {"https://evil.test/api.deepseek.com", false},
        {"https://127.0.0.1/v1", false},
    };
    for (const auto& [address, official] : addresses) {
        EXPECT_EQ(ApiStreamSelfTest::isOfficialAddress(deepseek, QUrl(address)), official) << address;
    }
}
