#include "BridgeTestFiles.h"
#include "bridge/NativeMessagingHost.h"
#include "bridge/PageSelfCheck.h"
#include "bridge/RequestStore.h"
#include "config/ProviderCatalog.h"
#include "support/NativeHostClient.h"
#include "support/TestEnvironment.h"

#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>
#include <array>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace velnora;
using namespace velnora::test;

namespace {

QString field(const std::optional<QJsonObject>& message, const char* name)
{
    return message ? message->value(QLatin1String(name)).toString() : QStringLiteral("<nothing>");
}

QJsonObject answer(const char* type, const QString& id)
{
    return {{QStringLiteral("type"), QLatin1String(type)}, {QStringLiteral("requestId"), id}};
}

// The answer grown to exactly size bytes with a padding member.
QByteArray padded(QByteArray body, qsizetype size)
{
    body.insert(body.size() - 1, ",\"padding\":\"\"");
    return body.insert(body.size() - 2, QByteArray(size - body.size(), 'p'));
}

// A host child process over a private data folder, already past HOST_READY.
class HostTest : public testing::Test
{
protected:
    QTemporaryDir data;
    RequestStore store{data.path()};

    // Started the way the browser starts it, with a display that aborts the host if it opens one.
    std::unique_ptr<NativeHostClient> startHost()
    {
        auto client = std::make_unique<NativeHostClient>(QStringList{
            QStringLiteral("chrome-extension://") + ExplainerConstants::extensionIdentifier() + u'/'});
        client->setEnvironmentValue(QStringLiteral("VELNORA_DATA_DIR"), data.path());
        client->setEnvironmentValue(QStringLiteral("VELNORA_PORT_HEARTBEAT_SECONDS"), QStringLiteral("0.3"));
        client->setEnvironmentValue(QStringLiteral("DISPLAY"), QStringLiteral(":4242"));
        client->setEnvironmentValue(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        EXPECT_TRUE(client->start(velnoraBinary()));
        EXPECT_EQ(field(client->receive(10000), "type"), QStringLiteral("HOST_READY"));
        return client;
    }
};

TEST_F(HostTest, DeliversOldestFirstOnceUntilAnsweredAndIgnoresStrayAnswers)
{
    const BridgeRequest first = store.enqueue(BridgeRequestType::explainText, QStringLiteral("什么是熵？"),
                                              QStringLiteral("kimi"), QStringLiteral("简短一些。"));
    const BridgeRequest second =
        store.enqueue(BridgeRequestType::openWorkbench, std::nullopt, QStringLiteral("qwen"));
    writeFile(data.filePath(QStringLiteral("outside.json")), "{}");
    auto host = startHost();
    EXPECT_TRUE(store.isBridgeActive(4));

    EXPECT_EQ(host->receiveMessage(5000), (QJsonObject{{"type", "EXPLAIN_TEXT"},
                                                       {"requestId", first.id},
                                                       {"createdAt", first.createdAt},
                                                       {"text", "什么是熵？"},
                                                       {"provider", "kimi"},
                                                       {"depthInstruction", "简短一些。"}}));
    EXPECT_EQ(field(host->receiveMessage(5000), "requestId"), second.id);
    // Several scans pass; nothing unanswered is sent twice.
    EXPECT_FALSE(host->receiveMessage(1200));

    // Only the first status names our extension with a version of at most 31 characters.
    const QString ours = ExplainerConstants::extensionIdentifier();
    for (const QJsonObject& stray :
         {QJsonObject{{"type", "EXTENSION_STATUS"}, {"extensionID", ours}, {"version", QString(31, u'7')}},
          QJsonObject{{"type", "EXTENSION_STATUS"},
                      {"extensionID", "dgldcbgpnkooljhfhcjpkojcdnfkepnb"},
                      {"version", "2.11.1"}},
          QJsonObject{{"type", "EXTENSION_STATUS"}, {"extensionID", ours}, {"version", QString(32, u'9')}},
          QJsonObject{{"type", "EXTENSION_STATUS"}, {"extensionID", ours}, {"version", 2}},
          QJsonObject{{"type", "PING"}}, QJsonObject{{"requestId", first.id}},
          QJsonObject{{"type", "ACK_REQUEST"}, {"requestId", 42}},
          answer("ACK_REQUEST", QStringLiteral("../outside")),
          answer("ACK_REQUEST", QStringLiteral("no-such-request"))}) {
        host->send(stray);
    }
    host->send(answer("NACK_REQUEST", second.id));
    host->send(answer("ACK_REQUEST", first.id));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !store.contains(first.id); }, 10000));
    EXPECT_EQ(field(host->receiveMessage(8000), "requestId"), second.id) << "a refused request comes back";
    host->send(answer("ACK_REQUEST", second.id));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !store.contains(second.id); }, 10000));

    // A request written while the host runs goes out without waiting for anything else.
    const BridgeRequest third = store.enqueue(BridgeRequestType::newSession);
    EXPECT_EQ(field(host->receiveMessage(5000), "requestId"), third.id);
    EXPECT_TRUE(QFileInfo::exists(data.filePath(QStringLiteral("outside.json"))));
    // The port heartbeat follows VELNORA_PORT_HEARTBEAT_SECONDS.
    EXPECT_EQ(field(host->receive(5000), "type"), QStringLiteral("HOST_HEARTBEAT"));
    EXPECT_EQ(field(host->receive(5000), "type"), QStringLiteral("HOST_HEARTBEAT"));
    const QJsonObject status = QJsonDocument::fromJson(readFile(store.extensionStatusFilePath())).object();
    EXPECT_EQ(status.value(QStringLiteral("extensionID")).toString(), ours);
    EXPECT_EQ(status.value(QStringLiteral("version")).toString(), QString(31, u'7'));

    // Firefox reports the gecko ID, and the status then names it.
    const QString gecko = ExplainerConstants::firefoxExtensionIdentifier();
    host->send(QJsonObject{{"type", "EXTENSION_STATUS"}, {"extensionID", gecko}, {"version", "2.11.1"}});
    EXPECT_TRUE(QTest::qWaitFor(
        [&] {
            return QJsonDocument::fromJson(readFile(store.extensionStatusFilePath()))
                       .object()
                       .value("extensionID") == gecko;
        },
        5000));
}

