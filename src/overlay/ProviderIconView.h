#pragma once

#include <QColor>
#include <QWidget>

namespace velnora {

// The service's badge: a rounded square in the service's colour with one character of its name. Our
// own drawing, so that it stays sharp at every scale and needs no image files.
class ProviderIconView : public QWidget
{
    Q_OBJECT
public:
    explicit ProviderIconView(QWidget* parent = nullptr);

    void setProvider(const QString& id, const QString& title);
    const QString& providerId() const { return m_id; }

    struct Badge
    {
        QColor top;
        QColor bottom;
        QString glyph;
    };
    static Badge badge(const QString& id, const QString& title);

    QSize sizeHint() const override { return {30, 30}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QString m_id;
    Badge m_badge;
};

} // namespace velnora
