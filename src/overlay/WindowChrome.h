#pragma once

#include <QColor>
#include <QMargins>
#include <QRectF>

class QPainter;
class QWidget;

namespace velnora {

// The look shared by the card and the capsule: rounded translucent windows with a shadow drawn by us,
// where the desktop composites windows; plain rounded shapes where it does not (a translucent window
// without a compositor shows black corners).
namespace WindowChrome {

// True on a compositing X11 desktop, on Wayland and when rendering offscreen.
bool translucencyAvailable();
// Prepares a frameless top-level window and returns the margin left around its body for the shadow.
QMargins prepare(QWidget& window, int shadowSize);
// Fits the window's shape to its body when there is no translucency.
void updateMask(QWidget& window, const QRectF& body, qreal radius);
// A soft shadow around `body`, `offsetY` pixels down, then the body with a hairline border.
void paintBody(QPainter& painter, const QRectF& body, qreal radius, int shadowSize, qreal offsetY,
               const QColor& fill, const QColor& border, bool dark);

} // namespace WindowChrome
} // namespace velnora