TEST_F(HostTest, EveryMalformedFrameEndsTheHostUnheededAndTheLargestIsAccepted)
{
    constexpr qsizetype largest = NativeMessagingHost::maximumFrameSize;
    const BridgeRequest request = store.enqueue(BridgeRequestType::newSession);
    const QByteArray ack = QJsonDocument(answer("ACK_REQUEST", request.id)).toJson(QJsonDocument::Compact);
    enum Outcome { endsHost, endsWhenInputCloses, acknowledged };
    const std::vector<std::tuple<const char*, QByteArray, Outcome>> cases{
        {"length 0", NativeHostClient::frame({}), endsHost},
        {"length 1,048,577", NativeHostClient::frame(padded(ack, largest + 1)).left(68), endsHost},
        {"not JSON", NativeHostClient::frame(ack.chopped(1)), endsHost},
        {"an array", NativeHostClient::frame('[' + ack + ']'), endsHost},
        {"truncated", NativeHostClient::frame(ack).chopped(3), endsWhenInputCloses},
        {"length 1,048,576", NativeHostClient::frame(padded(ack, largest)), acknowledged},
    };
    for (const auto& [name, bytes, outcome] : cases) {
        SCOPED_TRACE(name);
        auto host = startHost();
        ASSERT_TRUE(host->sendRaw(bytes));
        if (outcome == acknowledged) {
            EXPECT_TRUE(QTest::qWaitFor([&] { return !store.contains(request.id); }, 10000));
            EXPECT_EQ(host->process().state(), QProcess::Running);
            continue;
        }
        if (outcome == endsWhenInputCloses) {
            host->closeInput();
        }
        EXPECT_TRUE(host->waitForExit(10000));
        EXPECT_EQ(host->process().exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(host->process().exitCode(), 0);
        EXPECT_TRUE(store.contains(request.id));
    }
}

// Two browsers (or profiles) with the extension: two hosts serve one queue, and each request still
// goes to exactly one of them. The claim dies with its holder, so the other host takes over.
TEST_F(HostTest, TwoHostsOnOneQueueDeliverEachRequestOnceAndTakeOverFromAHostThatDied)
{
    std::vector<BridgeRequest> requests;
    for (int i = 0; i < 6; ++i) {
        requests.push_back(store.enqueue(BridgeRequestType::explainText, QStringLiteral("第%1段").arg(i)));
    }
    auto first = startHost();
    auto second = startHost();
    std::array<QStringList, 2> received;
    const auto collect = [&](int milliseconds) {
        for (int round = 0; round < milliseconds / 100; ++round) {
            for (std::size_t i = 0; i < 2; ++i) {
                if (const auto message = (i == 0 ? first : second)->receiveMessage(50)) {
                    received[i].append(message->value(QStringLiteral("requestId")).toString());
                }
            }
        }
    };
    const auto sorted = [](QStringList ids) {
        ids.sort();
        return ids;
    };
    QStringList expected;
    for (const BridgeRequest& request : requests) {
        expected.append(request.id);
    }
    collect(2000);
    ASSERT_EQ(sorted(received[0] + received[1]), sorted(expected))
        << "every request exactly once across both hosts";

    // The first host never answers and dies; what it held goes out through the second.
    const QStringList orphaned = received[0];
    for (const QString& id : received[1]) {
        second->send(answer("ACK_REQUEST", id));
    }
    first->process().kill();
    first->waitForExit(5000);
    received = {};
    collect(3000);
    EXPECT_EQ(sorted(received[1]), sorted(orphaned));
    for (const QString& id : received[1]) {
        second->send(answer("ACK_REQUEST", id));
    }
    EXPECT_TRUE(QTest::qWaitFor([&] { return store.pendingRequests().empty(); }, 10000));
    // Acknowledged requests leave no claim behind.
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return QDir(data.filePath(QStringLiteral("DeliveryClaims"))).isEmpty(QDir::Files); }, 5000));
}

