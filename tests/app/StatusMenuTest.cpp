// The tray menu's texts and the small pieces of the shell that decide what the user reads.
#include "app/StatusMenu.h"

#include "app/AppDelegate.h"
#include "app/GraphemeText.h"
#include "app/LaunchAtLogin.h"
#include "support/TestEnvironment.h"

#include <QAction>
#include <QFile>
#include <gtest/gtest.h>

namespace velnora {
namespace {

using ExplainItem = StatusMenu::ExplainItem;

TEST(ExplainItemTitle, SelectionWinsOverClipboardAndIsShownOnOneLine)
{
    EXPECT_EQ(StatusMenu::explainMenuItemTitle(QStringLiteral("\t行一\r\n行二  "), QStringLiteral("剪贴板")),
              (ExplainItem{QStringLiteral("解释选中：“行一  行二”"), true, ExplainSource::selection}));
    // A selection of only blanks counts as none.
    EXPECT_EQ(StatusMenu::explainMenuItemTitle(QStringLiteral(" \n\t"), QStringLiteral("剪贴板文字")),
              (ExplainItem{QStringLiteral("解释剪贴板：“剪贴板文字”"), true, ExplainSource::clipboard}));
    EXPECT_EQ(StatusMenu::explainMenuItemTitle(std::nullopt, QStringLiteral("\n")),
              (ExplainItem{QStringLiteral("没有选中文字，剪贴板也是空的"), false, std::nullopt}));
    EXPECT_EQ(StatusMenu::explainMenuItemTitle(std::nullopt, std::nullopt).enabled, false);
}

TEST(ExplainItemTitle, PreviewKeepsTwentyCharactersAsTheUserCountsThem)
{
    const QString twenty = QStringLiteral("一二三四五六七八九十").repeated(2);
    EXPECT_EQ(StatusMenu::preview(twenty), twenty);
    EXPECT_EQ(StatusMenu::preview(twenty + QStringLiteral("多")), twenty + QStringLiteral("…"));
    // Neither a surrogate pair nor a joined emoji may be cut in half.
    const QString family = QStringLiteral("👨‍👩‍👧‍👦");
    EXPECT_EQ(StatusMenu::preview(family.repeated(21)), family.repeated(20) + QStringLiteral("…"));
    const QString accented = QStringLiteral("e\u0301");
    EXPECT_EQ(StatusMenu::preview(accented.repeated(20)), accented.repeated(20));
    EXPECT_EQ(StatusMenu::preview(QStringLiteral("\r\n\t ")), QString());
}

TEST(GraphemeText, CountsClustersAndStopsAtTheCap)
{
    EXPECT_EQ(GraphemeText::count(QString(), 10), 0);
    EXPECT_EQ(GraphemeText::count(QStringLiteral("🇨🇳🇨🇳a"), 10), 3);
    EXPECT_EQ(GraphemeText::count(QStringLiteral("x").repeated(500), 100), 100);
    EXPECT_EQ(GraphemeText::prefix(QStringLiteral("🇨🇳🇨🇳a"), 1), QStringLiteral("🇨🇳"));
    EXPECT_EQ(GraphemeText::prefix(QStringLiteral("ab"), 5), QStringLiteral("ab"));
}

// The mode items are driven through the delegate in AppDelegateDesktopTest.
TEST(StatusMenuLayout, HotKeyItemsFollowTheStoredChoice)
{
    StatusMenu menu;
    ASSERT_EQ(menu.hotKeyMenu()->actions().size(), qsizetype(HotKeyChoice::all().size()));
    const HotKeyChoice& second = HotKeyChoice::all().at(1);
    menu.setCurrentHotKey(second.id);
    EXPECT_TRUE(menu.hotKeyMenuItems().value(second.id)->isChecked());
    EXPECT_EQ(menu.hotKeyMenu()->title(),
              QStringLiteral("全局快捷键（") + second.title + QStringLiteral("）"));
    // An unknown id falls back to the default combination.
    menu.setCurrentHotKey(QStringLiteral("no-such-key"));
    EXPECT_TRUE(menu.hotKeyMenuItems().value(HotKeyChoice::all().front().id)->isChecked());
}

TEST(DeliveryFeedback, EachDiagnosisHasItsShortText)
{
    EXPECT_EQ(AppDelegate::deliveryFeedback(BridgeDiagnosis::chromeNotRunning()),
              QStringLiteral("Chrome 没有运行"));
    EXPECT_EQ(
        AppDelegate::deliveryFeedback(BridgeDiagnosis::extensionSilent(ChromeExtensionInstall::absent())),
        QStringLiteral("Chrome 扩展未安装"));
    EXPECT_EQ(
        AppDelegate::deliveryFeedback(BridgeDiagnosis::extensionSilent(ChromeExtensionInstall::installed())),
        QStringLiteral("Chrome 扩展未连接"));
    for (const BridgeDiagnosis& diagnosis :
         {BridgeDiagnosis::manifestMissing(), BridgeDiagnosis::manifestOriginMismatch(),
          BridgeDiagnosis::manifestPathBroken(QStringLiteral("/nonexistent/velnora"))}) {
        EXPECT_EQ(AppDelegate::deliveryFeedback(diagnosis), QStringLiteral("Chrome 连接配置需修复"));
    }
    EXPECT_EQ(AppDelegate::deliveryFeedback(BridgeDiagnosis::connected()), QString());
    EXPECT_EQ(AppDelegate::hotKeyTakenMessage(HotKeyChoice::all().front()),
              QStringLiteral("快捷键 Ctrl+Alt+E 已被其他应用占用，请在菜单栏中更换。"));
}

class LaunchAtLoginTest : public ::testing::Test
{
protected:
    test::TemporaryHome m_home;
};

TEST_F(LaunchAtLoginTest, EntryIsWrittenRemovedAndHonoursTheDesktopSwitches)
{
    const QString path = LaunchAtLogin::autostartFilePath();
    EXPECT_EQ(path, m_home.configHome() + QStringLiteral("/autostart/velnora.desktop"));
    EXPECT_FALSE(LaunchAtLogin::isEnabled());

    EXPECT_EQ(LaunchAtLogin::setEnabled(true, QStringLiteral("/opt/澜镜/velnora")), std::nullopt);
    EXPECT_TRUE(LaunchAtLogin::isEnabled());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray text = file.readAll();
    EXPECT_TRUE(text.startsWith("[Desktop Entry]\n"));
    EXPECT_TRUE(text.contains("\nExec=/opt/澜镜/velnora\n"));
    file.close();

    // A desktop that switched the entry off has the last word.
    ASSERT_TRUE(file.open(QIODevice::Append));
    file.write("Hidden = true\n");
    file.close();
    EXPECT_FALSE(LaunchAtLogin::isEnabled());

    EXPECT_EQ(LaunchAtLogin::setEnabled(false, QString()), std::nullopt);
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_EQ(LaunchAtLogin::setEnabled(false, QString()), std::nullopt); // nothing to remove is fine
}

TEST_F(LaunchAtLoginTest, ExecQuotesPathsWithReservedCharacters)
{
    EXPECT_TRUE(LaunchAtLogin::entryText(QStringLiteral("/home/a b/velnora"))
                    .contains("Exec=\"/home/a b/velnora\"\n"));
    EXPECT_TRUE(LaunchAtLogin::entryText(QStringLiteral("/x/$HOME\"q/100%"))
                    .contains("Exec=\"/x/\\$HOME\\\"q/100%%\"\n"));
}

} // namespace
} // namespace velnora
