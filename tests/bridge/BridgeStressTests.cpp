#include "bridge/RequestStore.h"
#include "support/NativeHostClient.h"
#include "support/TestEnvironment.h"

#include <QDeadlineTimer>
#include <QProcess>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>
#include <gtest/gtest.h>

using namespace velnora;
using namespace velnora::test;

namespace {

// Three processes: this one answers like the extension, a host carries the queue, a helper fills it.
// This found the enqueue's chmod racing a fast ACK.
TEST(BridgeStress, TwoThousandRequestsFromAnotherProcessAreEachDeliveredOnce)
{
    constexpr int count = 2000;
    QTemporaryDir data;
    NativeHostClient host;
    host.setEnvironmentValue(QStringLiteral("VELNORA_DATA_DIR"), data.path());
    ASSERT_TRUE(host.start(velnoraBinary()));
    ASSERT_TRUE(host.receive(10000));

    QProcess producer;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("VELNORA_DATA_DIR"), data.path());
    producer.setProcessEnvironment(environment);
    producer.start(QStringLiteral(BRIDGE_ENQUEUE_HELPER), {QString::number(count)});

    QStringList delivered;
    const QDeadlineTimer deadline(90000);
    while (delivered.size() < count && !deadline.hasExpired()) {
        const std::optional<QJsonObject> message = host.receiveMessage(1000);
        if (message) {
            delivered.append(message->value(QStringLiteral("requestId")).toString());
            host.send({{"type", "ACK_REQUEST"}, {"requestId", delivered.last()}});
        } else if ((producer.state() == QProcess::NotRunning || producer.waitForFinished(0)) &&
                   producer.exitCode() != 0) {
            break; // the producer failed: what it never wrote cannot come
        }
    }
    ASSERT_TRUE(producer.state() == QProcess::NotRunning || producer.waitForFinished(30000));
    EXPECT_EQ(producer.exitCode(), 0) << producer.readAllStandardError().constData();
    EXPECT_EQ(delivered.size(), count);
    EXPECT_EQ(QSet<QString>(delivered.begin(), delivered.end()).size(), count) << "delivered twice";

    EXPECT_TRUE(QTest::qWaitFor([&] { return RequestStore(data.path()).pendingRequests().empty(); }, 10000));
    // Anything sent after the last ACK would be a second delivery.
    EXPECT_FALSE(host.receiveMessage(600));
}

} // namespace