// The page self-check's answer travels extension → host → file → PageSelfCheck; only well-formed
// answers under a valid request id are kept.
TEST_F(HostTest, KeepsWellFormedPageCheckAnswersForTheSelfCheck)
{
    auto host = startHost();
    const QJsonObject ready{{"type", "PAGE_CHECK_RESULT"},
                            {"reachable", true},
                            {"signInPage", false},
                            {"input", true},
                            {"submit", true},
                            {"signedIn", true}};
    const auto withID = [](QJsonObject message, const QString& id) {
        message.insert(QStringLiteral("requestId"), id);
        return message;
    };
    QJsonObject notBoolean = withID(ready, QStringLiteral("b"));
    notBoolean.insert(QStringLiteral("input"), QStringLiteral("yes"));
    QJsonObject missing = withID(ready, QStringLiteral("c"));
    missing.remove(QStringLiteral("signedIn"));
    host->send(withID(ready, QStringLiteral("../escape")));
    host->send(notBoolean);
    host->send(missing);
    host->send(withID(ready, QStringLiteral("a")));
    const QString kept = PageSelfCheck::resultFilePath(store, QStringLiteral("a"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return QFileInfo::exists(kept); }, 5000));
    const QJsonObject result = QJsonDocument::fromJson(readFile(kept)).object();
    EXPECT_TRUE(PageSelfCheck::isReady(result));
    EXPECT_EQ(QDir(QFileInfo(kept).absolutePath()).entryList(QDir::Files), QStringList{"a.json"});
    EXPECT_FALSE(QFileInfo::exists(data.filePath(QStringLiteral("escape.json"))));
}

