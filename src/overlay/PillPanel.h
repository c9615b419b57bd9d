#pragma once

#include "overlay/OverlayStyle.h"

#include <QMargins>
#include <QPoint>
#include <QWidget>

#include <optional>

namespace velnora {

class ToolbarButton;

// The capsule the card collapses into: the product mark, "澜镜" and a close control. A click restores
// the card; a press moved by 3 pixels or more drags the capsule instead.
class PillPanel : public QWidget
{
    Q_OBJECT
public:
    static constexpr int capsuleHeight = 50;
    static constexpr int dragThreshold = 3;
    static constexpr qreal cornerRadius = 15;

    explicit PillPanel(QWidget* parent = nullptr);

    // The capsule in global coordinates, without the shadow around it.
    QRect bodyGeometry() const;
    QSize bodySize() const;
    void moveBodyTo(const QPoint& origin);
    void setColors(const SemanticColors& colours);
    ToolbarButton* closeControl() const { return m_close; }

    static QString title() { return QStringLiteral("澜镜"); }

Q_SIGNALS:
    void clicked();
    void closeRequested();
    // The capsule's body origin after a drag.
    void dragFinished(const QPoint& origin);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    QRectF localBody() const;
    QFont titleFont() const;

    QMargins m_shadow;
    SemanticColors m_colours;
    ToolbarButton* m_close = nullptr;
    std::optional<QPoint> m_pressGlobal;
    QPoint m_pressOrigin;
    bool m_dragging = false;
};

} // namespace velnora
