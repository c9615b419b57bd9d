#include "capture/HotKeyChoice.h"
#include "capture/TerminalWindows.h"

#include <gtest/gtest.h>

namespace velnora {
namespace {

TEST(HotKeyChoiceTest, StoredIdsMapToTheirCombinationAndAnythingElseToTheDefault)
{
    EXPECT_EQ(HotKeyChoice::choice(QStringLiteral("control-option-e")).title, QStringLiteral("Super+Alt+E"));
    EXPECT_EQ(HotKeyChoice::choice(QStringLiteral("control-option-e")).modifiers,
              Qt::MetaModifier | Qt::AltModifier);
    EXPECT_EQ(HotKeyChoice::choice(QStringLiteral("control-command-e")).title, QStringLiteral("Ctrl+Super+E"));
    for (const std::optional<QString>& id : {std::optional<QString>(), std::optional<QString>(QString()),
                                             std::optional<QString>(QStringLiteral("Control-Option-E")),
                                             std::optional<QString>(QStringLiteral("option-command-e "))}) {
        EXPECT_EQ(&HotKeyChoice::choice(id), &HotKeyChoice::all().front());
    }
    // The default's combination is pressed for real in GlobalHotKeyDesktopTest.
    EXPECT_EQ(HotKeyChoice::all().front().id, QStringLiteral("option-command-e"));
}

TEST(TerminalWindowsTest, RecognisesTerminalsByEitherHalfOfWmClass)
{
    EXPECT_TRUE(TerminalWindows::isTerminal(QByteArray("gnome-terminal-server\0Gnome-terminal\0", 37)));
    EXPECT_TRUE(TerminalWindows::isTerminal(QByteArray("konsole\0konsole\0", 16)));
    EXPECT_TRUE(TerminalWindows::isTerminal(QByteArray("main\0deepin-terminal\0", 21)));
    EXPECT_TRUE(TerminalWindows::isTerminal("XTerm"));
    EXPECT_FALSE(TerminalWindows::isTerminal(QByteArray("Navigator\0firefox-esr\0", 22)));
    EXPECT_FALSE(TerminalWindows::isTerminal(QByteArray("code\0Code\0", 10)));
    EXPECT_FALSE(TerminalWindows::isTerminal(QByteArray()));
    EXPECT_FALSE(TerminalWindows::isTerminal(QByteArray("\0\0", 2)));
}

} // namespace
} // namespace velnora
