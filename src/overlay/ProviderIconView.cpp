#include "overlay/ProviderIconView.h"

#include "overlay/OverlayStyle.h"

#include <QLinearGradient>
#include <QPainter>

namespace velnora {

ProviderIconView::ProviderIconView(QWidget* parent) : QWidget(parent)
{
    setFixedSize(sizeHint());
    setAttribute(Qt::WA_TranslucentBackground);
}

ProviderIconView::Badge ProviderIconView::badge(const QString& id, const QString& title)
{
    struct Entry
    {
        const char* id;
        QRgb top;
        QRgb bottom;
        const char16_t* glyph;
    };
    static constexpr Entry entries[] = {
        {"doubao", 0xff8a3d, 0xf0561d, u"豆"}, {"deepseek", 0x5b7cff, 0x3a4fd8, u"深"},
        {"qwen", 0x8b6cff, 0x5f3fe0, u"千"},   {"kimi", 0x3a3d44, 0x16181c, u"K"},
        {"glm", 0x22b8a0, 0x0e8a78, u"智"},    {"hunyuan", 0x3aa0ff, 0x1570e0, u"混"},
        {"ernie", 0xf25a4d, 0xc9302c, u"文"},
    };
    for (const Entry& entry : entries) {
        if (id == QLatin1String(entry.id)) {
            return {QColor(entry.top), QColor(entry.bottom), QString::fromUtf16(entry.glyph)};
        }
    }
    const QString name = title.trimmed();
    return {QColor(0x9a, 0xa0, 0xa8), QColor(0x6b, 0x72, 0x7c), name.isEmpty() ? QStringLiteral("?") : name.left(1)};
}

void ProviderIconView::setProvider(const QString& id, const QString& title)
{
    m_id = id;
    m_badge = badge(id, title);
    setAccessibleName(title);
    update();
}

void ProviderIconView::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF square = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
    QLinearGradient gradient(square.topLeft(), square.bottomLeft());
    gradient.setColorAt(0, m_badge.top);
    gradient.setColorAt(1, m_badge.bottom);
    painter.setPen(Qt::NoPen);
    painter.setBrush(gradient);
    painter.drawRoundedRect(square, 8, 8);
    // A faint top highlight gives the badge some depth.
    painter.setBrush(QColor(255, 255, 255, 36));
    painter.drawRoundedRect(square.adjusted(0, 0, 0, -square.height() / 2), 8, 8);

    painter.setPen(Qt::white);
    painter.setFont(OverlayStyle::uiFont(m_badge.glyph.at(0).unicode() < 0x80 ? 16 : 15, QFont::Bold));
    painter.drawText(square, Qt::AlignCenter, m_badge.glyph);
}

} // namespace velnora
