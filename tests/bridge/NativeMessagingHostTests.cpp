#include "BridgeTestFiles.h"
#include "bridge/NativeHostInstaller.h"
#include "bridge/NativeMessagingHost.h"
#include "bridge/RequestStore.h"
#include "config/ProviderCatalog.h"
#include "support/NativeHostClient.h"
#include "support/TestEnvironment.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QThread>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace velnora;
using namespace velnora::test;

namespace {

QString typeOf(const std::optional<QJsonObject>& message)
{
    return message ? message->value(QStringLiteral("type")).toString() : QStringLiteral("<nothing>");
}

// A host child process over a private data folder, already past HOST_READY.
class HostTest : public testing::Test
{
protected:
    QTemporaryDir data;
    RequestStore store{data.path()};
    std::optional<QJsonObject> ready;

    std::unique_ptr<NativeHostClient> startHost(QStringList arguments = {QStringLiteral("--native-host")},
                                                const char* heartbeatSeconds = "600")
    {
        auto client = std::make_unique<NativeHostClient>(arguments);
        client->setEnvironmentValue(QStringLiteral("VELNORA_DATA_DIR"), data.path());
        client->setEnvironmentValue(QStringLiteral("VELNORA_PORT_HEARTBEAT_SECONDS"),
                                    QLatin1String(heartbeatSeconds));
        EXPECT_TRUE(client->start(velnoraBinary()));
        ready = client->receive(10000);
        EXPECT_EQ(typeOf(ready), QStringLiteral("HOST_READY"));
        return client;
    }

