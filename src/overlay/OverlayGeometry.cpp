#include "overlay/OverlayGeometry.h"

#include <QGuiApplication>
#include <QScreen>
#include <algorithm>

namespace velnora::OverlayGeometry {

std::optional<ScreenArea> screenFor(const QRect& rect, const QList<ScreenArea>& screens)
{
    for (const ScreenArea& screen : screens) {
        if (screen.frame.intersects(rect)) {
            return screen;
        }
    }
    if (screens.isEmpty()) {
        return std::nullopt;
    }
    return screens.front();
}

QPoint panelOrigin(const QSize& size, const std::optional<QRect>& anchor, const QPoint& mouse,
                   const QList<ScreenArea>& screens)
{
    const QRect target = anchor && anchor->isValid() ? *anchor : QRect(mouse, QSize(1, 1));
    const std::optional<ScreenArea> screen = screenFor(target, screens);
    if (!screen) {
        return target.bottomLeft() + QPoint(0, anchorGap);
    }
    // Exclusive edges: QRect::bottom() and right() are one pixel short of the far edge.
    const QRect& visible = screen->visibleFrame;
    const int visibleRight = visible.x() + visible.width();
    const int visibleBottom = visible.y() + visible.height();
    const int anchorBottom = target.y() + target.height();

    int y = anchorBottom + anchorGap;
    if (y + size.height() > visibleBottom) {
        y = target.y() - size.height() - anchorGap;
    }
    int x = target.x() + target.width() / 2 - size.width() / 2;
    x = std::max(x, visible.x() + edgeMargin);
    x = std::min(x, visibleRight - size.width() - edgeMargin);
    y = std::min(y, visibleBottom - size.height() - edgeMargin);
    y = std::max(y, visible.y() + edgeMargin);
    return {x, y};
}

QPoint fixedPanelOrigin(const QSize& size, const std::optional<QPoint>& dragged,
                        const std::optional<QRect>& lastBody, const QList<ScreenArea>& screens)
{
    const QRect place = dragged ? QRect(*dragged, size) : lastBody.value_or(QRect());
    const std::optional<ScreenArea> screen = screenFor(place, screens);
    if (!screen) {
        return dragged.value_or(QPoint(edgeMargin, edgeMargin));
    }
    const QRect& visible = screen->visibleFrame;
    QPoint origin = dragged.value_or(
        QPoint(visible.x() + (visible.width() - size.width()) / 2, visible.y() + visible.height() / 6));
    const int right = visible.x() + visible.width() - size.width() - edgeMargin;
    const int bottom = visible.y() + visible.height() - size.height() - edgeMargin;
    origin.setX(std::max(std::min(origin.x(), right), visible.x() + edgeMargin));
    origin.setY(std::max(std::min(origin.y(), bottom), visible.y() + edgeMargin));
    return origin;
}

bool isMenuBarClick(const QPoint& point, const QList<ScreenArea>& screens)
{
    for (const ScreenArea& screen : screens) {
        if (!screen.frame.contains(point)) {
            continue;
        }
        const int topBand = screen.visibleFrame.y() - screen.frame.y();
        const int frameBottom = screen.frame.y() + screen.frame.height();
        const int bottomBand = frameBottom - (screen.visibleFrame.y() + screen.visibleFrame.height());
        if (topBand > 0 && point.y() < screen.frame.y() + topBand) {
            return true;
        }
        return bottomBand > 0 && point.y() >= frameBottom - bottomBand;
    }
    return false;
}

QPoint defaultPillOrigin(const QSize& size, const QRect& visibleFrame)
{
    return {visibleFrame.x() + visibleFrame.width() - size.width() - pillEdgeGap,
            visibleFrame.y() + visibleFrame.height() / 2 - size.height() / 2};
}

QPoint pillOrigin(const QPoint& desired, const QSize& size, const QRect& visibleFrame)
{
    const int minX = visibleFrame.x() + edgeMargin;
    const int maxX = std::max(minX, visibleFrame.x() + visibleFrame.width() - size.width() - edgeMargin);
    const int minY = visibleFrame.y() + edgeMargin;
    const int maxY = std::max(minY, visibleFrame.y() + visibleFrame.height() - size.height() - edgeMargin);
    return {std::clamp(desired.x(), minX, maxX), std::clamp(desired.y(), minY, maxY)};
}

QList<ScreenArea> desktopScreens()
{
    QList<ScreenArea> areas;
    QList<QScreen*> screens = QGuiApplication::screens();
    if (QScreen* primary = QGuiApplication::primaryScreen()) {
        screens.removeAll(primary);
        screens.prepend(primary);
    }
    for (QScreen* screen : screens) {
        areas.append({screen->geometry(), screen->availableGeometry()});
    }
    return areas;
}

} // namespace velnora::OverlayGeometry
