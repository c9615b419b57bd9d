// Against the real Secret Service of the private test session (gnome-keyring).
#include "app/KeychainRepairCommand.h"
#include "config/KeyReadProcess.h"
#include "config/KeychainStore.h"
#include "config/SecretServiceBackend.h"
#include "support/LoopbackHttpServer.h"
#include "support/TestEnvironment.h"

#include <QLocalServer>
#include <gtest/gtest.h>

using namespace velnora;

namespace {

QString secretToolLookup(const QString& service, const QString& account)
{
    return test::runProgram("secret-tool", {"lookup", "service", service, "account", account}).out;
}

// A store on the real daemon whose reads of a secret can be made to fail with `forced` or to
// return `readBack`: statuses the daemon will not produce on demand.
struct InjectedStore
{
    int32_t forced = 0;
    QByteArray readBack;
    KeychainStore store{test::uniqueKeychainService()};

    InjectedStore()
    {
        store.copyItem = [this](const KeychainQuery& query, QByteArray* secret) {
            if (query.returnData && forced != 0) {
                return forced;
            }
            const int32_t status = SecretServiceBackend::copyItem(query, secret);
            if (secret && !readBack.isNull()) {
                *secret = readBack;
            }
            return status;
        };
    }
};

// The status of the KeychainError `call` throws, 0 when it throws none.
int32_t statusOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const KeychainError& error) {
        return error.status();
    }
    return 0;
}

} // namespace

TEST(SecretServiceTest, SaveReadReplaceRepairAndDelete)
{
    const QString service = test::uniqueKeychainService();
    KeychainStore reader(service);
    EXPECT_EQ(reader.apiKey("kimi"), std::nullopt);

    KeychainStore writer(service);
    writer.saveAPIKey("  sk-测试-123\n", "kimi");
    writer.saveAPIKey("sk-b", "glm");
    EXPECT_EQ(secretToolLookup(service, "kimi"), "sk-测试-123") << "stored where other tools find it";
    EXPECT_EQ(KeychainStore(service + ".other").apiKey("kimi"), std::nullopt);

    // A miss is not cached: another store's write is read from the daemon, then kept.
    EXPECT_TRUE(reader.hasAPIKey("kimi"));
    EXPECT_FALSE(reader.isCached("kimi"));
    EXPECT_EQ(reader.apiKey("kimi"), "sk-测试-123");
    EXPECT_TRUE(reader.isCached("kimi"));

    // Saving again replaces rather than adding a second item; repair rewrites what is there.
    reader.saveAPIKey("sk-new", "kimi");
    EXPECT_TRUE(reader.repairAccess("kimi"));
    EXPECT_EQ(KeychainStore(service).apiKey("kimi"), "sk-new");

    reader.saveAPIKey("   ", "kimi");
    EXPECT_EQ(KeychainStore(service).apiKey("kimi"), std::nullopt);
    EXPECT_EQ(secretToolLookup(service, "kimi"), "");
    EXPECT_FALSE(reader.repairAccess("kimi"));
    EXPECT_NO_THROW(reader.saveAPIKey("", "kimi")) << "deleting what is not there is fine";
    EXPECT_EQ(KeychainStore(service).apiKey("glm"), "sk-b");
    writer.saveAPIKey("", "glm");
}

TEST(SecretServiceTest, FailuresSurfaceWithTheirStatusAndCacheNothing)
{
    InjectedStore injected;
    KeychainStore& store = injected.store;
    store.saveAPIKey("sk-ds", "deepseek");
    store.saveAPIKey("sk-er", "ernie");
    EXPECT_EQ(KeychainRepairCommand::repairAll(store).repaired, (QStringList{"deepseek", "ernie"}));

    // Locked: a cached key is still served, and the existence check needs no unlocking, so the
    // repair tries each stored key and names it.
    injected.forced = KeychainError::collectionLocked;
    EXPECT_EQ(store.apiKey("deepseek"), "sk-ds");
    const auto outcome = KeychainRepairCommand::repairAll(store);
    const QString locked = "无法访问系统钥匙串：钥匙串已锁定，请先解锁登录钥匙串。";
    EXPECT_EQ(outcome.failures, (QStringList{"deepseek: " + locked, "ernie: " + locked}));
    EXPECT_EQ(KeychainRepairCommand::report(outcome), 1);
    EXPECT_EQ(statusOf([&] { store.apiKey("deepseek"); }), KeychainError::collectionLocked);
    EXPECT_FALSE(store.isCached("deepseek"));

    injected.forced = 0;
    injected.readBack = "something-else";
    EXPECT_EQ(statusOf([&] { store.saveAPIKey("sk-1", "kimi"); }), KeychainError::decodeFailed);
    EXPECT_FALSE(store.isCached("kimi"));

    // Bytes another tool wrote that are not UTF-8.
    injected.readBack = {};
    ASSERT_EQ(SecretServiceBackend::addItem({store.service(), "glm", QByteArray("\xff\xfe\x80", 3)}), 0);
    EXPECT_EQ(statusOf([&] { store.apiKey("glm"); }), KeychainError::decodeFailed);
    EXPECT_FALSE(store.isCached("glm"));

    // A failed write, a repair's included, leaves the key that was stored.
    store.addItem = [](const KeychainItem&) { return KeychainError::timedOut; };
    EXPECT_EQ(statusOf([&] { store.saveAPIKey("sk-new", "deepseek"); }), KeychainError::timedOut);
    EXPECT_EQ(statusOf([&] { store.repairAccess("deepseek"); }), KeychainError::timedOut);
    EXPECT_EQ(KeychainStore(store.service()).apiKey("deepseek"), "sk-ds");
}

