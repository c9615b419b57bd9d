#include "overlay/StatusDotView.h"

#include <QPainter>

namespace velnora {

StatusDotView::StatusDotView(QWidget* parent) : QWidget(parent)
{
    setFixedSize(sizeHint());
    setAttribute(Qt::WA_TranslucentBackground);
}

void StatusDotView::setColor(const QColor& colour)
{
    if (colour != m_colour) {
        m_colour = colour;
        update();
    }
}

void StatusDotView::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(m_colour);
    painter.drawEllipse(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5));
}

} // namespace velnora