// Without a connected extension the check says so at once and queues nothing.
TEST(PageSelfCheckStart, WithoutTheExtensionAnswersAtOnceAndQueuesNothing)
{
    QTemporaryDir data;
    RequestStore store(data.path());
    PageSelfCheck check(store);
    QStringList sentences;
    QObject::connect(&check, &PageSelfCheck::finished, [&](const QString& sentence, bool ready) {
        sentences.append(sentence + (ready ? "+" : "-"));
    });
    check.start(BrowserProvider::doubao);
    ASSERT_EQ(sentences.size(), 1);
    EXPECT_TRUE(sentences[0].startsWith("浏览器扩展还没有连接") && sentences[0].endsWith(u'-'));
    EXPECT_TRUE(store.pendingRequests().empty());
    EXPECT_FALSE(check.isRunning());
}

// The host in this process with a clock the test moves by hand.
TEST(HostBackOff, RefusalsBackOffToSixtySecondsAndNeverDropTheRequest)
{
    QTemporaryDir data;
    RequestStore store(data.path());
    int fromHost[2]{-1, -1};
    ASSERT_EQ(::pipe2(fromHost, O_CLOEXEC | O_NONBLOCK), 0);
    double clock = 1000;
    NativeMessagingHost host(store, -1, fromHost[1]);
    host.setClock([&clock] { return clock; });
    // Request ids the host wrote since the last call; port heartbeats come in between.
    const auto sentIDs = [&] {
        QByteArray bytes(65536, Qt::Uninitialized);
        bytes.resize(std::max<ssize_t>(::read(fromHost[0], bytes.data(), bytes.size()), 0));
        QStringList ids;
        while (const std::optional<QJsonObject> message = NativeHostClient::takeFrame(bytes)) {
            ids.append(message->value(QStringLiteral("requestId")).toString());
        }
        ids.removeAll(QString());
        return ids;
    };

    const BridgeRequest request = store.enqueue(BridgeRequestType::newSession);
    host.scanPendingRequests();
    ASSERT_EQ(sentIDs(), QStringList{request.id});
    const std::vector<double> delays{2, 4, 8, 16, 32, 60, 60};
    for (std::size_t refusal = 0; refusal < delays.size(); ++refusal) {
        SCOPED_TRACE(refusal + 1);
        host.handleAnswer(QStringLiteral("NACK_REQUEST"), request.id);
        clock += delays[refusal] - 0.01;
        host.scanPendingRequests();
        EXPECT_TRUE(sentIDs().isEmpty());
        clock += 0.01;
        host.scanPendingRequests();
        EXPECT_EQ(sentIDs(), QStringList{request.id});
    }

    // An answer that never comes counts as a refusal once the delivery deadline has passed.
    EXPECT_TRUE(host.holdsClaim(request.id));
    clock += NativeMessagingHost::deliveryDeadline - 0.01;
    host.scanPendingRequests();
    EXPECT_TRUE(host.isInFlight(request.id));
    clock += 0.01;
    host.scanPendingRequests();
    EXPECT_FALSE(host.isInFlight(request.id));
    EXPECT_FALSE(host.holdsClaim(request.id)) << "another host may take it now";
    clock += 60;
    host.scanPendingRequests();
    EXPECT_EQ(sentIDs(), QStringList{request.id});

    host.handleAnswer(QStringLiteral("ACK_REQUEST"), request.id);
    EXPECT_FALSE(store.contains(request.id));
    EXPECT_FALSE(host.retryNotBefore(request.id)) << "an ACK clears the back-off";
    ::close(fromHost[0]);
    ::close(fromHost[1]);
}

} // namespace
