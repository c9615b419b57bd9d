#include "overlay/PillPanel.h"

#include "overlay/ToolbarButton.h"
#include "overlay/WindowChrome.h"

#include <QFontMetricsF>
#include <QLinearGradient>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

#include <cmath>

namespace velnora {

namespace {

constexpr int shadowSize = 10;
constexpr int leftPadding = 12;
constexpr int markSize = 24;
constexpr int gap = 8;
constexpr int closeSize = 22;
// Left padding, mark, the gaps around the title and the right padding: 60 in all.
constexpr int chromeWidth = leftPadding + markSize + gap + gap + 8;

void paintMark(QPainter& painter, const QRectF& box)
{
    // Two ripples across a round mirror: the product's mark.
    QLinearGradient gradient(box.topLeft(), box.bottomRight());
    gradient.setColorAt(0, QColor(0x3d, 0xd6, 0xd0));
    gradient.setColorAt(1, QColor(0x2f, 0x6b, 0xff));
    painter.setPen(Qt::NoPen);
    painter.setBrush(gradient);
    painter.drawEllipse(box);

    const qreal s = box.width();
    painter.setBrush(Qt::NoBrush);
    for (const auto& [y, alpha] : {std::pair{0.42, 255}, std::pair{0.62, 190}}) {
        QPainterPath wave;
        wave.moveTo(box.left() + s * 0.22, box.top() + s * y);
        wave.cubicTo(box.left() + s * 0.38, box.top() + s * (y - 0.12), box.left() + s * 0.5,
                     box.top() + s * (y + 0.12), box.left() + s * 0.78, box.top() + s * (y - 0.02));
        painter.setPen(QPen(QColor(255, 255, 255, alpha), s * 0.085, Qt::SolidLine, Qt::RoundCap));
        painter.drawPath(wave);
    }
}

} // namespace

PillPanel::PillPanel(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("pillPanel"));
    m_shadow = WindowChrome::prepare(*this, shadowSize);
    setWindowTitle(title());
    setToolTip(QStringLiteral("点按恢复解释卡片，拖动可以移动位置。"));
    setAccessibleName(QStringLiteral("澜镜。点按恢复解释卡片，拖动可以移动位置。"));
    setCursor(Qt::PointingHandCursor);
    m_colours = SemanticColors::current();

    m_close = new ToolbarButton(ToolbarButton::Symbol::close, this);
    m_close->setFixedSize(closeSize, closeSize);
    m_close->setToolTip(QStringLiteral("关闭解释卡片"));
    m_close->setAccessibleName(QStringLiteral("关闭解释卡片"));
    connect(m_close, &QAbstractButton::clicked, this, &PillPanel::closeRequested);

    const int width = int(std::ceil(QFontMetricsF(titleFont()).horizontalAdvance(title()))) + chromeWidth + closeSize;
    setFixedSize(QSize(width, capsuleHeight).grownBy(m_shadow));
    m_close->move(m_shadow.left() + width - 8 - closeSize, m_shadow.top() + (capsuleHeight - closeSize) / 2);
    setColors(m_colours);
}

QFont PillPanel::titleFont() const
{
    return OverlayStyle::uiFont(15, QFont::DemiBold);
}

QRectF PillPanel::localBody() const
{
    return QRectF(rect().marginsRemoved(m_shadow));
}

QRect PillPanel::bodyGeometry() const
{
    return QRect(geometry().topLeft() + QPoint(m_shadow.left(), m_shadow.top()), bodySize());
}

QSize PillPanel::bodySize() const
{
    return size().shrunkBy(m_shadow);
}

void PillPanel::moveBodyTo(const QPoint& origin)
{
    move(origin - QPoint(m_shadow.left(), m_shadow.top()));
}

void PillPanel::setColors(const SemanticColors& colours)
{
    m_colours = colours;
    QColor hover = colours.label;
    hover.setAlphaF(0.08);
    m_close->setColors(colours.secondaryLabel, colours.accent, hover);
    update();
}

void PillPanel::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    const QRectF body = localBody();
    WindowChrome::paintBody(painter, body, cornerRadius, shadowSize, 1, m_colours.background, m_colours.separator,
                            m_colours.dark);
    paintMark(painter, QRectF(body.left() + leftPadding, body.center().y() - markSize / 2.0, markSize, markSize));
    painter.setPen(m_colours.label);
    painter.setFont(titleFont());
    const QRectF text(body.left() + leftPadding + markSize + gap, body.top(),
                      body.width() - chromeWidth - closeSize + gap, body.height());
    painter.drawText(text, Qt::AlignVCenter | Qt::AlignLeft, title());
}

void PillPanel::resizeEvent(QResizeEvent* event)
{
    WindowChrome::updateMask(*this, localBody(), cornerRadius);
    QWidget::resizeEvent(event);
}

void PillPanel::mousePressEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton) {
        return QWidget::mousePressEvent(event);
    }
    m_pressGlobal = event->globalPosition().toPoint();
    m_pressOrigin = pos();
    m_dragging = false;
}

void PillPanel::mouseMoveEvent(QMouseEvent* event)
{
    if (!m_pressGlobal || !(event->buttons() & Qt::LeftButton)) {
        return;
    }
    const QPoint delta = event->globalPosition().toPoint() - *m_pressGlobal;
    if (!m_dragging && (std::abs(delta.x()) >= dragThreshold || std::abs(delta.y()) >= dragThreshold)) {
        m_dragging = true;
    }
    if (m_dragging) {
        move(m_pressOrigin + delta);
    }
}

void PillPanel::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton || !m_pressGlobal) {
        return QWidget::mouseReleaseEvent(event);
    }
    m_pressGlobal.reset();
    if (m_dragging) {
        m_dragging = false;
        Q_EMIT dragFinished(bodyGeometry().topLeft());
    } else {
        Q_EMIT clicked();
    }
}

} // namespace velnora
