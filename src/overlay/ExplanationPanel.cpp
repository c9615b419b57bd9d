#include "overlay/ExplanationPanel.h"

#include "overlay/WindowChrome.h"

#include <QKeyEvent>
#include <QPainter>
#include <QWindow>

namespace velnora {

namespace {
constexpr int shadowSize = 14;
}

ExplanationPanel::ExplanationPanel()
{
    setObjectName(QStringLiteral("explanationPanel"));
    m_shadow = WindowChrome::prepare(*this, shadowSize);
    setWindowTitle(QStringLiteral("澜镜"));
    setAccessibleName(QStringLiteral("澜镜解释卡片"));
    const QSize margins(m_shadow.left() + m_shadow.right(), m_shadow.top() + m_shadow.bottom());
    setMinimumSize(minimumContentSize + margins);
    resize(contentSize + margins);
    m_colours = SemanticColors::current();
}

QRectF ExplanationPanel::localBody() const
{
    return QRectF(rect().marginsRemoved(m_shadow));
}

QRect ExplanationPanel::bodyGeometry() const
{
    return QRect(geometry().topLeft() + QPoint(m_shadow.left(), m_shadow.top()), bodySize());
}

QSize ExplanationPanel::bodySize() const
{
    return size().shrunkBy(m_shadow);
}

void ExplanationPanel::moveBodyTo(const QPoint& origin)
{
    move(origin - QPoint(m_shadow.left(), m_shadow.top()));
}

void ExplanationPanel::setColors(const SemanticColors& colours)
{
    m_colours = colours;
    update();
}

bool ExplanationPanel::event(QEvent* event)
{
    if (event->type() == QEvent::ApplicationPaletteChange) {
        Q_EMIT applicationPaletteChanged();
    }
    return QWidget::event(event);
}

void ExplanationPanel::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    WindowChrome::paintBody(painter, localBody(), cornerRadius, shadowSize, 3, m_colours.background,
                            m_colours.separator, m_colours.dark);
}

void ExplanationPanel::resizeEvent(QResizeEvent* event)
{
    WindowChrome::updateMask(*this, localBody(), cornerRadius);
    QWidget::resizeEvent(event);
}

void ExplanationPanel::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape) {
        close();
        return;
    }
    QWidget::keyPressEvent(event);
}

void ExplanationPanel::closeEvent(QCloseEvent* event)
{
    QWidget::closeEvent(event);
    Q_EMIT closed();
}

void ExplanationPanel::mousePressEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton) {
        return QWidget::mousePressEvent(event);
    }
    // Let the window manager move it where there is one; otherwise follow the pointer ourselves.
    if (windowHandle() && windowHandle()->startSystemMove()) {
        return;
    }
    m_dragOffset = event->globalPosition().toPoint() - pos();
    m_pressPosition = pos();
}

void ExplanationPanel::mouseMoveEvent(QMouseEvent* event)
{
    if (m_dragOffset && (event->buttons() & Qt::LeftButton)) {
        move(event->globalPosition().toPoint() - *m_dragOffset);
    }
}

void ExplanationPanel::mouseReleaseEvent(QMouseEvent*)
{
    if (m_dragOffset && pos() != m_pressPosition) {
        Q_EMIT dragged(bodyGeometry().topLeft());
    }
    m_dragOffset.reset();
}

} // namespace velnora
