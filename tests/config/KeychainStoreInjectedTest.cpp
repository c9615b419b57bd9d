// The secret store with its three operations replaced by an in-memory table, for the failure
// statuses a real Secret Service will not produce on demand.
#include "app/KeychainRepairCommand.h"
#include "config/KeychainStore.h"

#include <QMap>

#include <gtest/gtest.h>

using namespace velnora;

namespace {

struct FakeSecretStore
{
    QMap<QPair<QString, QString>, QByteArray> items;
    int copies = 0;
    int32_t copyStatus = 0;   // forced status for reads that load the secret
    int32_t addStatus = 0;
    QByteArray corruptReadBack; // returned instead of the stored bytes when set

    void attach(KeychainStore& store)
    {
        store.copyItem = [this](const KeychainQuery& query, QByteArray* secret) -> int32_t {
            ++copies;
            if (query.returnData && copyStatus != 0) {
                return copyStatus;
            }
            const auto it = items.constFind({query.service, query.account});
            if (it == items.cend()) {
                return KeychainError::itemNotFound;
            }
            if (secret) {
                *secret = corruptReadBack.isNull() ? *it : corruptReadBack;
            }
            return 0;
        };
        store.addItem = [this](const KeychainItem& item) -> int32_t {
            if (addStatus != 0) {
                return addStatus;
            }
            items.insert({item.service, item.account}, item.secret);
            return 0;
        };
        store.deleteItem = [this](const KeychainQuery& query) -> int32_t {
            return items.remove({query.service, query.account}) ? 0 : KeychainError::itemNotFound;
        };
    }
};

class KeychainStoreInjected : public testing::Test
{
protected:
    FakeSecretStore fake;
    KeychainStore store{"test.service"};
    void SetUp() override { fake.attach(store); }

    int32_t statusOf(const std::function<void()>& call)
    {
        try {
            call();
        } catch (const KeychainError& error) {
            return error.status();
        }
        return 0;
    }
};

} // namespace

// Trimming and deleting on blank are checked against the real keyring; the cache only here.
TEST_F(KeychainStoreInjected, ASavedKeyIsServedFromTheCacheUntilDeleted)
{
    store.saveAPIKey("sk-abc", "kimi");
    const int before = fake.copies;
    EXPECT_EQ(store.apiKey("kimi"), "sk-abc");
    EXPECT_TRUE(store.hasAPIKey("kimi"));
    EXPECT_EQ(fake.copies, before) << "a cached key must not query the store";

    store.saveAPIKey(" \n", "kimi");
    EXPECT_FALSE(store.isCached("kimi"));
    EXPECT_EQ(store.apiKey("kimi"), std::nullopt);
}

TEST_F(KeychainStoreInjected, NotFoundIsNotCachedSoALaterWriteIsSeen)
{
    EXPECT_EQ(store.apiKey("glm"), std::nullopt);
    fake.items.insert({"test.service", "glm"}, "written-elsewhere");
    EXPECT_EQ(store.apiKey("glm"), "written-elsewhere");
}

TEST_F(KeychainStoreInjected, FailureStatusesSurfaceAsKeychainErrors)
{
    fake.items.insert({"test.service", "qwen"}, "k");
    fake.copyStatus = KeychainError::collectionLocked;
    EXPECT_EQ(statusOf([&] { store.apiKey("qwen"); }), KeychainError::collectionLocked);
    EXPECT_TRUE(store.hasAPIKey("qwen")) << "existence is known without unlocking the secret";

    fake.copyStatus = 0;
    fake.items.insert({"test.service", "qwen"}, QByteArray("\xff\xfe\x80", 3));
    EXPECT_EQ(statusOf([&] { store.apiKey("qwen"); }), KeychainError::decodeFailed);
    EXPECT_FALSE(store.isCached("qwen"));

    EXPECT_EQ(KeychainError(-4242).description(), "无法访问系统钥匙串：未知错误");
}

TEST_F(KeychainStoreInjected, ReadBackMismatchFailsAndCachesNothing)
{
    fake.corruptReadBack = "something-else";
    EXPECT_EQ(statusOf([&] { store.saveAPIKey("sk-1", "ernie"); }), KeychainError::decodeFailed);
    EXPECT_FALSE(store.isCached("ernie"));

    fake.corruptReadBack = QByteArray();
    fake.addStatus = KeychainError::accessDenied;
    EXPECT_EQ(statusOf([&] { store.saveAPIKey("sk-1", "ernie"); }), KeychainError::accessDenied);
}

TEST_F(KeychainStoreInjected, RepairRewritesExistingKeysOnly)
{
    EXPECT_FALSE(store.repairAccess("doubao"));
    EXPECT_TRUE(fake.items.isEmpty());

    fake.items.insert({"test.service", "doubao"}, "sk-d");
    EXPECT_TRUE(store.repairAccess("doubao"));
    EXPECT_EQ(fake.items.value({"test.service", "doubao"}), "sk-d");

    fake.copyStatus = KeychainError::userCancelled;
    EXPECT_EQ(statusOf([&] { store.repairAccess("doubao"); }), KeychainError::userCancelled);
}

TEST_F(KeychainStoreInjected, LegacyServicesAreNeverRead)
{
    fake.items.insert({"com.tarnwick.brinkwell.api-keys.v2", "kimi"}, "old");
    const int before = fake.copies;
    EXPECT_EQ(store.readLegacy("kimi").kind, KeychainStore::ReadOutcome::Kind::notFound);
    EXPECT_EQ(fake.copies, before);
}

TEST_F(KeychainStoreInjected, CommandLineRepairReportsRepairedAndFailedProviders)
{
    EXPECT_TRUE(KeychainRepairCommand::repairAll(store).repaired.isEmpty());

    fake.items.insert({"test.service", "deepseek"}, "sk-ds");
    fake.items.insert({"test.service", "ernie"}, "sk-er");
    fake.items.insert({"test.service", "unknown-provider"}, "ignored");
    auto outcome = KeychainRepairCommand::repairAll(store);
    EXPECT_EQ(outcome.repaired, (QStringList{"deepseek", "ernie"}));
    EXPECT_TRUE(outcome.failures.isEmpty());

    fake.copyStatus = KeychainError::collectionLocked;
    outcome = KeychainRepairCommand::repairAll(store);
    EXPECT_TRUE(outcome.repaired.isEmpty());
    ASSERT_EQ(outcome.failures.size(), 2);
    EXPECT_EQ(outcome.failures.first(), "deepseek: " + KeychainError(KeychainError::collectionLocked).description());
    EXPECT_EQ(KeychainRepairCommand::report(outcome), 1);
}
