#pragma once

#include <QColor>
#include <QLabel>

namespace velnora {

enum class Tone { info, success, warning, error };

// A line that reports the outcome of an action. It keeps its height while empty, so a result that
// comes or goes never moves the form, and picks its colours again when the theme changes.
class ResultLine : public QLabel
{
    Q_OBJECT
public:
    // reservedLines: the height kept while empty; filled: a coloured band (the window's banner).
    explicit ResultLine(QWidget* parent, int reservedLines = 1, bool filled = false);

    void showMessage(const QString& message, Tone tone);
    void clearMessage();
    Tone tone() const { return m_tone; }

    struct Colours
    {
        QColor background;
        QColor text;
    };
    static Colours colours(Tone tone, bool dark);
    static bool isDark(const QPalette& palette);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;
    // Layouts size a wrapped line by this: never less than the reserved lines.
    int heightForWidth(int width) const override;

protected:
    void changeEvent(QEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    QSize fitted(QSize size) const;
    void applyTone();

    int m_reservedLines;
    bool m_filled;
    bool m_laidOut = false;
    bool m_applying = false;
    Tone m_tone = Tone::info;
};

} // namespace velnora
