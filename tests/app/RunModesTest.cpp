#include "app/RunModes.h"

#include <QProcess>

#include "support/TestEnvironment.h"

#include <gtest/gtest.h>

using namespace velnora;

namespace {

QString selected(QStringList arguments)
{
    arguments.prepend("/usr/bin/velnora");
    const RunModes::Row* row = RunModes::select(ProcessArguments(arguments));
    if (!row) {
        return "none";
    }
    if (row->match == RunModes::Match::nativeMessaging) {
        return "host";
    }
    if (row->match == RunModes::Match::always) {
        return "app";
    }
    return QString::fromLatin1(row->flag);
}

} // namespace

TEST(RunModes, FirstMatchingRowInTableOrderDecides)
{
    EXPECT_EQ(selected({}), "app");
    EXPECT_EQ(selected({"--no-such-flag"}), "app");
    EXPECT_EQ(selected({"--self-test", "--send-preview"}), "--send-preview");
    EXPECT_EQ(selected({"--bridge-status", "--browser-repair-self-test"}), "--browser-repair-self-test");
    EXPECT_EQ(selected({"--bridge-status", "--native-host"}), "--bridge-status");
}

TEST(RunModes, FlagsThatTakeAValueAreSkippedWithoutOne)
{
    EXPECT_EQ(selected({"--render-pill"}), "app");
    EXPECT_EQ(selected({"--render-pill", "--native-host"}), "--render-pill") << "the next element is the value";
    EXPECT_EQ(selected({"--dark", "--render-overlay", "/tmp/card.png"}), "--render-overlay");
    EXPECT_EQ(selected({"--settings-self-test", "--api-stream-self-test"}), "--settings-self-test");
    EXPECT_EQ(selected({"--api-stream-self-test"}), "app");
}

TEST(RunModes, ChromeStartsTheHostWithItsOrigin)
{
    EXPECT_EQ(selected({"--native-host"}), "host");
    EXPECT_EQ(selected({"chrome-extension://fdhfgnjhaaajmaghafbmgilcmhecbjol/"}), "host");
    EXPECT_EQ(selected({"--unknown", "chrome-extension://x/"}), "host");
    EXPECT_FALSE(RunModes::isNativeMessagingInvocation({"--native-host"})) << "element 0 is the executable path";
    EXPECT_FALSE(RunModes::isNativeMessagingInvocation({"velnora", "--native-hosts", "chrome://extensions"}));
}

TEST(RunModes, HelpAndVersionAnswerWithoutStartingAnything)
{
    QProcess process;
    process.start(test::velnoraBinary(), {"--version", "--bridge-status"});
    ASSERT_TRUE(process.waitForFinished(10000));
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_TRUE(process.readAllStandardOutput().startsWith("velnora "));

    process.start(test::velnoraBinary(), {"--help"});
    ASSERT_TRUE(process.waitForFinished(10000));
    const QString usage = QString::fromUtf8(process.readAllStandardOutput());
    for (const RunModes::Row& row : RunModes::table()) {
        if (row.action && row.flag[0] != '\0') {
            EXPECT_TRUE(usage.contains(QString::fromLatin1(row.flag) + u' ')) << row.flag;
        }
    }
}
