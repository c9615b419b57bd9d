#pragma once

#include <QTextBrowser>

namespace velnora {

// The rendered answer: read-only, links open in the browser, text inset 4 pixels at the sides and 8 above
// and below, and a rounded panel behind every code listing.
class AnswerView : public QTextBrowser
{
    Q_OBJECT
public:
    explicit AnswerView(QWidget* parent = nullptr);

    struct CodePanel
    {
        QRectF rect; // document coordinates
        QColor colour;
    };
    // The panels behind code listings; a listing and its language label share one.
    QList<CodePanel> codePanels() const;

protected:
    void paintEvent(QPaintEvent* event) override;
};

} // namespace velnora
