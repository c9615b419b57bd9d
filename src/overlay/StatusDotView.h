#pragma once

#include <QColor>
#include <QWidget>

namespace velnora {

// The coloured dot before the card's status text.
class StatusDotView : public QWidget
{
    Q_OBJECT
public:
    explicit StatusDotView(QWidget* parent = nullptr);

    void setColor(const QColor& colour);
    QColor color() const { return m_colour; }
    QSize sizeHint() const override { return {8, 8}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QColor m_colour;
};

} // namespace velnora
