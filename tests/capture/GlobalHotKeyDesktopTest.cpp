// The hot key against the real X server: xdotool presses it, another client competes for it.
#include "CaptureDesktopSupport.h"
#include "capture/GlobalHotKey.h"

#include <gtest/gtest.h>

namespace velnora {
namespace {

using namespace test;

const QString xdotool = QStringLiteral("xdotool");
const HotKeyChoice& ctrlAltE = HotKeyChoice::choice(QStringLiteral("option-command-e"));
const HotKeyChoice& ctrlSuperE = HotKeyChoice::choice(QStringLiteral("control-command-e"));

bool press(const char* keys)
{
    return runTool(xdotool, {"key", QString::fromLatin1(keys)}).has_value();
}

// Waits for the expected count, then a little longer so that an extra firing would show.
int firingsAfter(const int& counter, int expected)
{
    spinUntil([&] { return counter >= expected; }, 3000);
    spinFor(200);
    return counter;
}

bool otherClientCanGrabCtrlAltE()
{
    TestClient grabber({"grab"});
    return grabber.readyLine() == QStringLiteral("grabbed");
}

class GlobalHotKeyDesktopTest : public testing::Test
{
protected:
    void SetUp() override { ASSERT_FALSE(qEnvironmentVariableIsEmpty("DISPLAY")); }
    void TearDown() override
    {
        if (X11TestTools::numLockOn()) {
            press("Num_Lock");
        }
    }
};

TEST_F(GlobalHotKeyDesktopTest, PressFiresTheActionOnceAlsoWithNumLockOn)
{
    GlobalHotKey hotKey;
    int fired = 0;
    ASSERT_TRUE(hotKey.registerChoice(ctrlAltE, [&] { ++fired; }));

    ASSERT_TRUE(press("ctrl+alt+e"));
    EXPECT_EQ(firingsAfter(fired, 1), 1);

    ASSERT_TRUE(press("Num_Lock"));
    ASSERT_TRUE(spinUntil([] { return X11TestTools::numLockOn(); }, 2000)) << "NumLock did not latch";
    ASSERT_TRUE(press("ctrl+alt+e"));
    EXPECT_EQ(firingsAfter(fired, 2), 2);

    // Other combinations with the same letter are not ours.
    ASSERT_TRUE(press("ctrl+e"));
    ASSERT_TRUE(press("alt+e"));
    EXPECT_EQ(firingsAfter(fired, 3), 2);
}

TEST_F(GlobalHotKeyDesktopTest, CombinationHeldByAnotherClientIsReportedTaken)
{
    {
        TestClient grabber({"grab"});
        ASSERT_EQ(grabber.readyLine(), QStringLiteral("grabbed"));
        GlobalHotKey hotKey;
        int fired = 0;
        EXPECT_FALSE(hotKey.registerChoice(ctrlAltE, [&] { ++fired; }));
        // The same object can still take a free combination afterwards.
        EXPECT_TRUE(hotKey.registerChoice(ctrlSuperE, [&] { ++fired; }));
    }
    GlobalHotKey hotKey;
    EXPECT_TRUE(hotKey.registerChoice(ctrlAltE, [] {}));
}

TEST_F(GlobalHotKeyDesktopTest, ReRegisteringReplacesAndDestructionReleases)
{
    int first = 0;
    int second = 0;
    {
        GlobalHotKey hotKey;
        ASSERT_TRUE(hotKey.registerChoice(ctrlAltE, [&] { ++first; }));
        ASSERT_TRUE(hotKey.registerChoice(ctrlAltE, [&] { ++second; }));
        ASSERT_TRUE(press("ctrl+alt+e"));
        EXPECT_EQ(firingsAfter(second, 1), 1);
        EXPECT_EQ(first, 0);

        ASSERT_TRUE(hotKey.registerChoice(ctrlSuperE, [&] { ++second; }));
        EXPECT_TRUE(otherClientCanGrabCtrlAltE()) << "the earlier combination is still grabbed";
        ASSERT_TRUE(press("ctrl+super+e"));
        EXPECT_EQ(firingsAfter(second, 2), 2);

        ASSERT_TRUE(hotKey.registerChoice(ctrlAltE, [&] { ++second; }));
        EXPECT_FALSE(otherClientCanGrabCtrlAltE());
    }
    EXPECT_TRUE(otherClientCanGrabCtrlAltE()) << "destruction left the grab behind";
}

} // namespace
} // namespace velnora
