#include "overlay/ToolbarButton.h"

#include <QPainter>
#include <QPainterPath>

namespace velnora {

ToolbarButton::ToolbarButton(Symbol symbol, QWidget* parent) : QAbstractButton(parent), m_symbol(symbol)
{
    setFixedSize(sizeHint());
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::NoFocus);
    setCheckable(symbol == Symbol::pin);
}

void ToolbarButton::setColors(const QColor& symbol, const QColor& accent, const QColor& hover)
{
    m_symbolColour = symbol;
    m_accent = accent;
    m_hover = hover;
    update();
}

void ToolbarButton::enterEvent(QEnterEvent* event)
{
    m_hovered = true;
    update();
    QAbstractButton::enterEvent(event);
}

void ToolbarButton::leaveEvent(QEvent* event)
{
    m_hovered = false;
    update();
    QAbstractButton::leaveEvent(event);
}

void ToolbarButton::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    if (m_hovered || isDown()) {
        painter.setPen(Qt::NoPen);
        painter.setBrush(m_hover);
        painter.drawRoundedRect(QRectF(rect()).adjusted(1, 1, -1, -1), 6, 6);
    }
    const QColor ink = isChecked() ? m_accent : m_symbolColour;
    QPen pen(ink, 1.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    painter.setPen(pen);
    painter.setBrush(Qt::NoBrush);
    painter.translate(width() / 2.0, height() / 2.0);

    switch (m_symbol) {
    case Symbol::pin: {
        // A push pin leaning to the right: head, collar and needle.
        painter.rotate(40);
        QPainterPath head;
        head.addRoundedRect(QRectF(-3.2, -7, 6.4, 6.5), 1.6, 1.6);
        painter.setBrush(isChecked() ? QBrush(ink) : Qt::NoBrush);
        painter.drawPath(head);
        painter.drawLine(QPointF(-5.2, -0.5), QPointF(5.2, -0.5));
        painter.drawLine(QPointF(0, -0.5), QPointF(0, 7));
        break;
    }
    case Symbol::copy:
        painter.drawRoundedRect(QRectF(-3.5, -2.5, 8, 9), 1.8, 1.8);
        painter.drawPath([] {
            QPainterPath back;
            back.moveTo(-5.5, 3.5);
            back.lineTo(-5.5, -5.2);
            back.quadTo(-5.5, -6.5, -4.2, -6.5);
            back.lineTo(2.5, -6.5);
            return back;
        }());
        break;
    case Symbol::close:
        painter.drawLine(QPointF(-4.2, -4.2), QPointF(4.2, 4.2));
        painter.drawLine(QPointF(-4.2, 4.2), QPointF(4.2, -4.2));
        break;
    }
}

} // namespace velnora
