#pragma once

#include <QString>

// Lengths as the user sees them: one emoji, or a letter with its accents, counts once.
namespace velnora::GraphemeText {

// The number of grapheme clusters, counting no further than stopAfter (a cap for huge texts).
qsizetype count(const QString& text, qsizetype stopAfter);
// The first n grapheme clusters.
QString prefix(const QString& text, qsizetype n);

} // namespace velnora::GraphemeText
