#include "overlay/OverlayGeometry.h"

#include <gtest/gtest.h>

namespace velnora {
namespace {

using namespace OverlayGeometry;

// A laptop below-left of a larger monitor, each with its own panels.
const QList<ScreenArea> twoScreens{
    {QRect(0, 0, 1280, 800), QRect(0, 32, 1280, 768)},              // top panel
    {QRect(1280, -200, 1920, 1080), QRect(1280, -200, 1920, 1040)}, // bottom panel
};

TEST(OverlayGeometryTest, CardOpensBesideTheSelectionAndStaysOnItsScreen)
{
    const QSize card(460, 400);
    const struct
    {
        std::optional<QRect> anchor;
        QPoint mouse;
        QPoint origin;
    } cases[]{
        {QRect(500, 100, 100, 18), {}, {550 - 230, 130}},            // below, centred
        {QRect(500, 600, 100, 18), {}, {550 - 230, 600 - 12 - 400}}, // near the bottom: above
        {QRect(1260, 100, 15, 18), {}, {1280 - 460 - 8, 130}},       // near an edge: pulled in
        {QRect(2, 100, 15, 18), {}, {8, 130}},
        {QRect(3190, 0, 5, 18), {}, {3200 - 460 - 8, 30}},    // the second monitor's edge
        {QRect(-5000, 5000, 10, 10), {}, {8, 800 - 400 - 8}}, // on no screen: the primary
        {std::nullopt, {2500, 0}, {2500 - 230, 13}},          // no selection: the pointer
        {QRect(), {2500, 0}, {2500 - 230, 13}},
    };
    for (const auto& [anchor, mouse, origin] : cases) {
        EXPECT_EQ(panelOrigin(card, anchor, mouse, twoScreens), origin) << origin.x() << "," << origin.y();
    }
    // Screens smaller than what they hold: the right and top clamps win.
    const QList<ScreenArea> tiny{{QRect(0, 0, 300, 200), QRect(0, 20, 300, 180)}};
    EXPECT_EQ(panelOrigin(card, QRect(100, 100, 10, 10), {}, tiny), QPoint(300 - 460 - 8, 28));
    EXPECT_EQ(pillOrigin(QPoint(500, 500), QSize(120, 50), QRect(0, 0, 100, 40)), QPoint(8, 8));
}

TEST(OverlayGeometryTest, WithoutPointerTheCardKeepsAFixedPlace)
{
    const QSize card(460, 400);
    const struct
    {
        std::optional<QPoint> dragged;
        std::optional<QRect> lastBody;
        QPoint origin;
    } cases[]{
        {{}, {}, {(1280 - 460) / 2, 32 + 768 / 6}}, // first time: the primary's upper middle
        {{},
         QRect(2000, 100, 460, 400),
         {1280 + (1920 - 460) / 2, -200 + 1040 / 6}},               // the screen it stood on
        {QPoint(300, 300), QRect(2000, 100, 460, 400), {300, 300}}, // where the user dragged it
        {QPoint(1100, 700), {}, {1280 - 460 - 8, 800 - 400 - 8}},   // dragged half off: pulled in
        {QPoint(-9000, -9000), {}, {8, 32 + 8}},                    // dragged off every screen
    };
    for (const auto& [dragged, lastBody, origin] : cases) {
        EXPECT_EQ(fixedPanelOrigin(card, dragged, lastBody, twoScreens), origin)
            << origin.x() << "," << origin.y();
    }
}

} // namespace
} // namespace velnora
