#include "overlay/AnswerView.h"

#include "overlay/MarkdownRenderer.h"

#include <QAbstractTextDocumentLayout>
#include <QDesktopServices>
#include <QPainter>
#include <QScrollBar>
#include <QTextBlock>
#include <QTextLayout>

namespace velnora {

AnswerView::AnswerView(QWidget* parent) : QTextBrowser(parent)
{
    setViewportMargins(4, 8, 4, 8);
    // QTextBrowser would open any scheme itself, or navigate the view to a relative one.
    setOpenLinks(false);
    connect(this, &QTextBrowser::anchorClicked, this, [](const QUrl& url) {
        if (isOpenableLink(url)) {
            QDesktopServices::openUrl(url);
        }
    });
}

bool AnswerView::isOpenableLink(const QUrl& url)
{
    const QString scheme = url.scheme().toLower();
    const bool web = (scheme == u"http" || scheme == u"https") && !url.host().isEmpty();
    return url.isValid() && (web || (scheme == u"mailto" && !url.path().isEmpty()));
}

QList<AnswerView::CodePanel> AnswerView::codePanels() const
{
    QList<CodePanel> panels;
    QAbstractTextDocumentLayout* layout = document()->documentLayout();
    const qreal width = document()->textWidth() > 0 ? document()->textWidth() : viewport()->width();
    bool extending = false;
    for (QTextBlock block = document()->begin(); block.isValid(); block = block.next()) {
        if (!block.blockFormat().hasProperty(MarkdownRenderer::codePanelProperty)) {
            extending = false;
            continue;
        }
        // From the laid-out lines: the block's margins lie outside the panel.
        const QTextLayout* lines = block.layout();
        layout->blockBoundingRect(block); // makes sure the block is laid out
        if (!lines || lines->lineCount() == 0) {
            continue;
        }
        const QTextLine first = lines->lineAt(0);
        const QTextLine last = lines->lineAt(lines->lineCount() - 1);
        const qreal top = lines->position().y() + first.y() - MarkdownRenderer::codePanelPadding;
        const qreal bottom =
            lines->position().y() + last.y() + last.height() + MarkdownRenderer::codePanelPadding;
        const QTextBlockFormat format = block.blockFormat();
        if (extending && !panels.isEmpty()) {
            panels.back().rect.setBottom(bottom);
        } else {
            // The colour travels with the block, so a theme switch repaints with the new one.
            panels.append({QRectF(0, top, width, bottom - top),
                           format.property(MarkdownRenderer::codePanelProperty).value<QColor>()});
        }
        extending = true;
    }
    return panels;
}

void AnswerView::paintEvent(QPaintEvent* event)
{
    const QList<CodePanel> panels = codePanels();
    if (!panels.isEmpty()) {
        QPainter painter(viewport());
        painter.setRenderHint(QPainter::Antialiasing);
        const QPointF scroll(horizontalScrollBar()->value(), verticalScrollBar()->value());
        const QRectF visible = QRectF(viewport()->rect()).translated(scroll);
        painter.translate(-scroll);
        painter.setPen(Qt::NoPen);
        for (const CodePanel& panel : panels) {
            if (panel.rect.intersects(visible)) {
                painter.setBrush(panel.colour);
                painter.drawRoundedRect(panel.rect, 8, 8);
            }
        }
    }
    QTextBrowser::paintEvent(event);
}

} // namespace velnora
