#pragma once

#include "overlay/OverlayStyle.h"

#include <QMargins>
#include <QPoint>
#include <QWidget>
#include <optional>

namespace velnora {

// The card's window: frameless, on top, shown without taking the focus; rounded body with its own
// shadow; moved by dragging its background; closed by Escape.
class ExplanationPanel : public QWidget
{
    Q_OBJECT
public:
    static constexpr QSize contentSize{460, 400};
    static constexpr QSize minimumContentSize{380, 280};
    static constexpr qreal cornerRadius = 12;

    ExplanationPanel();

    QMargins shadowMargins() const { return m_shadow; }
    // The body in global coordinates, without the shadow around it.
    QRect bodyGeometry() const;
    QSize bodySize() const;
    void moveBodyTo(const QPoint& origin);
    void setColors(const SemanticColors& colours);

Q_SIGNALS:
    void closed();
    // The user let go of the card after dragging it; its body's new origin.
    void dragged(const QPoint& bodyOrigin);
    void applicationPaletteChanged();

protected:
    bool event(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    QRectF localBody() const;

    QMargins m_shadow;
    SemanticColors m_colours;
    std::optional<QPoint> m_dragOffset;
    QPoint m_pressPosition;
};

} // namespace velnora