    void expectEndsHost(NativeHostClient& client)
    {
        EXPECT_TRUE(client.waitForExit(10000));
        EXPECT_EQ(client.process().exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(client.process().exitCode(), 0);
    }

    static QJsonObject answer(const char* type, const QString& id)
    {
        return {{QStringLiteral("type"), QLatin1String(type)}, {QStringLiteral("requestId"), id}};
    }

    bool waitUntilGone(const QString& id, int timeoutMs = 10000)
    {
        const QDeadlineTimer deadline(timeoutMs);
        while (store.contains(id) && !deadline.hasExpired()) {
            QThread::msleep(10);
        }
        return !store.contains(id);
    }
};

TEST_F(HostTest, AnnouncesItselfAndKeepsTheHeartbeatFresh)
{
    auto host = startHost();
    ASSERT_TRUE(ready);
    EXPECT_EQ(ready->value(QStringLiteral("host")).toString(),
              QStringLiteral("com.tarnwick.velnora.domestic"));
    EXPECT_EQ(ready->value(QStringLiteral("version")).toString(), QStringLiteral(VELNORA_VERSION));
    EXPECT_EQ(ready->value(QStringLiteral("edition")).toString(), QStringLiteral("domestic"));
    EXPECT_EQ(ready->value(QStringLiteral("minimumExtensionVersion")).toString(), QStringLiteral("2.11.1"));
    EXPECT_TRUE(store.isBridgeActive(4));
    host->closeInput();
    expectEndsHost(*host);
}

TEST_F(HostTest, ChromeExtensionOriginArgumentStartsTheHostWithoutADisplay)
{
    auto client = std::make_unique<NativeHostClient>(QStringList{
        QStringLiteral("chrome-extension://") + ExplainerConstants::extensionIdentifier() + u'/'});
    client->setEnvironmentValue(QStringLiteral("VELNORA_DATA_DIR"), data.path());
    // Any attempt to open a display would fail here and abort the process.
    client->setEnvironmentValue(QStringLiteral("DISPLAY"), QStringLiteral(":4242"));
    client->setEnvironmentValue(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    client->removeEnvironmentValue(QStringLiteral("WAYLAND_DISPLAY"));
    ASSERT_TRUE(client->start(velnoraBinary()));
    EXPECT_EQ(typeOf(client->receive(10000)), QStringLiteral("HOST_READY"));
    client->closeInput();
    expectEndsHost(*client);
}

TEST_F(HostTest, DeliversOldestFirstOnceWhileUnansweredAndAckDeletes)
{
    const BridgeRequest first = store.enqueue(BridgeRequestType::explainText, QStringLiteral("什么是熵？"),
                                              QStringLiteral("kimi"), QStringLiteral("简短一些。"));
    const BridgeRequest second =
        store.enqueue(BridgeRequestType::openWorkbench, std::nullopt, QStringLiteral("qwen"));
    auto host = startHost();

    const std::optional<QJsonObject> one = host->receiveMessage(5000);
    const std::optional<QJsonObject> two = host->receiveMessage(5000);
    ASSERT_TRUE(one && two);
    EXPECT_EQ(*one, (QJsonObject{{"type", "EXPLAIN_TEXT"},
                                 {"requestId", first.id},
                                 {"createdAt", first.createdAt},
                                 {"text", "什么是熵？"},
                                 {"provider", "kimi"},
                                 {"depthInstruction", "简短一些。"}}));
    EXPECT_EQ(*two, (QJsonObject{{"type", "OPEN_WORKBENCH"},
                                 {"requestId", second.id},
                                 {"createdAt", second.createdAt},
                                 {"provider", "qwen"}}));
    // Several scans pass; nothing unanswered is sent twice.
    EXPECT_EQ(typeOf(host->receiveMessage(1200)), QStringLiteral("<nothing>"));

    host->send(answer("ACK_REQUEST", first.id));
    EXPECT_TRUE(waitUntilGone(first.id));
    EXPECT_TRUE(store.contains(second.id));
    host->send(answer("ACK_REQUEST", first.id)); // a second ACK is harmless

    // A request written while the host runs goes out without waiting for anything else.
    const BridgeRequest third = store.enqueue(BridgeRequestType::newSession);
    const std::optional<QJsonObject> three = host->receiveMessage(5000);
    EXPECT_EQ(three.value_or(QJsonObject{}).value(QStringLiteral("requestId")).toString(), third.id);
    EXPECT_TRUE(host->isRunning());
}

TEST_F(HostTest, NackDelaysTheNextSendAndAckAfterNackClearsIt)
{
    const BridgeRequest request = store.enqueue(BridgeRequestType::newSession);
    auto host = startHost();
    ASSERT_EQ(
        host->receiveMessage(5000).value_or(QJsonObject{}).value(QStringLiteral("requestId")).toString(),
        request.id);

    QElapsedTimer sinceRefusal;
    host->send(answer("NACK_REQUEST", request.id));
    sinceRefusal.start();
    const std::optional<QJsonObject> again = host->receiveMessage(8000);
    ASSERT_EQ(again.value_or(QJsonObject{}).value(QStringLiteral("requestId")).toString(), request.id);
    EXPECT_GE(sinceRefusal.elapsed(), 1900) << "the first refusal holds the request back two seconds";

    host->send(answer("ACK_REQUEST", request.id));
    EXPECT_TRUE(waitUntilGone(request.id));
}

TEST_F(HostTest, IgnoresMessagesItDoesNotKnow)
{
    store.ensureDirectories();
    writeFile(data.filePath(QStringLiteral("outside.json")), "{}");
    auto host = startHost();
    host->send({{"type", "PING"}});
    host->send({{"requestId", "x"}});
    host->send({{"type", "ACK_REQUEST"}, {"requestId", 42}});
    host->send(answer("ACK_REQUEST", QStringLiteral("../outside")));
    host->send(answer("ACK_REQUEST", QStringLiteral("no-such-request")));
    const BridgeRequest request = store.enqueue(BridgeRequestType::newSession);
    EXPECT_EQ(
        host->receiveMessage(5000).value_or(QJsonObject{}).value(QStringLiteral("requestId")).toString(),
        request.id);
    EXPECT_TRUE(host->isRunning());
    EXPECT_TRUE(QFileInfo::exists(data.filePath(QStringLiteral("outside.json"))));
}

TEST_F(HostTest, ExtensionStatusIsWrittenOnlyForOurExtension)
{
    const QString ours = ExplainerConstants::extensionIdentifier();
    const QString statusFile = store.extensionStatusFilePath();
    auto host = startHost();
    host->send({{"type", "EXTENSION_STATUS"},
                {"extensionID", "dgldcbgpnkooljhfhcjpkojcdnfkepnb"},
                {"version", "2.11.1"}});
    host->send({{"type", "EXTENSION_STATUS"}, {"extensionID", ours}, {"version", QString(32, u'9')}});
    host->send({{"type", "EXTENSION_STATUS"}, {"extensionID", ours}});
    host->send({{"type", "EXTENSION_STATUS"}, {"extensionID", ours}, {"version", 2}});
    host->sendFrame("[]"); // ends the host after the frames above were handled
    expectEndsHost(*host);
    EXPECT_FALSE(QFileInfo::exists(statusFile));

    host = startHost();
    host->send({{"type", "EXTENSION_STATUS"}, {"extensionID", ours}, {"version", QString(31, u'7')}});
    host->closeInput();
    expectEndsHost(*host);
    const QJsonObject status = QJsonDocument::fromJson(readFile(statusFile)).object();
    EXPECT_EQ(status.value(QStringLiteral("extensionID")).toString(), ours);
    EXPECT_EQ(status.value(QStringLiteral("version")).toString(), QString(31, u'7'));
    EXPECT_NEAR(status.value(QStringLiteral("updatedAt")).toDouble(), RequestStore::nowSeconds(), 60);
}

TEST_F(HostTest, EveryMalformedFrameEndsTheHost)
{
    const QByteArray tooLong = [] {
        const quint32 length = NativeMessagingHost::maximumFrameSize + 1;
        return QByteArray(reinterpret_cast<const char*>(&length), 4) + QByteArray(64, 'x');
    }();
    const std::vector<std::pair<const char*, QByteArray>> cases{
        {"length 0", NativeHostClient::frame({})},
        {"length 1,048,577", tooLong},
        {"not JSON", NativeHostClient::frame("{\"type\": ")},
        {"an array", NativeHostClient::frame("[{\"type\":\"ACK_REQUEST\"}]")},
        {"a string", NativeHostClient::frame("\"ACK_REQUEST\"")},
    };
    for (const auto& [name, bytes] : cases) {
        SCOPED_TRACE(name);
        auto host = startHost();
        host->sendRaw(bytes);
        // Input stays open: only the bad frame can end the host.
        expectEndsHost(*host);
    }

    SCOPED_TRACE("truncated body");
    const BridgeRequest request = store.enqueue(BridgeRequestType::newSession);
    auto host = startHost();
    ASSERT_TRUE(host->receiveMessage(5000));
    const QByteArray ack = QJsonDocument(answer("ACK_REQUEST", request.id)).toJson(QJsonDocument::Compact);
    host->sendRaw(NativeHostClient::frame(ack).chopped(3));
    host->closeInput();
    expectEndsHost(*host);
    EXPECT_TRUE(store.contains(request.id)) << "a cut-off ACK must not be acted on";
}

TEST_F(HostTest, LargestBodyIsAccepted)
{
    const BridgeRequest request = store.enqueue(BridgeRequestType::newSession);
    auto host = startHost();
    ASSERT_TRUE(host->receiveMessage(5000));
    QByteArray body = QJsonDocument(answer("ACK_REQUEST", request.id)).toJson(QJsonDocument::Compact);
    body.chop(1);
    body += ",\"padding\":\"";
    body += QByteArray(qsizetype(NativeMessagingHost::maximumFrameSize) - body.size() - 2, 'p');
    body += "\"}";
    ASSERT_EQ(body.size(), qsizetype(NativeMessagingHost::maximumFrameSize));
    ASSERT_TRUE(host->sendFrame(body));
    EXPECT_TRUE(waitUntilGone(request.id));
    EXPECT_TRUE(host->isRunning());
}

TEST_F(HostTest, PortHeartbeatFollowsTheEnvironment)
{
    auto host = startHost({QStringLiteral("--native-host")}, "0.3");
    EXPECT_EQ(typeOf(host->receive(5000)), QStringLiteral("HOST_HEARTBEAT"));
    EXPECT_EQ(typeOf(host->receive(5000)), QStringLiteral("HOST_HEARTBEAT"));
}

TEST(PortHeartbeatInterval, OnlyAPositiveNumberFromTheFirstVariableSetCounts)
{
    EnvironmentGuard environment;
    environment.unset("VELNORA_PORT_HEARTBEAT_SECONDS");
    environment.unset("BRINKWELL_PORT_HEARTBEAT_SECONDS");
    EXPECT_EQ(NativeMessagingHost::portHeartbeatIntervalFromEnvironment(), 20);
    environment.set("BRINKWELL_PORT_HEARTBEAT_SECONDS", "3");
    EXPECT_EQ(NativeMessagingHost::portHeartbeatIntervalFromEnvironment(), 3);
    const std::vector<std::pair<const char*, double>> cases{{"2.5", 2.5}, {"0", 20},   {"abc", 20},
                                                            {"-1", 20},   {"", 20},    {" 2", 20},
                                                            {"2s", 20},   {"nan", 20}, {"1e1", 10}};
    for (const auto& [value, expected] : cases) {
        environment.set("VELNORA_PORT_HEARTBEAT_SECONDS", value);
        EXPECT_EQ(NativeMessagingHost::portHeartbeatIntervalFromEnvironment(), expected) << value;
    }
}

// The host in this process, over pipes, with a clock the test moves by hand.
class HostBackOffTest : public testing::Test
{
protected:
    QTemporaryDir data;
    RequestStore store{data.path()};
    int toHost[2]{-1, -1};
    int fromHost[2]{-1, -1};
    double clock = 1000;
    std::unique_ptr<NativeMessagingHost> host;

    void SetUp() override
    {
        ASSERT_EQ(::pipe2(toHost, O_CLOEXEC), 0);
        ASSERT_EQ(::pipe2(fromHost, O_CLOEXEC | O_NONBLOCK), 0);
        host = std::make_unique<NativeMessagingHost>(store, toHost[0], fromHost[1]);
        host->setClock([this] { return clock; });
    }

    void TearDown() override
    {
        host.reset();
        for (int fd : {toHost[0], toHost[1], fromHost[0], fromHost[1]}) {
            ::close(fd);
        }
    }

    // Request ids the host wrote since the last call.
    QStringList sentIDs()
    {
        QByteArray bytes;
        char buffer[65536];
        ssize_t n = 0;
        while ((n = ::read(fromHost[0], buffer, sizeof buffer)) > 0) {
            bytes.append(buffer, n);
        }
        QStringList ids;
        while (bytes.size() >= 4) {
            quint32 length = 0;
            std::memcpy(&length, bytes.constData(), 4);
            const QJsonObject message = QJsonDocument::fromJson(bytes.mid(4, length)).object();
            bytes.remove(0, 4 + length);
            if (message.contains(QStringLiteral("requestId"))) {
                ids.append(message.value(QStringLiteral("requestId")).toString());
            }
        }
        return ids;
    }
};

TEST_F(HostBackOffTest, RefusalsBackOffToSixtySecondsAndNeverDropTheRequest)
{
    const BridgeRequest request = store.enqueue(BridgeRequestType::newSession);
    host->scanPendingRequests();
    ASSERT_EQ(sentIDs(), QStringList{request.id});

    const std::vector<double> delays{2, 4, 8, 16, 32, 60, 60, 60};
    for (std::size_t refusal = 0; refusal < delays.size(); ++refusal) {
        SCOPED_TRACE(refusal + 1);
        host->handleAnswer(QStringLiteral("NACK_REQUEST"), request.id);
        EXPECT_FALSE(host->isInFlight(request.id));
        EXPECT_EQ(host->retryCount(request.id), std::min<int>(int(refusal) + 1, 6));
        EXPECT_EQ(host->retryNotBefore(request.id), clock + delays[refusal]);

        clock += delays[refusal] - 0.01;
        host->scanPendingRequests();
        EXPECT_TRUE(sentIDs().isEmpty());
        clock += 0.01;
        host->scanPendingRequests();
        EXPECT_EQ(sentIDs(), QStringList{request.id});
        EXPECT_TRUE(host->isInFlight(request.id));
    }

    host->handleAnswer(QStringLiteral("ACK_REQUEST"), request.id);
    EXPECT_FALSE(store.contains(request.id));
    EXPECT_FALSE(host->isInFlight(request.id));
    EXPECT_EQ(host->retryCount(request.id), 0);
    EXPECT_FALSE(host->retryNotBefore(request.id));
}

TEST_F(HostBackOffTest, RequestsWithdrawnByTheApplicationLeaveNoState)
{
    const BridgeRequest kept = store.enqueue(BridgeRequestType::newSession);
    const BridgeRequest withdrawn =
        store.enqueue(BridgeRequestType::setBrowserProvider, std::nullopt, QStringLiteral("glm"));
    host->scanPendingRequests();
    EXPECT_EQ(sentIDs(), (QStringList{kept.id, withdrawn.id}));
    host->handleAnswer(QStringLiteral("NACK_REQUEST"), withdrawn.id);
    store.removePending(BridgeRequestType::setBrowserProvider);
    host->scanPendingRequests();
    EXPECT_EQ(host->retryCount(withdrawn.id), 0);
    EXPECT_FALSE(host->retryNotBefore(withdrawn.id));
    EXPECT_TRUE(host->isInFlight(kept.id));
}

} // namespace
