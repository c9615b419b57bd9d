// Failures produced for real rather than described: openssl's own TLS server with a certificate nobody
// trusts, and no network at all inside a private network namespace.
#include "LlmTestSupport.h"
#include "llm/LLMClient.h"
#include "llm/ModelCatalog.h"
#include "llm/NetworkSupport.h"
#include "llm/ProviderDiagnostics.h"

#include <QDeadlineTimer>
#include <QProcess>
#include <QRegularExpression>
#include <QSslError>
#include <QTemporaryDir>

using namespace velnora;
using namespace velnora::test;

namespace {

// `openssl s_server` on a port of the system's choosing, with a fresh self-signed certificate.
class UntrustedTlsServer
{
public:
    UntrustedTlsServer()
    {
        const QString cert = m_directory.filePath("cert.pem");
        const QString key = m_directory.filePath("key.pem");
        if (runProgram("openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                                   "/CN=localhost", "-keyout", key, "-out", cert})
                .exitCode != 0) {
            return;
        }
        m_server.start("openssl", {"s_server", "-accept", "127.0.0.1:0", "-cert", cert, "-key", key, "-www"});
        const QDeadlineTimer deadline(10000);
        const QRegularExpression accept(R"(ACCEPT 127\.0\.0\.1:(\d+))");
        QByteArray output;
        while (m_port == 0 && !deadline.hasExpired() &&
               m_server.waitForReadyRead(int(deadline.remainingTime()))) {
            output += m_server.readAllStandardOutput();
            if (const QRegularExpressionMatch match = accept.match(QString::fromLatin1(output));
                match.hasMatch()) {
                m_port = match.captured(1).toUShort();
            }
        }
    }
    ~UntrustedTlsServer()
    {
        m_server.kill();
        m_server.waitForFinished(3000);
    }

    bool isListening() const { return m_port != 0; }
    QUrl url(const QString& path) const
    {
        return QUrl("https://127.0.0.1:" + QString::number(m_port) + path);
    }

private:
    QTemporaryDir m_directory;
    QProcess m_server;
    quint16 m_port = 0;
};

} // namespace

using NetworkFaultTest = LoopbackTest;

TEST_F(NetworkFaultTest, AnUntrustedCertificateHasItsOwnSentenceAndNamesTheProblem)
{
    UntrustedTlsServer tls;
    ASSERT_TRUE(tls.isListening()) << "openssl s_server did not start";
    const ResolvedProviderConfiguration provider =
        loopbackProvider("deepseek", ProviderWireProtocol::openAIChat, tls.url("/v1"));

    // Every user of the fetch: the answer stream, here and in a fetch worker, and the model list.
    LLMClient client(acceptAnyAddress);
    LLMClient workerClient(acceptAnyAddress);
    workerClient.setFetchWorker(velnoraBinary());
    std::optional<ProviderFailure> streamed;
    std::optional<ProviderFailure> streamedByWorker;
    std::optional<ProviderFailure> listed;
    client.stream(provider, "S", {ConversationMessage::user("hi")}, {}, [&](const StreamResult& result) {
        streamed = result.ok() ? std::nullopt : std::optional(result.failure());
    });
    workerClient.stream(provider, "S", {ConversationMessage::user("hi")}, {},
                        [&](const StreamResult& result) {
                            streamedByWorker = result.ok() ? std::nullopt : std::optional(result.failure());
                        });
    ModelCatalog::fetch(
        provider,
        [&](const ModelCatalog::ModelListResult& result) {
            listed = result.ok() ? std::nullopt : std::optional(result.failure());
        },
        acceptAnyAddress);
    ASSERT_TRUE(waitUntil([&] { return streamed && streamedByWorker && listed; }, 20000));

    const QString selfSigned = QSslError(QSslError::SelfSignedCertificate).errorString();
    for (const ProviderFailure& failure : {*streamed, *streamedByWorker, *listed}) {
        const ProviderDiagnosis diagnosis = ProviderDiagnostics::diagnose(failure);
        EXPECT_TRUE(diagnosis.summary.startsWith("服务器的安全证书没有通过验证"))
            << diagnosis.summary.toStdString();
        EXPECT_EQ(diagnosis.field, std::nullopt) << "the address is not the user's mistake";
        // The worker speaks Chinese like the app; this test process does not.
        EXPECT_TRUE(diagnosis.serverDetail.value_or("").contains(selfSigned) ||
                    diagnosis.serverDetail.value_or("").contains("自签名"))
            << diagnosis.serverDetail.value_or("").toStdString();
    }

    // The program itself says it in Chinese, the certificate problem included.
    const QString output = selfTest({tls.url("/v1").toString()});
    EXPECT_TRUE(output.startsWith("api-stream-self-test: 服务器的安全证书没有通过验证"))
        << output.toStdString();
    EXPECT_TRUE(output.contains("服务端原文：") && output.contains("自签名")) << output.toStdString();
    EXPECT_FALSE(output.contains("设置 →")) << output.toStdString();
}

TEST(NetworkFault, WithoutANetworkTheUserIsToldSoAndNotToFixTheAddress)
{
    if (runProgram("unshare", {"-rn", "true"}).exitCode != 0) {
        GTEST_SKIP() << "this machine does not allow a private network namespace (unshare -rn)";
    }
    // A name that needs DNS, and an address that needs a route: neither exists in the namespace.
    for (const QString& url : {QString("https://api.deepseek.com/v1"), QString("https://203.0.113.7/v1")}) {
        const QString output = selfTest({url}, {"unshare", "-rn"});
        EXPECT_TRUE(output.startsWith("api-stream-self-test: 网络不可用或超时，稍后重试。"))
            << output.toStdString();
        EXPECT_FALSE(output.contains("设置 →")) << output.toStdString();
        EXPECT_TRUE(output.endsWith("\n1"));
    }
    // With the network up, a name that does not exist is the address's fault.
    if (NetworkSupport::networkReachable()) {
        EXPECT_EQ(selfTest({"https://velnora-no-such-host.invalid/v1"}),
                  "api-stream-self-test: 找不到这个域名，请检查 Base URL 是否拼错。（设置 → Base URL）  "
                  "服务端原文：主机 velnora-no-such-host.invalid 没有找到\n1");
    }
}
