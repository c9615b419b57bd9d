#pragma once

#include <QTextBrowser>

namespace velnora {

// The rendered answer: read-only, web and mail links open in the desktop's handler, text inset 4 pixels at
// the sides and 8 above and below, and a rounded panel behind every code listing.
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

    // A model's answer is untrusted text: only http, https and mailto links are followed.
    static bool isOpenableLink(const QUrl& url);

protected:
    void paintEvent(QPaintEvent* event) override;
};

} // namespace velnora
