#include "app/ProductIcon.h"

#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>

namespace velnora::ProductIcon {

QPixmap mark(int size, qreal devicePixelRatio)
{
    QPixmap pixmap(QSize(size, size) * devicePixelRatio);
    pixmap.setDevicePixelRatio(devicePixelRatio);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    QLinearGradient gradient(0, 0, size, size);
    gradient.setColorAt(0, QColor(0x2f, 0x80, 0xed));
    gradient.setColorAt(1, QColor(0x1b, 0x4f, 0xa8));
    QPainterPath shape;
    shape.addRoundedRect(QRectF(0, 0, size, size), size * 0.22, size * 0.22);
    painter.fillPath(shape, gradient);
    QFont font = painter.font();
    font.setPixelSize(size * 6 / 10);
    font.setBold(true);
    painter.setFont(font);
    painter.setPen(Qt::white);
    painter.drawText(QRectF(0, 0, size, size), Qt::AlignCenter, QStringLiteral("澜"));
    return pixmap;
}

QIcon windowIcon()
{
    QIcon themed = QIcon::fromTheme(QStringLiteral("velnora"));
    if (!themed.isNull()) {
        return themed;
    }
    QIcon drawn;
    for (const int size : {16, 24, 32, 48, 64, 128}) {
        drawn.addPixmap(mark(size, 1.0));
    }
    return drawn;
}

} // namespace velnora::ProductIcon
