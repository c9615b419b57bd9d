#include "overlay/WindowChrome.h"

#include <QGuiApplication>
#include <QtGui/qguiapplication_platform.h>
#include <QPainter>
#include <QPainterPath>
#include <QRegion>
#include <QWidget>

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>

namespace velnora::WindowChrome {

namespace {

bool x11HasCompositor()
{
    auto* x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    xcb_connection_t* connection = x11 ? x11->connection() : nullptr;
    if (!connection) {
        return false;
    }
    // A compositing manager owns _NET_WM_CM_S<screen>.
    const QByteArray name = "_NET_WM_CM_S0";
    std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> atom(
        xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 1, name.size(), name.constData()), nullptr),
        &std::free);
    if (!atom || atom->atom == XCB_NONE) {
        return false;
    }
    std::unique_ptr<xcb_get_selection_owner_reply_t, decltype(&std::free)> owner(
        xcb_get_selection_owner_reply(connection, xcb_get_selection_owner(connection, atom->atom), nullptr),
        &std::free);
    return owner && owner->owner != XCB_NONE;
}

} // namespace

bool translucencyAvailable()
{
    if (QGuiApplication::platformName() == u"xcb") {
        static const bool compositing = x11HasCompositor();
        return compositing;
    }
    return true;
}

QMargins prepare(QWidget& window, int shadowSize)
{
    window.setWindowFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    window.setAttribute(Qt::WA_ShowWithoutActivating);
    if (!translucencyAvailable()) {
        return {};
    }
    window.setAttribute(Qt::WA_TranslucentBackground);
    return {shadowSize, shadowSize, shadowSize, shadowSize};
}

void updateMask(QWidget& window, const QRectF& body, qreal radius)
{
    if (translucencyAvailable()) {
        return;
    }
    QPainterPath path;
    path.addRoundedRect(body, radius, radius);
    window.setMask(QRegion(path.toFillPolygon().toPolygon()));
}

void paintBody(QPainter& painter, const QRectF& body, qreal radius, int shadowSize, qreal offsetY,
               const QColor& fill, const QColor& border, bool dark)
{
    painter.setRenderHint(QPainter::Antialiasing);
    if (shadowSize > 0 && translucencyAvailable()) {
        // Stacked rounded rectangles with falling opacity: a cheap blur that needs no offscreen pass.
        const qreal strongest = dark ? 0.30 : 0.11;
        painter.setPen(Qt::NoPen);
        for (int step = shadowSize; step >= 1; --step) {
            const qreal fade = 1.0 - qreal(step) / (shadowSize + 1);
            QColor shade(0, 0, 0);
            shade.setAlphaF(strongest * fade * fade / 2.2);
            painter.setBrush(shade);
            const QRectF grown = body.adjusted(-step, -step + offsetY, step, step + offsetY);
            painter.drawRoundedRect(grown, radius + step, radius + step);
        }
    }
    painter.setBrush(fill);
    painter.setPen(QPen(border, 1));
    painter.drawRoundedRect(body.adjusted(0.5, 0.5, -0.5, -0.5), radius, radius);
}

} // namespace velnora::WindowChrome
