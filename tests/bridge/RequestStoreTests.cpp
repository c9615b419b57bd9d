#include "BridgeTestFiles.h"
#include "bridge/FileSystemError.h"
#include "bridge/RequestStore.h"
#include "support/TestEnvironment.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <cerrno>
#include <gtest/gtest.h>
#include <unistd.h>

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

    void writeRecord(const QString& id, double createdAt, const char* type = "NEW_SESSION")
    {
        const QJsonObject record{{QStringLiteral("id"), id},
                                 {QStringLiteral("type"), QLatin1String(type)},
                                 {QStringLiteral("createdAt"), createdAt}};
        ASSERT_TRUE(writeFile(queueFile(id + QStringLiteral(".json")), QJsonDocument(record).toJson()));
    }

    QStringList pendingIDs() const
    {
        QStringList ids;
        for (const RequestStore::Pending& pending : store.pendingRequests()) {
            ids.append(pending.request.id);
        }
        return ids;
    }
};

TEST_F(RequestStoreTest, ConstructionCreatesNothing)
{
    EXPECT_FALSE(QFileInfo::exists(base));
}

TEST_F(RequestStoreTest, EnqueueWritesOneCompactPrivateRecordThatAcknowledgeRemoves)
{
    const BridgeRequest written =
        store.enqueue(BridgeRequestType::explainText, QStringLiteral("量子纠缠\n\"引号\""),
                      QStringLiteral("deepseek"), QStringLiteral("说得浅一点。"));
    EXPECT_EQ(written.id.size(), 36);
    EXPECT_EQ(written.id, written.id.toLower());
    EXPECT_NEAR(written.createdAt, RequestStore::nowSeconds() * 1000, 5000);

    const QString path = queueFile(written.id + QStringLiteral(".json"));
    EXPECT_EQ(permissions(path), 0600u);
    EXPECT_EQ(permissions(base), 0700u);
    EXPECT_EQ(permissions(store.queueDirectory()), 0700u);
    const QByteArray bytes = readFile(path);
    EXPECT_TRUE(bytes.startsWith("{\"createdAt\":")) << bytes.constData();
    EXPECT_LT(bytes.indexOf("\"depthInstruction\""), bytes.indexOf("\"id\""));
    EXPECT_FALSE(bytes.contains('\n'));
    EXPECT_EQ(QDir(store.queueDirectory()).entryList(QDir::Files | QDir::Hidden).size(), 1)
        << "no temporary left";

    const std::vector<RequestStore::Pending> pending = store.pendingRequests();
    ASSERT_EQ(pending.size(), 1u);
    EXPECT_EQ(pending[0].request, written);
    EXPECT_EQ(pending[0].filePath, path);
    EXPECT_TRUE(store.contains(written.id));

    store.acknowledge(written.id);
    EXPECT_TRUE(store.pendingRequests().empty());
    EXPECT_FALSE(store.contains(written.id));
    EXPECT_NO_THROW(store.acknowledge(written.id));
}

TEST_F(RequestStoreTest, AbsentOptionalsAreLeftOutNotNull)
{
    const BridgeRequest written =
        store.enqueue(BridgeRequestType::openWorkbench, std::nullopt, QStringLiteral("kimi"));
    const QJsonObject record =
        QJsonDocument::fromJson(readFile(queueFile(written.id + QStringLiteral(".json")))).object();
    EXPECT_EQ(record.keys(), (QStringList{"createdAt", "id", "provider", "type"}));
    EXPECT_EQ(record.value(QStringLiteral("type")).toString(), QStringLiteral("OPEN_WORKBENCH"));
}

TEST_F(RequestStoreTest, ProviderSyncLeavesOnlyTheLatestRequest)
{
    store.enqueue(BridgeRequestType::explainText, QStringLiteral("keep me"));
    for (const char* provider : {"qwen", "glm"}) {
        store.removePending(BridgeRequestType::setBrowserProvider);
        store.enqueue(BridgeRequestType::setBrowserProvider, std::nullopt, QLatin1String(provider));
    }
    const std::vector<RequestStore::Pending> pending = store.pendingRequests();
    ASSERT_EQ(pending.size(), 2u);
    EXPECT_EQ(pending[0].request.type, BridgeRequestType::explainText);
    EXPECT_EQ(pending[1].request.provider, QStringLiteral("glm"));
}

