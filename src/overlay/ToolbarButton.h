#pragma once

#include <QAbstractButton>
#include <QColor>

namespace velnora {

// A small square button in the card's header with a drawn symbol.
class ToolbarButton : public QAbstractButton
{
    Q_OBJECT
public:
    enum class Symbol { pin, copy, close };

    ToolbarButton(Symbol symbol, QWidget* parent = nullptr);

    Symbol symbol() const { return m_symbol; }
    // The symbol's colour; the pin takes the accent when checked.
    void setColors(const QColor& symbol, const QColor& accent, const QColor& hover);
    QSize sizeHint() const override { return {26, 26}; }

protected:
    void paintEvent(QPaintEvent* event) override;
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    Symbol m_symbol;
    QColor m_symbolColour{0x60, 0x60, 0x66};
    QColor m_accent{0x00, 0x7a, 0xff};
    QColor m_hover{0, 0, 0, 20};
    bool m_hovered = false;
};

} // namespace velnora
