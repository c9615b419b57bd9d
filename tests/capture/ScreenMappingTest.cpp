#include "capture/ScreenMapping.h"

#include <gtest/gtest.h>

#include <limits>

namespace velnora {
namespace {

using ScreenMapping::logicalRect;
using ScreenMapping::ScreenArea;

// A 2x laptop panel at the origin and a 1x monitor to its right. Qt keeps each screen's origin in
// device pixels, so the monitor starts at x = 2560 in logical coordinates too.
const std::vector<ScreenArea> mixedScreens{{QRect(0, 0, 1280, 800), 2.0}, {QRect(2560, 0, 1920, 1080), 1.0}};

TEST(ScreenMappingTest, ScalesPositionsWithinTheScreenHoldingTheMidpoint)
{
    EXPECT_EQ(logicalRect(QRectF(200, 100, 80, 40), mixedScreens), QRectF(100, 50, 40, 20));
    EXPECT_EQ(logicalRect(QRectF(2600, 300, 90, 20), mixedScreens), QRectF(2600, 300, 90, 20));
    // Straddling the border: the midpoint (2570) decides, and it lies on the monitor.
    EXPECT_EQ(logicalRect(QRectF(2500, 10, 140, 20), mixedScreens), QRectF(2500, 10, 140, 20));
}

TEST(ScreenMappingTest, ScreenWithItsOwnOriginKeepsThatOrigin)
{
    const std::vector<ScreenArea> shifted{{QRect(1000, 500, 800, 600), 1.5}};
    EXPECT_EQ(logicalRect(QRectF(1300, 800, 30, 15), shifted), QRectF(1200, 700, 20, 10));
}

TEST(ScreenMappingTest, NoScreenOrNonsenseGivesNoRectangle)
{
    EXPECT_FALSE(logicalRect(QRectF(5000, 5000, 10, 10), mixedScreens));
    EXPECT_FALSE(logicalRect(QRectF(-50, -50, 10, 10), mixedScreens));
    EXPECT_FALSE(logicalRect(QRectF(10, 10, 10, 10), {}));
    const qreal infinity = std::numeric_limits<qreal>::infinity();
    EXPECT_FALSE(logicalRect(QRectF(infinity, 10, 10, 10), mixedScreens));
    EXPECT_FALSE(logicalRect(QRectF(10, 10, 0, 0), mixedScreens));
}

} // namespace
} // namespace velnora