TEST_F(RequestStoreTest, OldestFirstAndEqualTimesByIdentifier)
{
    store.ensureDirectories();
    writeRecord(QStringLiteral("c"), 1000.5);
    writeRecord(QStringLiteral("b"), 2000);
    writeRecord(QStringLiteral("a"), 2000);
    writeRecord(QStringLiteral("z"), 999.25);
    EXPECT_EQ(pendingIDs(), (QStringList{"z", "c", "a", "b"}));
}

TEST_F(RequestStoreTest, UnreadableRecordsAndHiddenFilesAreSkippedAndKept)
{
    store.ensureDirectories();
    writeRecord(QStringLiteral("good"), 1);
    writeRecord(QStringLiteral("unknown-type"), 2, "DANCE");
    writeFile(queueFile(QStringLiteral("broken.json")), "{\"id\": \"broken\", ");
    writeFile(queueFile(QStringLiteral("array.json")), "[1, 2]");
    writeFile(queueFile(QStringLiteral("no-time.json")), R"({"id":"no-time","type":"NEW_SESSION"})");
    writeFile(queueFile(QStringLiteral("text-number.json")),
              R"({"id":"x","type":"NEW_SESSION","createdAt":1,"text":5})");
    writeFile(queueFile(QStringLiteral(".hidden.json")),
              R"({"id":"hidden","type":"NEW_SESSION","createdAt":1})");
    writeFile(queueFile(QStringLiteral(".pending.tmp")),
              R"({"id":"pending","type":"NEW_SESSION","createdAt":1})");
    writeFile(queueFile(QStringLiteral("upper.JSON")),
              R"({"id":"upper","type":"NEW_SESSION","createdAt":1})");
    writeFile(queueFile(QStringLiteral("x.json.bak")), R"({"id":"bak","type":"NEW_SESSION","createdAt":1})");

    EXPECT_EQ(pendingIDs(), QStringList{"good"});
    EXPECT_TRUE(QFileInfo::exists(queueFile(QStringLiteral("broken.json"))));
    EXPECT_TRUE(QFileInfo::exists(queueFile(QStringLiteral("unknown-type.json"))));
}

TEST_F(RequestStoreTest, InvalidIdentifiersNeverBecomePaths)
{
    store.ensureDirectories();
    // Files an invalid identifier would reach if it were turned into a path.
    writeFile(queueFile(QStringLiteral("a.b.json")), "{}");
    writeFile(root.filePath(QStringLiteral("data/outside.json")), "{}");
    writeFile(queueFile(QStringLiteral(".json")), "{}");
    const QString tooLong(81, u'a');
    writeFile(queueFile(tooLong + QStringLiteral(".json")), "{}");

    for (const QString& id : {QString(), tooLong, QStringLiteral("a.b"), QStringLiteral("../outside"),
                              QStringLiteral("a/b"), QStringLiteral("a b"), QStringLiteral("a_b")}) {
        EXPECT_FALSE(RequestStore::isValidRequestIdentifier(id)) << id.toStdString();
        EXPECT_NO_THROW(store.acknowledge(id));
        EXPECT_FALSE(store.contains(id));
    }
    EXPECT_TRUE(QFileInfo::exists(queueFile(QStringLiteral("a.b.json"))));
    EXPECT_TRUE(QFileInfo::exists(root.filePath(QStringLiteral("data/outside.json"))));
    EXPECT_TRUE(QFileInfo::exists(queueFile(tooLong + QStringLiteral(".json"))));

    const QString longest(80, u'f');
    writeFile(queueFile(longest + QStringLiteral(".json")), "{}");
    EXPECT_TRUE(store.contains(longest));
    store.acknowledge(longest);
    EXPECT_FALSE(QFileInfo::exists(queueFile(longest + QStringLiteral(".json"))));
}

TEST(RequestIdentifierRule, AcceptsLettersMarksAndDigitsOfAnyScript)
{
    EXPECT_TRUE(
        RequestStore::isValidRequestIdentifier(QStringLiteral("9f1c2b4e-0d1a-4c5e-8f00-1234567890ab")));
    EXPECT_TRUE(RequestStore::isValidRequestIdentifier(QStringLiteral("请求-٣-Ω")));
    // e + combining acute: two scalars, one character, so 80 of them still fit.
    QString accented;
    for (int i = 0; i < 80; ++i) {
        accented += QStringLiteral("e\u0301");
    }
    EXPECT_TRUE(RequestStore::isValidRequestIdentifier(accented));
    EXPECT_FALSE(RequestStore::isValidRequestIdentifier(accented + u'e'));
    EXPECT_FALSE(RequestStore::isValidRequestIdentifier(QStringLiteral("emoji-😀")));
}

