#include "app/GraphemeText.h"

#include <QTextBoundaryFinder>

namespace velnora::GraphemeText {

qsizetype count(const QString& text, qsizetype stopAfter)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype clusters = 0;
    while (clusters < stopAfter && finder.toNextBoundary() != -1) {
        ++clusters;
    }
    return clusters;
}

QString prefix(const QString& text, qsizetype n)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype end = 0;
    for (qsizetype i = 0; i < n; ++i) {
        const qsizetype next = finder.toNextBoundary();
        if (next == -1) {
            return text;
        }
        end = next;
    }
    return text.left(end);
}

} // namespace velnora::GraphemeText
