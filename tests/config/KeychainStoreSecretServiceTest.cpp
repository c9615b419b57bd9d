// Against the real Secret Service of the private test session (gnome-keyring).
#include "app/KeychainRepairCommand.h"
#include "config/KeychainStore.h"
#include "config/ProviderCatalog.h"
#include "config/SecretServiceBackend.h"

#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QUuid>

#include <gtest/gtest.h>

using namespace velnora;

namespace {

class SecretServiceTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) {
            FAIL() << "needs the private session: run under scripts/desktop-session.sh";
        }
    }
    // A service name of its own, so tests running side by side never see each other's items.
    QString service = "velnora.test." + QUuid::createUuid().toString(QUuid::WithoutBraces);
};

QString secretToolLookup(const QString& service, const QString& account)
{
    QProcess process;
    process.start("secret-tool", {"lookup", "service", service, "account", account});
    process.waitForFinished(10000);
    return QString::fromUtf8(process.readAllStandardOutput());
}

struct RunResult
{
    int exitCode;
    QString out;
    QString err;
};

RunResult runVelnora(const QStringList& arguments, const QProcessEnvironment& environment)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(test::velnoraBinary(), arguments);
    EXPECT_TRUE(process.waitForFinished(30000));
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

} // namespace

TEST_F(SecretServiceTest, SaveReadDeleteRoundTrip)
{
    KeychainStore store(service);
    EXPECT_EQ(store.apiKey("kimi"), std::nullopt);
    EXPECT_FALSE(store.hasAPIKey("kimi"));

    store.saveAPIKey("  sk-测试-123\n", "kimi");
    EXPECT_EQ(secretToolLookup(service, "kimi"), "sk-测试-123") << "stored where other tools find it";
    EXPECT_EQ(store.apiKey("kimi"), "sk-测试-123");

    // A fresh store has an empty cache and reads the item from the daemon.
    KeychainStore restarted(service);
    EXPECT_TRUE(restarted.hasAPIKey("kimi"));
    EXPECT_FALSE(restarted.isCached("kimi"));
    EXPECT_EQ(restarted.apiKey("kimi"), "sk-测试-123");
    EXPECT_TRUE(restarted.isCached("kimi"));

    // Saving again replaces rather than adding a second item.
    restarted.saveAPIKey("sk-new", "kimi");
    EXPECT_EQ(KeychainStore(service).apiKey("kimi"), "sk-new");

    restarted.saveAPIKey("   ", "kimi");
    EXPECT_EQ(KeychainStore(service).apiKey("kimi"), std::nullopt);
    EXPECT_EQ(secretToolLookup(service, "kimi"), "");
    EXPECT_NO_THROW(restarted.saveAPIKey("", "kimi")) << "deleting what is not there is fine";
}

TEST_F(SecretServiceTest, KeysOfProvidersAndServicesStaySeparate)
{
    KeychainStore store(service);
    KeychainStore other(service + ".other");
    store.saveAPIKey("sk-a", "deepseek");
    store.saveAPIKey("sk-b", "glm");
    EXPECT_EQ(KeychainStore(service).apiKey("deepseek"), "sk-a");
    EXPECT_EQ(KeychainStore(service).apiKey("glm"), "sk-b");
    EXPECT_EQ(other.apiKey("deepseek"), std::nullopt);
    store.saveAPIKey("", "deepseek");
    EXPECT_EQ(KeychainStore(service).apiKey("glm"), "sk-b");
    store.saveAPIKey("", "glm");
}

TEST_F(SecretServiceTest, CommandLineRepairOverTheApplicationsItems)
{
    const QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    KeychainStore appStore;
    for (const auto& definition : ProviderDefinition::builtIn()) {
        appStore.saveAPIKey("", definition.id);
    }
    RunResult result = runVelnora({"--repair-keychain-access"}, environment);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "keychain-access-repair: no stored API keys\n");

    appStore.saveAPIKey("sk-q", "qwen");
    appStore.saveAPIKey("sk-d", "doubao");
    result = runVelnora({"--repair-keychain-access"}, environment);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "keychain-access-repair: ok (doubao, qwen)\n");
    EXPECT_EQ(KeychainStore().apiKey("qwen"), "sk-q");
    appStore.saveAPIKey("", "qwen");
    appStore.saveAPIKey("", "doubao");
}

TEST_F(SecretServiceTest, NoSecretServiceFailsFastWithAClearError)
{
    // A child process whose session bus leads nowhere: the store must answer, not hang.
    if (qEnvironmentVariableIsSet("VELNORA_TEST_NO_BUS_CHILD")) {
        KeychainStore store(service);
        try {
            store.saveAPIKey("sk", "kimi");
        } catch (const KeychainError& error) {
            std::printf("status=%d\n%s\n", error.status(), error.description().toUtf8().constData());
            return;
        }
        std::printf("saved\n");
        return;
    }
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("VELNORA_TEST_NO_BUS_CHILD", "1");
    environment.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/velnora-test-bus");
    QProcess child;
    child.setProcessEnvironment(environment);
    child.start(QCoreApplication::applicationFilePath(),
                {"--gtest_filter=SecretServiceTest.NoSecretServiceFailsFastWithAClearError"});
    ASSERT_TRUE(child.waitForFinished(30000));
    const QString out = QString::fromUtf8(child.readAllStandardOutput());
    EXPECT_TRUE(out.contains(QStringLiteral("status=%1").arg(KeychainError::serviceUnavailable))) << out.toStdString();
    EXPECT_TRUE(out.contains("无法访问系统钥匙串：没有可用的钥匙串服务")) << out.toStdString();

    // And the repair mode says there is nothing to repair rather than hanging.
    environment.remove("VELNORA_TEST_NO_BUS_CHILD");
    const RunResult result = runVelnora({"--repair-keychain-access"}, environment);
    EXPECT_EQ(result.exitCode, 0);
}

TEST_F(SecretServiceTest, ADeadlineBoundsACallThatNeverAnswers)
{
    // A bus that accepts the connection and never replies stands in for a prompt nobody answers.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (qEnvironmentVariableIsSet("VELNORA_TEST_DEADLINE_CHILD")) {
        QElapsedTimer timer;
        timer.start();
        const int32_t status = SecretServiceBackend::copyItem({service, "kimi", true}, nullptr, std::chrono::milliseconds(300));
        std::printf("status=%d elapsed=%lld\n", status, static_cast<long long>(timer.elapsed()));
        return;
    }
    test::TemporaryHome home;
    const QString socketPath = home.filePath("silent-bus");
    QProcess listener;
    listener.start("python3", {"-c", "import socket,sys,time\n"
                                     "s=socket.socket(socket.AF_UNIX); s.bind(sys.argv[1]); s.listen(8)\n"
                                     "print('ready', flush=True)\n"
                                     "conns=[]\n"
                                     "while True: conns.append(s.accept())\n",
                               socketPath});
    ASSERT_TRUE(listener.waitForReadyRead(10000));
    environment.insert("VELNORA_TEST_DEADLINE_CHILD", "1");
    environment.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + socketPath);
    QProcess child;
    child.setProcessEnvironment(environment);
    child.start(QCoreApplication::applicationFilePath(),
                {"--gtest_filter=SecretServiceTest.ADeadlineBoundsACallThatNeverAnswers"});
    const bool finished = child.waitForFinished(20000);
    listener.kill();
    listener.waitForFinished();
    ASSERT_TRUE(finished);
    const QString out = QString::fromUtf8(child.readAllStandardOutput());
    EXPECT_TRUE(out.contains(QStringLiteral("status=%1").arg(KeychainError::timedOut))) << out.toStdString();
}
