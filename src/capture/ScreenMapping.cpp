#include "capture/ScreenMapping.h"

#include <QGuiApplication>
#include <QScreen>
#include <cmath>

namespace velnora::ScreenMapping {

std::vector<ScreenArea> currentScreens()
{
    std::vector<ScreenArea> areas;
    if (!qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        return areas;
    }
    for (const QScreen* screen : QGuiApplication::screens()) {
        areas.push_back({screen->geometry(), screen->devicePixelRatio()});
    }
    return areas;
}

std::optional<QRectF> logicalRect(const QRectF& deviceRect, const std::vector<ScreenArea>& screens)
{
    if (!deviceRect.isValid() || !std::isfinite(deviceRect.x()) || !std::isfinite(deviceRect.y()) ||
        !std::isfinite(deviceRect.width()) || !std::isfinite(deviceRect.height())) {
        return std::nullopt;
    }
    const QPointF middle = deviceRect.center();
    for (const ScreenArea& screen : screens) {
        const qreal ratio = screen.devicePixelRatio > 0 ? screen.devicePixelRatio : 1.0;
        const QPointF origin = screen.logicalGeometry.topLeft();
        const QRectF device(
            origin, QSizeF(screen.logicalGeometry.width() * ratio, screen.logicalGeometry.height() * ratio));
        if (!device.contains(middle)) {
            continue;
        }
        return QRectF(origin + (deviceRect.topLeft() - origin) / ratio, deviceRect.size() / ratio);
    }
    return std::nullopt;
}

} // namespace velnora::ScreenMapping
