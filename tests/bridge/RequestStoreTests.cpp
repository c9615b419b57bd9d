#include "BridgeTestFiles.h"
#include "bridge/FileSystemError.h"
#include "bridge/RequestStore.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace velnora;
using namespace velnora::test;

namespace {

class RequestStoreTest : public testing::Test
{
protected:
    QTemporaryDir root;
    QString base = root.filePath(QStringLiteral("data"));
    RequestStore store{base};

    QString queueFile(const QString& name) const { return QDir(store.queueDirectory()).filePath(name); }
};

TEST_F(RequestStoreTest, EnqueueWritesOnePrivateRecordThatAcknowledgeRemoves)
{
    EXPECT_FALSE(QFileInfo::exists(base)) << "construction creates nothing";
    const BridgeRequest written =
        store.enqueue(BridgeRequestType::explainText, QStringLiteral("量子纠缠\n\"引号\""),
                      QStringLiteral("deepseek"), QStringLiteral("说得浅一点。"));
    const BridgeRequest bare = store.enqueue(BridgeRequestType::openWorkbench);
    const QString path = queueFile(written.id + QStringLiteral(".json"));
    EXPECT_EQ(permissions(path), 0600u);
    EXPECT_EQ(permissions(base), 0700u);
    EXPECT_EQ(permissions(store.queueDirectory()), 0700u);
    EXPECT_EQ(QDir(store.queueDirectory()).entryList(QDir::Files | QDir::Hidden).size(), 2)
        << "no temporary left";
    // Absent optionals are left out, not written as null.
    EXPECT_EQ(QJsonDocument::fromJson(readFile(queueFile(bare.id + QStringLiteral(".json")))).object().keys(),
              (QStringList{"createdAt", "id", "type"}));

    const std::vector<RequestStore::Pending> pending = store.pendingRequests();
    ASSERT_EQ(pending.size(), 2u);
    EXPECT_EQ(pending[0].request, written);
    store.acknowledge(written.id);
    EXPECT_EQ(store.pendingRequests().at(0).request, bare);
    EXPECT_NO_THROW(store.acknowledge(written.id));
    store.removePending(BridgeRequestType::openWorkbench);
    EXPECT_TRUE(store.pendingRequests().empty());
}

TEST_F(RequestStoreTest, OldestFirstAndUnreadableRecordsAreSkippedButKept)
{
    const std::vector<std::pair<const char*, QByteArray>> files{
        {"b.json", R"({"id":"b","type":"NEW_SESSION","createdAt":2000})"},
        {"a.json", R"({"id":"a","type":"NEW_SESSION","createdAt":2000})"},
        {"z.json", R"({"id":"z","type":"NEW_SESSION","createdAt":999.25})"},
        {"broken.json", R"({"id":"broken", )"},
        {"array.json", "[1, 2]"},
        {"dance.json", R"({"id":"dance","type":"DANCE","createdAt":1})"},
        {"no-time.json", R"({"id":"no-time","type":"NEW_SESSION"})"},
        {"text-number.json", R"({"id":"x","type":"NEW_SESSION","createdAt":1,"text":5})"},
        {".hidden.json", R"({"id":"hidden","type":"NEW_SESSION","createdAt":1})"},
        {".pending.tmp", R"({"id":"pending","type":"NEW_SESSION","createdAt":1})"},
    };
    for (const auto& [name, bytes] : files) {
        ASSERT_TRUE(writeFile(queueFile(QLatin1String(name)), bytes));
    }
    QStringList ids;
    for (const RequestStore::Pending& pending : store.pendingRequests()) {
        ids.append(pending.request.id);
    }
    EXPECT_EQ(ids, (QStringList{"z", "a", "b"}));
    for (const auto& [name, bytes] : files) {
        EXPECT_EQ(readFile(queueFile(QLatin1String(name))), bytes) << name;
    }
}

TEST_F(RequestStoreTest, HeartbeatAgeDecidesWhetherTheBridgeIsActive)
{
    EXPECT_FALSE(store.isBridgeActive(4));
    store.markBridgeActive();
    EXPECT_EQ(permissions(store.heartbeatFilePath()), 0600u);
    const double now = RequestStore::nowSeconds();
    for (const auto& [age, active] :
         std::vector<std::pair<double, bool>>{{3.8, true}, {4.1, false}, {-600, true}}) {
        ASSERT_TRUE(setModificationTime(store.heartbeatFilePath(), now - age));
        EXPECT_EQ(store.isBridgeActive(4), active) << age;
    }
}

TEST(RequestStoreConstruction, SweepsOnlyStaleLeftoversOfInterruptedWrites)
{
    QTemporaryDir root;
    const double now = RequestStore::nowSeconds();
    const std::vector<std::tuple<const char*, double, bool>> files{
        {"native-host-heartbeat.sb-e556e765-FVmtRb", 3601, false},
        {"PendingRequests/x.json.sb-e556e765-FVmtRb", 4000, false},
        {"PendingRequests/.6f1c2b4e-0d1a-4c5e-8f00-1234567890ab.tmp", 7200, false},
        {"app-status.json.sb-e556e765-FVmtRc", 3500, true},
        {"PendingRequests/.7f1c2b4e-0d1a-4c5e-8f00-1234567890ab.tmp", 10, true},
        {"PendingRequests/6f1c2b4e-0d1a-4c5e-8f00-1234567890ab.json", 99999, true},
        {"native-host-heartbeat", 99999, true},
        {"PendingRequests/.not an id.tmp", 99999, true},
    };
    for (const auto& [name, age, kept] : files) {
        writeFile(root.filePath(QLatin1String(name)), "x");
        ASSERT_TRUE(setModificationTime(root.filePath(QLatin1String(name)), now - age));
    }
    const RequestStore store(root.path());
    for (const auto& [name, age, kept] : files) {
        EXPECT_EQ(QFileInfo::exists(root.filePath(QLatin1String(name))), kept) << name;
    }
}

TEST(RequestStoreFailures, FileSystemErrorsComeThroughWithTheirCodeAndAChineseText)
{
    QTemporaryDir root;
    writeFile(root.filePath(QStringLiteral("plain-file")), "x");
    const QString base = root.filePath(QStringLiteral("plain-file/data"));
    RequestStore store(base);
    try {
        store.enqueue(BridgeRequestType::newSession);
        FAIL() << "enqueue under a regular file succeeded";
    } catch (const FileSystemError& error) {
        EXPECT_TRUE(error.description().contains(base) && error.description().contains("错误码 20"));
    }
    EXPECT_THROW(store.markBridgeActive(), FileSystemError);
}

} // namespace
