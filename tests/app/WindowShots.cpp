#include "WindowShots.h"

#include "overlay/OverlayStyle.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDir>
#include <QLabel>
#include <QStyle>
#include <QStyleFactory>
#include <QWidget>

namespace velnora::test {
namespace {

enum class Appearance { light, dark };

void applyAppearance(Appearance appearance)
{
    QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    if (appearance == Appearance::light) {
        QApplication::setPalette(QApplication::style()->standardPalette());
        return;
    }
    // The card's own dark look, with greyed disabled controls so the shots show them as users do.
    QPalette dark = OverlayStyle::darkPalette();
    dark.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x80, 0x80, 0x86));
    dark.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x80, 0x80, 0x86));
    dark.setColor(QPalette::Disabled, QPalette::Text, QColor(0x80, 0x80, 0x86));
    QApplication::setPalette(dark);
}

QString appearanceName(Appearance appearance)
{
    return appearance == Appearance::light ? QStringLiteral("light") : QStringLiteral("dark");
}

QStringList clippedTexts(QWidget* root)
{
    QStringList clipped;
    for (QLabel* label : root->findChildren<QLabel*>()) {
        if (!label->isVisibleTo(root) || label->text().isEmpty()) {
            continue;
        }
        const bool fits = label->wordWrap() ? label->heightForWidth(label->width()) <= label->height()
                                            : label->sizeHint().width() <= label->width() &&
                                                  label->sizeHint().height() <= label->height();
        if (!fits) {
            clipped << label->text();
        }
    }
    for (QAbstractButton* button : root->findChildren<QAbstractButton*>()) {
        if (button->isVisibleTo(root) && !button->text().isEmpty() &&
            button->sizeHint().width() > button->width()) {
            clipped << button->text();
        }
    }
    return clipped;
}

} // namespace

QStringList clippedInEitherAppearance(QWidget* window, const QString& name)
{
    QStringList clipped;
    const QString directory = qEnvironmentVariable("VELNORA_SCREENSHOT_DIR");
    for (const Appearance appearance : {Appearance::light, Appearance::dark}) {
        applyAppearance(appearance);
        QApplication::processEvents();
        window->adjustSize();
        QApplication::processEvents();
        for (const QString& text : clippedTexts(window)) {
            clipped << appearanceName(appearance) + QStringLiteral(": ") + text;
        }
        if (!directory.isEmpty()) {
            QDir().mkpath(directory);
            window->grab().save(
                QDir(directory).filePath(name + u'-' + appearanceName(appearance) + QStringLiteral(".png")));
        }
    }
    applyAppearance(Appearance::light);
    return clipped;
}

} // namespace velnora::test
