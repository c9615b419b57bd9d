// What is particular to running a request in a worker process: a worker that fails, and cancelling.
// The answers themselves are checked for both placements in StreamingTransportTest.
#include "llm/FetchWorker.h"

#include "LlmTestSupport.h"
#include "llm/LLMClient.h"
#include "llm/StreamingTransport.h"

#include <QDir>
#include <QTemporaryDir>
#include <unistd.h>

using namespace velnora;
using namespace velnora::test;

namespace {

// Fetch workers this process has started that are still alive.
int runningWorkers()
{
    int count = 0;
    for (const QString& pid : QDir("/proc").entryList(QDir::Dirs)) {
        QFile stat("/proc/" + pid + "/stat");
        QFile cmdline("/proc/" + pid + "/cmdline");
        if (!stat.open(QIODevice::ReadOnly) || !cmdline.open(QIODevice::ReadOnly)) {
            continue;
        }
        const QByteArray fields = stat.readAll();
        const QList<QByteArray> rest = fields.mid(fields.lastIndexOf(')') + 2).split(' ');
        if (rest.value(1).toLongLong() == getpid() && rest.value(0) != "Z" &&
            cmdline.readAll().contains(FetchWorker::flag)) {
            ++count;
        }
    }
    return count;
}

class FetchWorkerTest : public LoopbackTest
{
protected:
    // Streams from the loopback server through `worker`; the text and the failure's sentence.
    std::pair<QString, QString> run(const QString& worker)
    {
        QString text, failure;
        bool done = false;
        auto transport = StreamingTransport::create(
            ProviderWireProtocol::openAIChat, [&](const QString& piece) { text += piece; },
            [&](const StreamResult& result) {
                failure = result.ok() ? QString() : describe(result.failure());
                done = true;
            });
        transport->start(request(), worker);
        EXPECT_TRUE(waitUntil([&] { return done; }, 15000));
        return {text, failure};
    }
    PreparedRequest request()
    {
        return LLMClient::makeRequest(
            loopbackProvider("deepseek", ProviderWireProtocol::openAIChat, m_server.url("/v1")), "S",
            {ConversationMessage::user("hi")}, acceptAnyAddress);
    }
};

} // namespace

TEST_F(FetchWorkerTest, AWorkerThatFailsIsReportedInChineseNeverAsAnAnswer)
{
    QTemporaryDir directory;
    const QString chatty = directory.filePath("chatty");
    QFile script(chatty);
    ASSERT_TRUE(script.open(QIODevice::WriteOnly));
    script.write("#!/bin/sh\nprintf '\\000\\000\\000\\003abc'\n");
    script.close();
    script.setPermissions(QFileDevice::ReadOwner | QFileDevice::ExeOwner);
    const QList<std::pair<QString, QString>> cases{
        {"/nonexistent/velnora", "网络请求失败（联网子进程无法启动）。"},
        {"/bin/true", "网络请求失败（联网子进程意外退出）。"},
        {"/bin/echo", "网络请求失败（联网子进程的输出无法识别）。"}, // its "--fe…" is no frame length
        {chatty, "网络请求失败（联网子进程的输出无法识别）。"},      // a whole frame that says nothing
    };
    for (const auto& [worker, sentence] : cases) {
        SCOPED_TRACE(worker.toStdString());
        EXPECT_EQ(run(worker), std::pair(QString(), QString(sentence)));
    }
}

TEST_F(FetchWorkerTest, CancellingEndsTheWorkerAndItsRequest)
{
    ScriptedResponse trickle = ScriptedResponse::stream(captureBytes("anthropic-sdkpython-1.sse"), 10);
    trickle.pieceDelayMs = 400;
    m_server.enqueue(trickle);
    LLMClient client(acceptAnyAddress);
    client.setFetchWorker(velnoraBinary());
    std::optional<StreamResult> result;
    client.stream(loopbackProvider("deepseek", ProviderWireProtocol::anthropicMessages, m_server.url("/v1")),
                  "S", {ConversationMessage::user("hi")}, {}, [&](const StreamResult& r) { result = r; });
    ASSERT_TRUE(waitUntil([&] { return m_server.requestCount() == 1; }, 15000));
    EXPECT_EQ(runningWorkers(), 1);
    client.cancel();
    ASSERT_TRUE(waitUntil([&] { return result.has_value(); }, 5000));
    EXPECT_TRUE(result->isCancelled());
    EXPECT_TRUE(waitUntil([] { return runningWorkers() == 0; }, 5000)) << "the worker outlived its request";
}

TEST(FetchWorkerFrames, NoPrefixOfAFrameReadsAsAFrame)
{
    FetchWorker::Frame end;
    end.kind = FetchWorker::Frame::Kind::end;
    end.status = 429;
    NetworkError error;
    error.code = QNetworkReply::SslHandshakeFailedError;
    error.systemMessage = "证书不受信任";
    error.certificateRejected = true;
    end.failure = error;
    QByteArray framed = FetchWorker::encodeFrame(end);
    bool broken = false;
    const QByteArray payload = *FetchWorker::takeFrame(framed, 1 << 20, &broken);
    EXPECT_TRUE(framed.isEmpty());
    for (qsizetype length = 0; length < payload.size(); ++length) {
        EXPECT_EQ(FetchWorker::decodeFrame(payload.left(length)), std::nullopt) << length;
    }
    const std::optional<FetchWorker::Frame> decoded = FetchWorker::decodeFrame(payload);
    ASSERT_TRUE(decoded && decoded->failure);
    const NetworkError* back = std::get_if<NetworkError>(&*decoded->failure);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(decoded->status, 429);
    EXPECT_EQ(back->code, error.code);
    EXPECT_EQ(back->systemMessage, error.systemMessage);
    EXPECT_TRUE(back->certificateRejected);
}
