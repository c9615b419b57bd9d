#include "app/settings/ResultLine.h"

#include <QEvent>
#include <QResizeEvent>
#include <QStringList>

namespace velnora {

namespace {
// Until a page has been laid out (a tab not shown yet) it is about as wide as the form's field column.
constexpr int assumedWidth = 470;
} // namespace

ResultLine::ResultLine(QWidget* parent, int reservedLines, bool filled)
    : QLabel(parent), m_reservedLines(reservedLines), m_filled(filled)
{
    setWordWrap(true);
    setTextFormat(Qt::PlainText);
    setTextInteractionFlags(Qt::TextSelectableByMouse);
    if (m_filled) {
        setMargin(10);
        setAutoFillBackground(true);
    }
    applyTone();
}

bool ResultLine::isDark(const QPalette& palette)
{
    return palette.color(QPalette::Window).lightness() < 128;
}

ResultLine::Colours ResultLine::colours(Tone tone, bool dark)
{
    switch (tone) {
    case Tone::success:
        return dark ? Colours{QColor(0x1e, 0x3a, 0x29), QColor(0x81, 0xc9, 0x95)}
                    : Colours{QColor(0xe6, 0xf4, 0xea), QColor(0x13, 0x73, 0x33)};
    case Tone::warning:
        return dark ? Colours{QColor(0x3d, 0x32, 0x14), QColor(0xfd, 0xd6, 0x63)}
                    : Colours{QColor(0xfe, 0xf7, 0xe0), QColor(0x8a, 0x5a, 0x00)};
    case Tone::error:
        return dark ? Colours{QColor(0x4a, 0x20, 0x20), QColor(0xf2, 0x8b, 0x82)}
                    : Colours{QColor(0xfc, 0xe8, 0xe6), QColor(0xa5, 0x0e, 0x0e)};
    case Tone::info:
        break;
    }
    return dark ? Colours{QColor(0x1f, 0x33, 0x54), QColor(0xae, 0xcb, 0xfa)}
                : Colours{QColor(0xe8, 0xf0, 0xfe), QColor(0x17, 0x4e, 0xa6)};
}

void ResultLine::showMessage(const QString& message, Tone tone)
{
    m_tone = tone;
    setText(message);
    applyTone();
    if (m_filled) {
        show();
    }
}

void ResultLine::clearMessage()
{
    clear();
    if (m_filled) {
        hide();
    }
}

void ResultLine::applyTone()
{
    // Setting a palette sends a palette change of its own.
    m_applying = true;
    const Colours tones = colours(m_tone, isDark(parentWidget() ? parentWidget()->palette() : palette()));
    QPalette own; // only the roles set here; the rest follows the window's theme
    if (m_filled) {
        own.setColor(QPalette::Window, tones.background);
        own.setColor(QPalette::WindowText, tones.text);
    } else if (m_tone != Tone::info) {
        own.setColor(QPalette::WindowText, tones.text);
    }
    setPalette(own);
    m_applying = false;
}

void ResultLine::changeEvent(QEvent* event)
{
    QLabel::changeEvent(event);
    if (event->type() == QEvent::PaletteChange && !m_applying) {
        applyTone();
    }
}

void ResultLine::resizeEvent(QResizeEvent* event)
{
    QLabel::resizeEvent(event);
    m_laidOut = true;
    if (event->oldSize().width() != width()) {
        // Asked during the layout pass that resized us, the layout would drop the request.
        QMetaObject::invokeMethod(this, &ResultLine::updateGeometry, Qt::QueuedConnection);
    }
}

int ResultLine::heightForWidth(int width) const
{
    // Measured on Chinese text: its fallback font may be taller than the Latin font's line spacing.
    const QString sample = QStringList(m_reservedLines, QStringLiteral("澜Ag")).join(u'\n');
    const int reserved =
        fontMetrics().boundingRect(QRect(0, 0, 10000, 10000), Qt::TextWordWrap, sample).height() +
        2 * margin();
    return std::max(reserved, text().isEmpty() ? 0 : QLabel::heightForWidth(width));
}

QSize ResultLine::fitted(QSize size) const
{
    size.setHeight(heightForWidth(m_laidOut ? width() : assumedWidth));
    return size;
}

QSize ResultLine::sizeHint() const
{
    return fitted(QLabel::sizeHint());
}

QSize ResultLine::minimumSizeHint() const
{
    return fitted(QLabel::minimumSizeHint());
}

} // namespace velnora
