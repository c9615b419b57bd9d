// The reader and the hot key against real X clients in the private session: selections owned by xclip, a
// Qt client that answers Ctrl+C, and xdotool pressing keys.
#include "CaptureDesktopSupport.h"
#include "CaptureTestData.h"
#include "capture/GlobalHotKey.h"
#include "capture/SelectionReadError.h"
#include "capture/SelectionReader.h"

#include <QTimer>
#include <gtest/gtest.h>

namespace velnora {
namespace {

using namespace test;

const QString noSelection = QStringLiteral("没有读取到选中的文字，请先选中文字再试。");

TEST(SelectionReaderDesktopTest, PrimaryThenBlankPrimaryWithAnUnansweredCopyThenTheClipboardAlone)
{
    ASSERT_FALSE(qEnvironmentVariableIsEmpty("DISPLAY")) << "run inside scripts/desktop-session.sh";
    SelectionReader reader;
    auto primary = ownSelection("primary", "\n  words from another client \n");
    ASSERT_TRUE(primary);
    EXPECT_EQ(readOutcome([&] { return reader.readSelection(); }),
              QStringLiteral("words from another client"));

    // Nobody has the focus to answer Ctrl+C, and the clipboard stays as it was.
    primary = ownSelection("primary", " \n\t ");
    auto owner = ownSelection("clipboard", "  剪贴板里的文字\n");
    ASSERT_TRUE(primary && owner);
    EXPECT_EQ(readOutcome([&] { return reader.readSelection(); }), noSelection);
    EXPECT_FALSE(reader.isReading());
    EXPECT_EQ(clipboard("UTF8_STRING"), QByteArray("  剪贴板里的文字\n"));
    EXPECT_EQ(reader.clipboardText().text, QStringLiteral("剪贴板里的文字"));

    owner.reset();
    ASSERT_TRUE(waitUntil([] { return !clipboard("UTF8_STRING"); }, 5000));
    EXPECT_EQ(readOutcome([&] { return reader.clipboardText(); }),
              QStringLiteral("无法通过剪贴板读取当前选区。"));
}

// The copy client starts out owning CLIPBOARD with text, HTML and a large binary image.
TEST(SelectionReaderDesktopTest, CopyGivesTheCopiedTextAndRestoresEveryFormatUnlessSomeoneWroteSince)
{
    const struct
    {
        QStringList arguments;
        QString read;
        bool restored;
    } cases[] = {
        {{"copy"}, QString::fromLatin1(CaptureTestData::copiedPlain), true},
        {{"copy", "--class", "deepin-terminal"}, QString::fromLatin1(CaptureTestData::copiedWithShift), true},
        {{"copy", "--blank"}, noSelection, true},
        {{"copy", "--replace"}, QString::fromLatin1(CaptureTestData::copiedPlain), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments.join(u' ').toStdString());
        TestClient copier(c.arguments);
        ASSERT_TRUE(copier.readyLine().startsWith(QStringLiteral("ready")));
        SelectionReader reader;
        // A second hot-key press while the copy waits is refused, not queued.
        QString nested;
        QTimer::singleShot(0, [&] { nested = readOutcome([&] { return reader.readSelection(); }); });
        EXPECT_EQ(readOutcome([&] { return reader.readSelection(); }), c.read);
        EXPECT_EQ(nested, noSelection);
        if (!c.restored) {
            EXPECT_EQ(clipboard("UTF8_STRING"), QByteArray(CaptureTestData::newerText))
                << "the snapshot came back over the newer content";
            continue;
        }
        EXPECT_EQ(clipboard("UTF8_STRING"), QByteArray(CaptureTestData::earlierText));
        EXPECT_EQ(clipboard("image/png"), CaptureTestData::earlierImage());
        EXPECT_EQ(clipboard("TARGETS").value_or("").count("TARGETS"), 1) << "protocol targets were saved too";
        // The restored content is what a later read snapshots and restores again.
        EXPECT_EQ(readOutcome([&] { return reader.readSelection(); }), c.read);
        EXPECT_EQ(clipboard("text/html"), QByteArray(CaptureTestData::earlierHtml));
    }
}

TEST(SelectionReaderDesktopTest, WithoutADisplayEveryEntryPointFailsCleanly)
{
    SelectionReader reader{CapturePlatform{}};
    EXPECT_EQ(readOutcome([&] { return reader.readSelection(); }),
              QStringLiteral("需要在系统设置中授予辅助功能权限。"));
    EXPECT_FALSE(reader.peekSelection(42));
    EXPECT_EQ(readOutcome([&] { return reader.clipboardText(); }),
              QStringLiteral("无法通过剪贴板读取当前选区。"));
}

bool press(const char* keys)
{
    return runTool(QStringLiteral("xdotool"), {"key", QString::fromLatin1(keys)}).has_value();
}

// Waits for the expected count, then a little longer so that an extra firing would show.
int firingsAfter(const int& counter, int expected)
{
    waitUntil([&] { return counter >= expected; }, 3000);
    spinFor(200);
    return counter;
}

bool numLockOn()
{
    return runTool(QStringLiteral("xset"), {"q"}).value_or("").simplified().contains("Num Lock: on");
}

// Every GlobalHotKey has its own X connection, so a second one is another client to the server.
TEST(GlobalHotKeyDesktopTest, FiresOnlyForItsCombinationAndIsTakenReplacedAndReleasedAgainstAnotherClient)
{
    const HotKeyChoice& ctrlAltE = HotKeyChoice::choice(QStringLiteral("option-command-e"));
    const HotKeyChoice& ctrlSuperE = HotKeyChoice::choice(QStringLiteral("control-command-e"));
    for (const std::optional<QString>& damaged : {std::optional<QString>(), {""}, {"Option-Command-E"}}) {
        EXPECT_EQ(&HotKeyChoice::choice(damaged), &ctrlAltE) << "damaged settings get the default";
    }
    const auto otherClientCanGrab = [&] { return GlobalHotKey().registerChoice(ctrlAltE, [] {}); };
    int first = 0;
    int second = 0;
    {
        GlobalHotKey hotKey;
        ASSERT_TRUE(hotKey.registerChoice(ctrlAltE, [&] { ++first; }));
        ASSERT_TRUE(hotKey.registerChoice(ctrlAltE, [&] { ++second; }));
        ASSERT_TRUE(press("ctrl+alt+e"));
        EXPECT_EQ(firingsAfter(second, 1), 1);
        EXPECT_EQ(first, 0);

        ASSERT_TRUE(press("Num_Lock"));
        EXPECT_TRUE(waitUntil(numLockOn, 2000)) << "NumLock did not latch";
        ASSERT_TRUE(press("ctrl+alt+e"));
        EXPECT_EQ(firingsAfter(second, 2), 2);
        ASSERT_TRUE(press("Num_Lock"));

        ASSERT_TRUE(press("ctrl+e"));
        ASSERT_TRUE(press("alt+e"));
        EXPECT_EQ(firingsAfter(second, 3), 2) << "another combination with the same letter fired";

        EXPECT_FALSE(otherClientCanGrab());
        ASSERT_TRUE(hotKey.registerChoice(ctrlSuperE, [&] { ++second; }));
        EXPECT_TRUE(otherClientCanGrab()) << "the earlier combination is still grabbed";
        ASSERT_TRUE(press("ctrl+super+e"));
        EXPECT_EQ(firingsAfter(second, 3), 3);
        ASSERT_TRUE(hotKey.registerChoice(ctrlAltE, [&] { ++second; }));
    }
    EXPECT_TRUE(otherClientCanGrab()) << "destruction left the grab behind";
}

// A recorded combination may end in any key of the keyboard, not only a letter or a digit.
TEST(GlobalHotKeyDesktopTest, RecordedCombinationsWithFunctionNavigationAndPunctuationKeysFire)
{
    const std::pair<QKeyCombination, const char*> combinations[] = {
        {Qt::ControlModifier | Qt::Key_F5, "ctrl+F5"},
        {Qt::MetaModifier | Qt::Key_Space, "super+space"},
        {Qt::ControlModifier | Qt::AltModifier | Qt::Key_Semicolon, "ctrl+alt+semicolon"},
        {Qt::ControlModifier | Qt::ShiftModifier | Qt::Key_Exclam, "ctrl+shift+1"},
        {Qt::AltModifier | Qt::Key_PageDown, "alt+Next"},
    };
    for (const auto& [combination, keys] : combinations) {
        int fired = 0;
        GlobalHotKey hotKey;
        const HotKeyChoice choice = HotKeyChoice::custom(combination.keyboardModifiers(), combination.key());
        ASSERT_TRUE(hotKey.registerChoice(choice, [&] { ++fired; })) << keys;
        ASSERT_TRUE(press(keys));
        EXPECT_EQ(firingsAfter(fired, 1), 1) << keys;
    }
}

} // namespace
} // namespace velnora
