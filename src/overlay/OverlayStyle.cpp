#include "overlay/OverlayStyle.h"

#include <QFontDatabase>
#include <QFontInfo>
#include <QGuiApplication>

namespace velnora {

namespace {

QColor withAlpha(QColor colour, qreal alpha)
{
    colour.setAlphaF(alpha);
    return colour;
}

// Fallbacks after the system family: Simplified Chinese first, so that shared Han code points do not
// come out in their Japanese shapes.
const QStringList& cjkFamilies()
{
    static const QStringList families{
        QStringLiteral("Noto Sans CJK SC"), QStringLiteral("Source Han Sans SC"),
        QStringLiteral("WenQuanYi Micro Hei"), QStringLiteral("Droid Sans Fallback")};
    return families;
}

QColor faded(QColor colour, qreal alpha)
{
    colour.setAlphaF(colour.alphaF() * alpha);
    return colour;
}

} // namespace

SemanticColors SemanticColors::from(const QPalette& palette)
{
    SemanticColors colours;
    colours.dark = OverlayStyle::isDark(palette);
    const QColor text = palette.color(QPalette::Active, QPalette::WindowText);
    colours.label = withAlpha(text, 0.88);
    colours.secondaryLabel = withAlpha(text, 0.62);
    colours.tertiaryLabel = withAlpha(text, 0.40);
    colours.separator = withAlpha(text, colours.dark ? 0.18 : 0.14);
    if (colours.dark) {
        colours.background = QColor(0x26, 0x27, 0x2b);
        colours.controlBackground = QColor(0x1d, 0x1e, 0x22);
        colours.inlineCodeBackground = QColor::fromRgbF(1, 1, 1, 0.14);
        colours.blue = QColor(0x0a, 0x84, 0xff);
        colours.green = QColor(0x30, 0xd1, 0x58);
        colours.orange = QColor(0xff, 0x9f, 0x0a);
        colours.red = QColor(0xff, 0x45, 0x3a);
    } else {
        colours.background = QColor(0xfb, 0xfb, 0xfc);
        colours.controlBackground = QColor(0xf0, 0xf1, 0xf4);
        colours.inlineCodeBackground = QColor::fromRgbF(0, 0, 0, 0.08);
        colours.blue = QColor(0x00, 0x7a, 0xff);
        colours.green = QColor(0x28, 0xa7, 0x45);
        colours.orange = QColor(0xf0, 0x8c, 0x00);
        colours.red = QColor(0xe5, 0x39, 0x35);
    }
    // The theme's highlight is the accent; a grey one (some themes) would make links unreadable.
    const QColor highlight = palette.color(QPalette::Active, QPalette::Highlight);
    colours.accent = highlight.hsvSaturationF() > 0.25 ? highlight : colours.blue;
    const QColor link = palette.color(QPalette::Active, QPalette::Link);
    const bool linkReadable =
        link.hsvSaturationF() > 0.25 && (colours.dark ? link.lightnessF() > 0.45 : link.lightnessF() < 0.6);
    colours.link = linkReadable ? link : (colours.dark ? QColor(0x4d, 0xa3, 0xff) : QColor(0x00, 0x66, 0xd6));
    return colours;
}

QColor SemanticColors::forTone(CardStatusTone tone) const
{
    switch (tone) {
    case CardStatusTone::waiting:
        return tertiaryLabel;
    case CardStatusTone::working:
        return blue;
    case CardStatusTone::success:
        return green;
    case CardStatusTone::warning:
        return orange;
    case CardStatusTone::failure:
        return red;
    }
    return label;
}

SemanticColors SemanticColors::current()
{
    return from(QGuiApplication::palette());
}

namespace OverlayStyle {

bool isDark(const QPalette& palette)
{
    return palette.color(QPalette::Window).lightnessF() < palette.color(QPalette::WindowText).lightnessF();
}

QPalette lightPalette()
{
    QPalette palette;
    palette.setColor(QPalette::Window, QColor(0xf6, 0xf6, 0xf7));
    palette.setColor(QPalette::WindowText, QColor(0x1d, 0x1d, 0x1f));
    palette.setColor(QPalette::Base, QColor(0xff, 0xff, 0xff));
    palette.setColor(QPalette::AlternateBase, QColor(0xf0, 0xf1, 0xf4));
    palette.setColor(QPalette::Text, QColor(0x1d, 0x1d, 0x1f));
    palette.setColor(QPalette::Button, QColor(0xf0, 0xf1, 0xf4));
    palette.setColor(QPalette::ButtonText, QColor(0x1d, 0x1d, 0x1f));
    palette.setColor(QPalette::PlaceholderText, QColor(0x1d, 0x1d, 0x1f, 0x70));
    palette.setColor(QPalette::Highlight, QColor(0x00, 0x7a, 0xff));
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::Link, QColor(0x00, 0x66, 0xd6));
    palette.setColor(QPalette::ToolTipBase, QColor(0xff, 0xff, 0xff));
    palette.setColor(QPalette::ToolTipText, QColor(0x1d, 0x1d, 0x1f));
    return palette;
}

QPalette darkPalette()
{
    QPalette palette;
    palette.setColor(QPalette::Window, QColor(0x2a, 0x2b, 0x2f));
    palette.setColor(QPalette::WindowText, QColor(0xf2, 0xf2, 0xf4));
    palette.setColor(QPalette::Base, QColor(0x1d, 0x1e, 0x22));
    palette.setColor(QPalette::AlternateBase, QColor(0x26, 0x27, 0x2b));
    palette.setColor(QPalette::Text, QColor(0xf2, 0xf2, 0xf4));
    palette.setColor(QPalette::Button, QColor(0x3a, 0x3b, 0x40));
    palette.setColor(QPalette::ButtonText, QColor(0xf2, 0xf2, 0xf4));
    palette.setColor(QPalette::PlaceholderText, QColor(0xf2, 0xf2, 0xf4, 0x70));
    palette.setColor(QPalette::Highlight, QColor(0x0a, 0x84, 0xff));
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::Link, QColor(0x4d, 0xa3, 0xff));
    palette.setColor(QPalette::ToolTipBase, QColor(0x3a, 0x3b, 0x40));
    palette.setColor(QPalette::ToolTipText, QColor(0xf2, 0xf2, 0xf4));
    return palette;
}

