#pragma once

#include <QRect>
#include <QRectF>
#include <optional>
#include <vector>

namespace velnora::ScreenMapping {

struct ScreenArea
{
    QRect logicalGeometry; // QScreen::geometry()
    qreal devicePixelRatio = 1.0;
};

// The screens of the running application, in Qt's order; empty without a GUI application.
std::vector<ScreenArea> currentScreens();

// Converts a rectangle in X screen pixels to Qt's logical global coordinates, using the screen that holds
// its midpoint. Qt keeps each screen's origin in device pixels and scales only its extent, so positions
// inside a screen are divided by that screen's ratio. None when no screen holds the midpoint.
std::optional<QRectF> logicalRect(const QRectF& deviceRect, const std::vector<ScreenArea>& screens);

} // namespace velnora::ScreenMapping