TEST_F(RequestStoreTest, HeartbeatAgeDecidesWhetherTheBridgeIsActive)
{
    EXPECT_FALSE(store.isBridgeActive(4));
    store.markBridgeActive();
    const QString heartbeat = store.heartbeatFilePath();
    EXPECT_EQ(permissions(heartbeat), 0600u);
    bool ok = false;
    const QByteArray text = readFile(heartbeat);
    EXPECT_NEAR(text.toDouble(&ok), RequestStore::nowSeconds(), 60);
    EXPECT_TRUE(ok) << text.constData();
    EXPECT_FALSE(text.contains('e') || text.contains('\n'));
    EXPECT_TRUE(store.isBridgeActive(4));

    const double now = RequestStore::nowSeconds();
    ASSERT_TRUE(setModificationTime(heartbeat, now - 3.8));
    EXPECT_TRUE(store.isBridgeActive(4));
    ASSERT_TRUE(setModificationTime(heartbeat, now - 4.1));
    EXPECT_FALSE(store.isBridgeActive(4));
    ASSERT_TRUE(setModificationTime(heartbeat, now + 600));
    EXPECT_TRUE(store.isBridgeActive(4)) << "a clock ahead of ours still counts as alive";
}

TEST(AtomicWriteLeftovers, NameTest)
{
    for (const char* name :
         {"native-host-heartbeat.sb-e556e765-FVmtRb", "native-host-heartbeat.sb-5df64b23-05ITgw",
          "x.sb-ABCDEF01-abc123", "a.sb-00000000-000000.sb-12345678-abcdef"}) {
        EXPECT_TRUE(RequestStore::isAtomicWriteTemporary(QLatin1String(name))) << name;
    }
    for (const char* name : {".sb-5df64b23-05ITgw", "request.sb-5df64b23-05ITg", "request.sb-5df64b2-05ITgw",
                             "request.sb-5df64b2z-05ITgw", "request.sb-5df64b23-05ITgw-x",
                             "request.sb-5df64b23", "request.sb-5df64b23-05IT.w", "native-host-heartbeat",
                             "app-status.json", "6f1c2b4e-0d1a-4c5e-8f00-1234567890ab.json"}) {
        EXPECT_FALSE(RequestStore::isAtomicWriteTemporary(QLatin1String(name))) << name;
    }
}

TEST(AtomicWriteLeftovers, SweepDeletesOnlyStaleLeftovers)
{
    QTemporaryDir directory;
    const double now = RequestStore::nowSeconds();
    const auto make = [&](const char* name, double age) {
        const QString path = directory.filePath(QLatin1String(name));
        writeFile(path, "x");
        setModificationTime(path, now - age);
        return path;
    };
    const QString stale = make("native-host-heartbeat.sb-e556e765-FVmtRb", 3601);
    const QString fresh = make("app-status.json.sb-e556e765-FVmtRc", 3599);
    const QString staleEnqueue = make(".6f1c2b4e-0d1a-4c5e-8f00-1234567890ab.tmp", 7200);
    const QString freshEnqueue = make(".7f1c2b4e-0d1a-4c5e-8f00-1234567890ab.tmp", 10);
    const QStringList keep{make("native-host-heartbeat", 99999), make("app-status.json", 99999),
                           make(".sb-5df64b23-05ITgw", 99999), make("request.sb-5df64b2-05ITgw", 99999),
                           make(".not an id.tmp", 99999)};

    RequestStore::sweepStaleWriteTemporaries(directory.path(), 3600, now);
    EXPECT_FALSE(QFileInfo::exists(stale));
    EXPECT_FALSE(QFileInfo::exists(staleEnqueue));
    EXPECT_TRUE(QFileInfo::exists(fresh));
    EXPECT_TRUE(QFileInfo::exists(freshEnqueue));
    for (const QString& path : keep) {
        EXPECT_TRUE(QFileInfo::exists(path)) << path.toStdString();
    }
    RequestStore::sweepStaleWriteTemporaries(directory.filePath(QStringLiteral("missing")), 3600, now);
}

TEST(RequestStoreConstruction, SweepsBothFolders)
{
    QTemporaryDir root;
    const QString inBase = root.filePath(QStringLiteral("native-host-heartbeat.sb-e556e765-FVmtRb"));
    const QString inQueue = root.filePath(QStringLiteral("PendingRequests/x.json.sb-e556e765-FVmtRb"));
    for (const QString& path : {inBase, inQueue}) {
        writeFile(path, "x");
        setModificationTime(path, RequestStore::nowSeconds() - 4000);
    }
    RequestStore store(root.path());
    EXPECT_FALSE(QFileInfo::exists(inBase));
    EXPECT_FALSE(QFileInfo::exists(inQueue));
}

