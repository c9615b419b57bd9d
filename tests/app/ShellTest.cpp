// The shell without a window: which mode the executable takes, what the tray menu's explain item reads,
// and the autostart entry.
#include "app/LaunchAtLogin.h"
#include "app/RunModes.h"
#include "app/StatusMenu.h"
#include "config/ProviderCatalog.h"
#include "support/TestEnvironment.h"

#include <QFile>
#include <QProcess>
#include <gtest/gtest.h>

using namespace velnora;

TEST(RunModes, FirstMatchingRowInTableOrderDecides)
{
    const struct
    {
        QStringList arguments;
        const char* mode; // a flag, "host" or "app"
    } cases[] = {
        {{}, "app"},
        {{"--self-test", "--send-preview"}, "--send-preview"},
        {{"--bridge-status", "--native-host"}, "--bridge-status"},
        // A flag that takes a value is skipped without one: the next element is the value.
        {{"--render-pill"}, "app"},
        {{"--render-pill", "--native-host"}, "--render-pill"},
        {{"--dark", "--render-overlay", "/tmp/card.png"}, "--render-overlay"},
        // Chrome starts the host with its origin.
        {{"--unknown", "chrome-extension://fdhfgnjhaaajmaghafbmgilcmhecbjol/"}, "host"},
        // Firefox with the host manifest's path and the gecko ID; another add-on's ID is not ours.
        {{"/home/u/.mozilla/native-messaging-hosts/com.tarnwick.velnora.domestic.json",
          ExplainerConstants::firefoxExtensionIdentifier()},
         "host"},
        {{"/home/u/.mozilla/native-messaging-hosts/x.json", "other@example.org"}, "app"},
    };
    for (const auto& [arguments, mode] : cases) {
        const RunModes::Row* row =
            RunModes::select(ProcessArguments(QStringList{"/usr/bin/velnora"} + arguments));
        ASSERT_NE(row, nullptr);
        const QString selected = row->match == RunModes::Match::nativeMessaging ? "host"
                                 : row->match == RunModes::Match::always        ? "app"
                                                                                : row->flag;
        EXPECT_EQ(selected, mode) << arguments.join(u' ').toStdString();
    }
    EXPECT_FALSE(RunModes::isNativeMessagingInvocation({"--native-host"}))
        << "element 0 is the executable path";
}

TEST(RunModes, TheProcessAnswersHelpAndRefusesToStartWithoutADisplay)
{
    QProcess process;
    process.start(test::velnoraBinary(), {"--help"});
    ASSERT_TRUE(process.waitForFinished(10000));
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_TRUE(process.readAllStandardOutput().contains("--explain-selection "));

    // An unknown flag starts the application, which needs a display.
    QProcessEnvironment environment; // without DISPLAY, WAYLAND_DISPLAY or QT_QPA_PLATFORM
    environment.insert("LANG", "C.UTF-8");
    process.setProcessEnvironment(environment);
    process.start(test::velnoraBinary(), {"--no-such-flag"});
    ASSERT_TRUE(process.waitForFinished(10000));
    EXPECT_EQ(process.exitCode(), 1);
    EXPECT_EQ(QString::fromUtf8(process.readAllStandardError()),
              "澜镜需要图形桌面会话：没有设置 DISPLAY，找不到可用的显示器。请在桌面会话中启动。\n");
}

TEST(StatusMenuTexts, TheExplainItemPrefersTheSelectionAndShowsTwentyCharactersAsTheUserCountsThem)
{
    using Item = StatusMenu::ExplainItem;
    EXPECT_EQ(StatusMenu::explainMenuItemTitle("\t行一\r\n行二  ", "剪贴板"),
              (Item{"解释选中：“行一  行二”", true, ExplainSource::selection}));
    // A selection of only blanks counts as none.
    EXPECT_EQ(StatusMenu::explainMenuItemTitle(" \n\t", "剪贴板文字"),
              (Item{"解释剪贴板：“剪贴板文字”", true, ExplainSource::clipboard}));

    const QString twenty = QString("一二三四五六七八九十").repeated(2);
    EXPECT_EQ(StatusMenu::preview(twenty), twenty);
    EXPECT_EQ(StatusMenu::preview(twenty + "多"), twenty + "…");
    // Neither a surrogate pair nor a joined emoji may be cut in half.
    const QString family = "👨‍👩‍👧‍👦";
    EXPECT_EQ(StatusMenu::preview(family.repeated(21)), family.repeated(20) + "…");
}

TEST(LaunchAtLogin, TheEntryQuotesItsPathAndADesktopThatSwitchedItOffHasTheLastWord)
{
    test::TemporaryHome home;
    EXPECT_TRUE(LaunchAtLogin::entryText("/home/a b/velnora").contains("Exec=\"/home/a b/velnora\"\n"));
    EXPECT_TRUE(LaunchAtLogin::entryText("/x/$HOME\"q/100%").contains("Exec=\"/x/\\$HOME\\\"q/100%%\"\n"));

    ASSERT_EQ(LaunchAtLogin::setEnabled(true, "/opt/澜镜/velnora"), std::nullopt);
    EXPECT_TRUE(LaunchAtLogin::isEnabled());
    QFile file(LaunchAtLogin::autostartFilePath());
    ASSERT_TRUE(file.open(QIODevice::Append));
    file.write("Hidden = true\n");
    file.close();
    EXPECT_FALSE(LaunchAtLogin::isEnabled());
    EXPECT_EQ(LaunchAtLogin::setEnabled(false, QString()), std::nullopt);
    EXPECT_FALSE(file.exists());
}
