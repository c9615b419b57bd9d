// A locked login collection of the private session's gnome-keyring, unlocked through the desktop's
// own prompt (gcr-prompter on the session's display), which the test answers like a user.
#include "config/KeychainStore.h"
#include "config/KeychainTask.h"
#include "config/SecretServiceBackend.h"
#include "support/KeyringPrompt.h"
#include "support/LoopbackHttpServer.h"
#include "support/TestEnvironment.h"

#include <QStandardPaths>
#include <gtest/gtest.h>

using namespace velnora;

namespace {

class KeychainUnlockTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (qEnvironmentVariableIsEmpty("DISPLAY") ||
            qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS") ||
            QStandardPaths::findExecutable("xdotool").isEmpty()) {
            GTEST_SKIP() << "needs the private desktop session: run under scripts/desktop-session.sh";
        }
        store.saveAPIKey("sk-behind-the-lock", "kimi");
        KeychainStore fresh(store.service());
        ASSERT_EQ(fresh.apiKey("kimi"), "sk-behind-the-lock");
    }

    KeychainStore store{test::uniqueKeychainService()};
};

} // namespace

TEST_F(KeychainUnlockTest, ALockedCollectionIsUnlockedThroughThePromptOrReportedAsRefused)
{
    const struct
    {
        const char* name;
        QStringList keys;
        QString typed;
        std::optional<QString> key;
        QString error;
    } answers[] = {
        {"dismissed",
         {"Escape"},
         {},
         std::nullopt,
         "无法访问系统钥匙串：解锁登录钥匙串的请求被取消了，API Key 没有读取也没有保存。"},
        {"password", {"Return"}, test::KeyringPrompt::sessionPassword, "sk-behind-the-lock", {}},
    };
    for (const auto& answer : answers) {
        ASSERT_TRUE(test::KeyringPrompt::lockLoginCollection()) << answer.name;
        KeychainStore fresh(store.service());
        std::optional<KeychainReply> reply;
        QObject context;
        KeychainTask::start(
            &context, fresh,
            [](KeychainStore& s) {
                return KeychainReply{false, s.apiKey("kimi"), {}};
            },
            [&](const KeychainReply& r) { reply = r; });
        ASSERT_TRUE(test::KeyringPrompt::answer(answer.keys, answer.typed))
            << answer.name << ": no unlock prompt appeared";
        ASSERT_TRUE(test::waitUntil([&] { return reply.has_value(); }, 30000)) << answer.name;
        EXPECT_EQ(reply->key, answer.key) << answer.name;
        EXPECT_EQ(reply->error ? reply->error->description() : QString(), answer.error) << answer.name;
    }
    // Unlocked now: reads need no prompt.
    EXPECT_EQ(KeychainStore(store.service()).apiKey("kimi"), "sk-behind-the-lock");
    store.saveAPIKey("", "kimi");
}