TEST(RequestStoreConstruction, DataFolderComesFromTheEnvironmentThenXdg)
{
    TemporaryHome home;
    EnvironmentGuard environment;
    environment.set("VELNORA_DATA_DIR", "/tmp/velnora-first");
    environment.set("BRINKWELL_DATA_DIR", "/tmp/velnora-second");
    EXPECT_EQ(RequestStore().baseDirectory(), QStringLiteral("/tmp/velnora-first"));
    environment.set("VELNORA_DATA_DIR", "");
    EXPECT_EQ(RequestStore().baseDirectory(), QStringLiteral("/tmp/velnora-second"));
    environment.unset("BRINKWELL_DATA_DIR");
    environment.set("VELNORA_DATA_DIR", "~/data");
    EXPECT_EQ(RequestStore().baseDirectory(), QStringLiteral("~/data")) << "no tilde expansion";
    environment.unset("VELNORA_DATA_DIR");
    const RequestStore store;
    EXPECT_EQ(store.baseDirectory(), home.dataHome() + QStringLiteral("/VelNoraDomestic"));
    EXPECT_EQ(store.queueDirectory(), home.dataHome() + QStringLiteral("/VelNoraDomestic/PendingRequests"));
}

TEST(RequestStoreConstruction, MigrationNeverOverwrites)
{
    QTemporaryDir root;
    const QString legacy = root.filePath(QStringLiteral("Old"));
    const QString target = root.filePath(QStringLiteral("deeper/New"));
    writeFile(legacy + QStringLiteral("/PendingRequests/a.json"), "legacy");
    RequestStore::migrateLegacyDirectory(legacy, target);
    EXPECT_EQ(readFile(target + QStringLiteral("/PendingRequests/a.json")), "legacy");
    EXPECT_FALSE(QFileInfo::exists(legacy));

    writeFile(legacy + QStringLiteral("/PendingRequests/a.json"), "older");
    RequestStore::migrateLegacyDirectory(legacy, target);
    EXPECT_EQ(readFile(target + QStringLiteral("/PendingRequests/a.json")), "legacy");
    EXPECT_EQ(readFile(legacy + QStringLiteral("/PendingRequests/a.json")), "older");
}

TEST_F(RequestStoreTest, AppStatusSnapshot)
{
    store.enqueue(BridgeRequestType::newSession);
    store.enqueue(BridgeRequestType::newSession);
    store.markBridgeActive();
    store.writeAppStatus(true);
    EXPECT_EQ(permissions(store.appStatusFilePath()), 0600u);
    const QJsonObject status = QJsonDocument::fromJson(readFile(store.appStatusFilePath())).object();
    EXPECT_EQ(status.value(QStringLiteral("pid")).toInteger(), qint64(::getpid()));
    EXPECT_EQ(status.value(QStringLiteral("accessibilityTrusted")), QJsonValue(true));
    EXPECT_EQ(status.value(QStringLiteral("chromeBridgeActive")), QJsonValue(true));
    EXPECT_EQ(status.value(QStringLiteral("pendingRequestCount")).toInt(), 2);
    EXPECT_NEAR(status.value(QStringLiteral("updatedAt")).toDouble(), RequestStore::nowSeconds() * 1000,
                60000);
}

TEST(RequestStoreFailures, FileSystemErrorsComeThroughWithTheirCode)
{
    QTemporaryDir root;
    writeFile(root.filePath(QStringLiteral("plain-file")), "x");
    RequestStore store(root.filePath(QStringLiteral("plain-file/data")));
    try {
        store.enqueue(BridgeRequestType::newSession);
        FAIL() << "enqueue under a regular file succeeded";
    } catch (const FileSystemError& error) {
        EXPECT_EQ(error.code(), ENOTDIR);
        EXPECT_TRUE(error.description().contains(QStringLiteral("文件操作失败")));
    }
    EXPECT_THROW(store.pendingRequests(), FileSystemError);
    EXPECT_THROW(store.markBridgeActive(), FileSystemError);
    EXPECT_FALSE(store.isBridgeActive(4));
    EXPECT_FALSE(store.contains(QStringLiteral("abc")));
}

} // namespace
