#pragma once

#include "overlay/OverlayStyle.h"

#include <QFont>
#include <QString>
#include <QTextFormat>

class QTextDocument;

namespace velnora {

// Turns the model's answer, written in a small Markdown dialect, into styled text. Stateless: the card
// renders the whole answer again at every refresh while it streams, so every construct cut off in the
// middle still renders sensibly, and nothing it receives makes it fail.
namespace MarkdownRenderer {

// Replaces the content of `document` with the rendered answer. Blocks are separated by paragraph
// breaks; the lines of a code block stay in one block, separated by line separators.
void render(const QString& markdown, QTextDocument& document, const SemanticColors& colours);
void render(const QString& markdown, QTextDocument& document); // colours of the application palette

// What must follow `markdown` so that text appended after it is not drawn inside a code listing that a
// cut-off answer left open: a closing fence on a line of its own, or nothing.
QString fenceCloser(const QString& markdown);

QFont bodyFont();
QFont codeFont();
QFont headingFont(int level);

// Blocks of a code listing carry their panel colour in this block property; the answer view paints one
// rounded panel behind each run of such blocks (a block background could not be inset or rounded).
inline constexpr int codePanelProperty = QTextFormat::UserProperty + 1;
// Space between a code panel's edge and its text, above and below.
inline constexpr qreal codePanelPadding = 6;

// The bar before a quote and the text of a horizontal rule.
inline constexpr char16_t quoteMarker[] = u"\u258C ";
QString horizontalRuleText();

} // namespace MarkdownRenderer
} // namespace velnora
