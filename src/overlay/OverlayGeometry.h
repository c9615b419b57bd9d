#pragma once

#include <QList>
#include <QPoint>
#include <QRect>
#include <QSize>
#include <optional>

namespace velnora {

// One monitor: its whole frame and the part panels leave free, in global logical coordinates.
struct ScreenArea
{
    QRect frame;
    QRect visibleFrame;
};

// Where the card and the capsule go. Pure functions of the screen layout, so that any layout can be
// checked without the monitors it describes. The first screen of a list is the primary one.
namespace OverlayGeometry {

inline constexpr int anchorGap = 12;
inline constexpr int edgeMargin = 8;
inline constexpr int pillEdgeGap = 12;

// The screen for a rectangle: the first that intersects it, else the first of all; nullopt without screens.
std::optional<ScreenArea> screenFor(const QRect& rect, const QList<ScreenArea>& screens);
// Origin of a card of `size` next to the anchor (a 1 × 1 rectangle at `mouse` when absent): below the
// selection, above it when there is no room below, centred on it and kept 8 pixels inside the visible
// frame; the right and top clamps win on a screen too small for the card.
QPoint panelOrigin(const QSize& size, const std::optional<QRect>& anchor, const QPoint& mouse,
                   const QList<ScreenArea>& screens);
// Where the card goes when neither the pointer nor the selection can be known (Wayland): where the user
// last dragged it, kept inside its screen; else the upper middle of the screen it last stood on (the
// primary one at first). Never the screen's corner.
QPoint fixedPanelOrigin(const QSize& size, const std::optional<QPoint>& dragged,
                        const std::optional<QRect>& lastBody, const QList<ScreenArea>& screens);
// Whether the point lies in the panel band (the strip between the frame's and the visible frame's top or
// bottom edge) of the screen containing it, where the tray and its menus live.
bool isMenuBarClick(const QPoint& point, const QList<ScreenArea>& screens);
// The capsule's default place: at the right edge, vertically centred.
QPoint defaultPillOrigin(const QSize& size, const QRect& visibleFrame);
// Keeps the capsule 8 pixels inside the visible frame; the lower bound wins when the frame is too small.
QPoint pillOrigin(const QPoint& desired, const QSize& size, const QRect& visibleFrame);

// The desktop's screens as Qt reports them, the primary one first.
QList<ScreenArea> desktopScreens();

} // namespace OverlayGeometry
} // namespace velnora
