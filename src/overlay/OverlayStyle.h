#pragma once

#include "flow/ExplanationCard.h"

#include <QColor>
#include <QFont>
#include <QPalette>

namespace velnora {

// The named colours the card and the renderer paint with, derived from a palette so that the card
// follows the desktop's light or dark theme.
struct SemanticColors
{
    bool dark = false;
    QColor background; // the card's body
    QColor label;
    QColor secondaryLabel;
    QColor tertiaryLabel;
    QColor accent;
    QColor separator;
    QColor link;
    QColor controlBackground; // code blocks, text field
    QColor inlineCodeBackground;
    QColor blue;
    QColor green;
    QColor orange;
    QColor red;

    static SemanticColors from(const QPalette& palette);
    // The colour of a card status line (its dot and its text).
    QColor forTone(CardStatusTone tone) const;
    // The application's current palette.
    static SemanticColors current();
};

namespace OverlayStyle {

// Light or dark, from how the palette's window colour compares with its text.
bool isDark(const QPalette& palette);
// Palettes for the previews: the card's own light and dark looks, independent of the desktop theme.
QPalette lightPalette();
QPalette darkPalette();

// A user-interface font of `size` logical pixels; CJK families follow the system family so that Han
// characters take Simplified Chinese shapes.
QFont uiFont(qreal size, QFont::Weight weight = QFont::Normal);
QFont monoFont(qreal size);
// Point size that is `pixels` logical pixels tall at the reference resolution of 96 dpi.
qreal pointsForPixels(qreal pixels);
QStringList uiFamilies();
QStringList monoFamilies();

// A colour as a style sheet writes it, alpha included.
QString cssColour(const QColor& colour);
// The style sheet of the card's labels, fields, buttons and scroll bar in these colours.
QString cardStyleSheet(const SemanticColors& colours);

} // namespace OverlayStyle
} // namespace velnora