qreal pointsForPixels(qreal pixels)
{
    return pixels * 72.0 / 96.0;
}

QStringList uiFamilies()
{
    static const QStringList families = [] {
        QStringList list{QFontDatabase::systemFont(QFontDatabase::GeneralFont).family()};
        list += cjkFamilies();
        return list;
    }();
    return families;
}

QStringList monoFamilies()
{
    static const QStringList families = [] {
        // Some platform themes report a proportional family as the fixed font; only a checked one leads.
        QStringList list;
        const QFont system = QFontDatabase::systemFont(QFontDatabase::FixedFont);
        if (QFontInfo(system).fixedPitch()) {
            list << QFontInfo(system).family();
        }
        list << QStringLiteral("DejaVu Sans Mono") << QStringLiteral("Noto Sans Mono")
             << QStringLiteral("Liberation Mono") << QStringLiteral("monospace")
             << QStringLiteral("Noto Sans Mono CJK SC") << QStringLiteral("WenQuanYi Micro Hei Mono");
        list += cjkFamilies();
        list.removeDuplicates();
        return list;
    }();
    return families;
}

QFont uiFont(qreal size, QFont::Weight weight)
{
    QFont font;
    font.setFamilies(uiFamilies());
    font.setPointSizeF(pointsForPixels(size));
    // One face per family: a CJK family's Medium and Bold files cost a few megabytes each for a card
    // that lives seconds, so emphasis is the regular face emboldened (Qt does it from Bold upwards).
    font.setStyleName(QStringLiteral("Regular"));
    font.setWeight(weight > QFont::Normal ? QFont::Bold : weight);
    return font;
}

QFont monoFont(qreal size)
{
    QFont font;
    font.setFamilies(monoFamilies());
    font.setStyleHint(QFont::Monospace);
    font.setFixedPitch(true);
    font.setPointSizeF(pointsForPixels(size));
    return font;
}

QString cssColour(const QColor& colour)
{
    return QStringLiteral("rgba(%1,%2,%3,%4)")
        .arg(colour.red())
        .arg(colour.green())
        .arg(colour.blue())
        .arg(colour.alphaF(), 0, 'f', 3);
}

QString cardStyleSheet(const SemanticColors& c)
{
    const QString label = cssColour(c.label);
    return QStringLiteral(R"(
QLabel#providerTitle { color: %1; }
QLabel#providerContext { color: %2; }
QFrame#separator { background: %3; border: none; }
QTextBrowser { background: transparent; border: none; color: %1; selection-background-color: %4; }
QLineEdit { background: %5; color: %1; border: 1px solid %3; border-radius: 8px; padding: 4px 9px;
            selection-background-color: %4; }
QLineEdit:focus { border: 1px solid %4; }
QLineEdit:disabled { color: %6; }
QPushButton { background: %5; color: %1; border: 1px solid %3; border-radius: 8px; padding: 4px 12px;
              min-height: 22px; }
QPushButton:hover { background: %7; }
QPushButton:disabled { color: %6; }
QPushButton#sendButton { background: %4; color: white; border: none; }
QPushButton#sendButton:disabled { background: %8; color: cssColour(255,255,255,0.75); }
QPushButton#fixButton { background: %9; color: %10; border: 1px solid %10; }
QScrollBar:vertical { background: transparent; width: 8px; margin: 2px 0; }
QScrollBar::handle:vertical { background: %6; border-radius: 3px; min-height: 28px; margin: 0 1px; }
QScrollBar::add-line:vertical, QScrollBar::sub-line:vertical { height: 0; }
QScrollBar::add-page:vertical, QScrollBar::sub-page:vertical { background: transparent; }
QToolTip { color: %1; background: %11; border: 1px solid %3; padding: 3px 6px; }
)")
        .arg(label, cssColour(c.secondaryLabel), cssColour(c.separator), cssColour(c.accent),
             cssColour(c.controlBackground), cssColour(c.tertiaryLabel),
             cssColour(c.dark ? c.controlBackground.lighter(130) : c.controlBackground.darker(106)),
             cssColour(faded(c.accent, 0.45)), cssColour(faded(c.red, 0.12)))
        .arg(cssColour(c.red), cssColour(c.background));
}

} // namespace OverlayStyle
} // namespace velnora
