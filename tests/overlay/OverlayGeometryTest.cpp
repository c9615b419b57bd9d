#include "overlay/OverlayGeometry.h"

#include <gtest/gtest.h>

namespace velnora {
namespace {

using namespace OverlayGeometry;

const QSize card(460, 400);

// A laptop below-left of a larger monitor, each with its own panels.
const QList<ScreenArea> twoScreens{
    {QRect(0, 0, 1280, 800), QRect(0, 32, 1280, 768)},      // top panel
    {QRect(1280, -200, 1920, 1080), QRect(1280, -200, 1920, 1040)}, // bottom panel
};

TEST(OverlayGeometryTest, CardGoesBelowTheSelectionCentredOnIt)
{
    EXPECT_EQ(panelOrigin(card, QRect(500, 100, 100, 18), {}, twoScreens), QPoint(550 - 230, 130));
}

TEST(OverlayGeometryTest, NearTheBottomEdgeTheCardOpensAboveTheSelection)
{
    const QRect anchor(500, 600, 100, 18);
    const QPoint origin = panelOrigin(card, anchor, {}, twoScreens);
    EXPECT_EQ(origin.y(), 600 - 12 - 400);
    EXPECT_LE(origin.y() + card.height(), anchor.top());
}

TEST(OverlayGeometryTest, NearTheRightEdgeTheCardIsPulledInWithAnEightPixelMargin)
{
    EXPECT_EQ(panelOrigin(card, QRect(1260, 100, 15, 18), {}, twoScreens).x(), 1280 - 460 - 8);
    EXPECT_EQ(panelOrigin(card, QRect(2, 100, 15, 18), {}, twoScreens).x(), 8);
    // On the second monitor the same rule uses that monitor's edge.
    EXPECT_EQ(panelOrigin(card, QRect(3190, 0, 5, 18), {}, twoScreens).x(), 3200 - 460 - 8);
}

TEST(OverlayGeometryTest, TheScreenIsTheOneUnderTheAnchorElseThePrimary)
{
    const QPoint onSecond = panelOrigin(card, QRect(2000, -150, 40, 18), {}, twoScreens);
    EXPECT_GE(onSecond.x(), 1280);
    EXPECT_EQ(onSecond.y(), -150 + 18 + 12);
    // Off every screen: clamped into the primary one.
    const QPoint lost = panelOrigin(card, QRect(-5000, 5000, 10, 10), {}, twoScreens);
    EXPECT_EQ(lost, QPoint(8, 800 - 400 - 8));
}

TEST(OverlayGeometryTest, WithoutAnAnchorTheMousePositionIsUsed)
{
    EXPECT_EQ(panelOrigin(card, std::nullopt, QPoint(2500, 0), twoScreens), QPoint(2500 - 230, 13));
    EXPECT_EQ(panelOrigin(card, QRect(), QPoint(2500, 0), twoScreens), QPoint(2500 - 230, 13));
}

TEST(OverlayGeometryTest, OnAScreenTooSmallTheRightAndTopClampsWin)
{
    const QList<ScreenArea> tiny{{QRect(0, 0, 300, 200), QRect(0, 20, 300, 180)}};
    EXPECT_EQ(panelOrigin(card, QRect(100, 100, 10, 10), {}, tiny), QPoint(300 - 460 - 8, 28));
}

TEST(OverlayGeometryTest, PanelBandsAtTopAndBottomCountAsMenuBarClicks)
{
    EXPECT_TRUE(isMenuBarClick(QPoint(10, 0), twoScreens));
    EXPECT_TRUE(isMenuBarClick(QPoint(1279, 31), twoScreens));
    EXPECT_FALSE(isMenuBarClick(QPoint(10, 32), twoScreens));
    EXPECT_FALSE(isMenuBarClick(QPoint(10, 799), twoScreens)); // the laptop has no bottom panel
    EXPECT_TRUE(isMenuBarClick(QPoint(2000, 870), twoScreens));
    EXPECT_FALSE(isMenuBarClick(QPoint(2000, 839), twoScreens));
    EXPECT_FALSE(isMenuBarClick(QPoint(2000, -200), twoScreens)); // no top panel there
    EXPECT_FALSE(isMenuBarClick(QPoint(-10, 5), twoScreens));     // on no screen
    EXPECT_FALSE(isMenuBarClick(QPoint(10, 5), {}));
}

TEST(OverlayGeometryTest, PillSitsAtTheRightEdgeAndIsClampedIntoTheVisibleFrame)
{
    const QSize pill(120, 50);
    const QRect visible = twoScreens[0].visibleFrame;
    EXPECT_EQ(defaultPillOrigin(pill, visible), QPoint(1280 - 120 - 12, 32 + 768 / 2 - 25));
    EXPECT_EQ(pillOrigin(QPoint(300, 300), pill, visible), QPoint(300, 300));
    EXPECT_EQ(pillOrigin(QPoint(-50, 5000), pill, visible), QPoint(8, 800 - 50 - 8));
    EXPECT_EQ(pillOrigin(QPoint(9000, -9000), pill, visible), QPoint(1280 - 120 - 8, 40));
    // A frame narrower than the capsule: the lower bounds win.
    EXPECT_EQ(pillOrigin(QPoint(500, 500), pill, QRect(0, 0, 100, 40)), QPoint(8, 8));
}

} // namespace
} // namespace velnora
