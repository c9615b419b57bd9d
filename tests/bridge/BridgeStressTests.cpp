#include "bridge/RequestStore.h"
#include "support/NativeHostClient.h"
#include "support/TestEnvironment.h"

#include <QDeadlineTimer>
#include <QProcess>
#include <QSet>
#include <QTemporaryDir>
#include <QThread>
#include <gtest/gtest.h>

using namespace velnora;
using namespace velnora::test;

namespace {

// Three processes: this one answers like the extension, a host carries the queue, a helper fills it.
TEST(BridgeStress, TwoThousandRequestsFromAnotherProcessAreEachDeliveredOnce)
{
    constexpr int count = 2000;
    QTemporaryDir data;
    NativeHostClient host;
    host.setEnvironmentValue(QStringLiteral("VELNORA_DATA_DIR"), data.path());
    ASSERT_TRUE(host.start(velnoraBinary()));
    ASSERT_EQ(host.receive(10000).value_or(QJsonObject{}).value(QStringLiteral("type")).toString(),
              QStringLiteral("HOST_READY"));

    QProcess producer;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("VELNORA_DATA_DIR"), data.path());
    producer.setProcessEnvironment(environment);
    producer.start(QStringLiteral(BRIDGE_ENQUEUE_HELPER), {QString::number(count)});
    ASSERT_TRUE(producer.waitForStarted(10000));

    QSet<QString> delivered;
    QStringList duplicates;
    const QDeadlineTimer deadline(90000);
    while (delivered.size() < count && !deadline.hasExpired()) {
        const std::optional<QJsonObject> message = host.receiveMessage(1000);
        if (!message) {
            continue;
        }
        const QString id = message->value(QStringLiteral("requestId")).toString();
        if (delivered.contains(id)) {
            duplicates.append(id);
        }
        delivered.insert(id);
        host.send({{"type", "ACK_REQUEST"}, {"requestId", id}});
    }
    ASSERT_TRUE(producer.waitForFinished(30000));
    EXPECT_EQ(producer.exitCode(), 0) << producer.readAllStandardError().constData();
    QSet<QString> enqueued;
    for (const QByteArray& line : producer.readAllStandardOutput().split('\n')) {
        if (!line.isEmpty()) {
            enqueued.insert(QString::fromLatin1(line));
        }
    }

    EXPECT_EQ(enqueued.size(), count);
    EXPECT_EQ(delivered.size(), count);
    EXPECT_TRUE(QSet<QString>(enqueued).subtract(delivered).isEmpty()) << "enqueued but never delivered";
    EXPECT_TRUE(QSet<QString>(delivered).subtract(enqueued).isEmpty()) << "delivered but never enqueued";
    EXPECT_TRUE(duplicates.isEmpty())
        << duplicates.size() << " delivered twice, e.g. " << duplicates.value(0).toStdString();

    const RequestStore store(data.path());
    const QDeadlineTimer drained(10000);
    while (!store.pendingRequests().empty() && !drained.hasExpired()) {
        QThread::msleep(20);
    }
    EXPECT_TRUE(store.pendingRequests().empty());
    // Anything sent after the last ACK would be a second delivery.
    EXPECT_FALSE(host.receiveMessage(600));
    EXPECT_TRUE(host.isRunning());
}

} // namespace