// The repair mode names a missing or silent service, by its deadline, instead of finding no keys.
TEST(SecretServiceTest, AMissingOrSilentServiceFailsWithAClearErrorByTheDeadline)
{
    // Connections wait in the backlog and nobody answers, as with an unlock prompt nobody answers.
    test::TemporaryHome home;
    QLocalServer silentBus;
    ASSERT_TRUE(silentBus.listen(home.filePath("silent-bus")));
    const std::pair<QString, const char*> cases[] = {
        {"unix:path=/nonexistent/velnora-test-bus", "没有可用的钥匙串服务（Secret Service 未运行）。"},
        {"unix:path=" + silentBus.fullServerName(), "钥匙串服务没有及时响应。"},
    };
    for (const auto& [busAddress, message] : cases) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("DBUS_SESSION_BUS_ADDRESS", busAddress);
        const test::ProgramRun repair =
            test::runProgram(test::velnoraBinary(), {"--repair-keychain-access"}, environment);
        EXPECT_EQ(repair.exitCode, 1);
        EXPECT_EQ(repair.out, "");
        EXPECT_EQ(repair.err,
                  QStringLiteral("keychain-access-repair: 无法访问系统钥匙串：") + message + "\n");
    }
}

TEST(SecretServiceTest, TheRepairWritesBackExactlyTheBytesItRead)
{
    KeychainStore store(test::uniqueKeychainService());
    const struct
    {
        const char* provider;
        QByteArray secret;
    } items[] = {
        {"doubao", "  sk-padded-key \n"},
        {"kimi", "   "},
        {"glm", "sk-plain"},
    };
    for (const auto& item : items) {
        ASSERT_EQ(SecretServiceBackend::addItem({store.service(), item.provider, item.secret}), 0);
    }
    const auto outcome = KeychainRepairCommand::repairAll(store);
    EXPECT_EQ(outcome.repaired, (QStringList{"doubao", "kimi", "glm"}));
    EXPECT_EQ(outcome.failures, QStringList());
    for (const auto& item : items) {
        QByteArray secret;
        ASSERT_EQ(SecretServiceBackend::copyItem({store.service(), item.provider, true}, &secret), 0)
            << item.provider;
        EXPECT_EQ(secret, item.secret) << item.provider;
    }
}

// The tray reads a card's key in a child process: it must hand over exactly what the store holds,
// and say so in Chinese when the keyring or the child fails.
TEST(SecretServiceTest, AKeyReadInAChildProcessIsWhatTheStoreHolds)
{
    KeychainStore store{test::uniqueKeychainService()};
    store.saveAPIKey(QStringLiteral("sk-子进程-1"), "deepseek");
    const auto read = [&](const QString& program, const QString& providerID) {
        std::optional<KeychainReply> reply;
        QObject context;
        KeyReadProcess::start(&context, program, store.service(), providerID,
                              [&](const KeychainReply& r) { reply = r; });
        EXPECT_TRUE(test::waitUntil([&] { return reply.has_value(); }, 15000));
        return reply.value_or(KeychainReply{});
    };
    const auto error = [](const KeychainReply& reply) {
        return reply.error ? reply.error->description() : QString();
    };

    EXPECT_EQ(read(test::velnoraBinary(), "deepseek").key, QStringLiteral("sk-子进程-1"));
    const KeychainReply none = read(test::velnoraBinary(), "kimi");
    EXPECT_EQ(none.key, std::nullopt);
    EXPECT_EQ(error(none), "");
    EXPECT_TRUE(error(read("/nonexistent/velnora", "deepseek")).contains("子进程无法启动"));
    EXPECT_TRUE(error(read("/bin/echo", "deepseek")).contains("子进程没有给出结果"));
    {
        test::EnvironmentGuard environment;
        environment.set("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/velnora-test-bus");
        EXPECT_EQ(error(read(test::velnoraBinary(), "deepseek")),
                  "无法访问系统钥匙串：没有可用的钥匙串服务（Secret Service 未运行）。");
    }
    store.saveAPIKey(QString(), "deepseek");
}
