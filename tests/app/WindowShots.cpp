#include "WindowShots.h"

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
    QPalette dark;
    dark.setColor(QPalette::Window, QColor(0x2b, 0x2b, 0x2e));
    dark.setColor(QPalette::WindowText, QColor(0xe8, 0xe8, 0xea));
    dark.setColor(QPalette::Base, QColor(0x1e, 0x1e, 0x21));
    dark.setColor(QPalette::AlternateBase, QColor(0x33, 0x33, 0x37));
    dark.setColor(QPalette::Text, QColor(0xe8, 0xe8, 0xea));
    dark.setColor(QPalette::PlaceholderText, QColor(0x9a, 0x9a, 0xa0));
    dark.setColor(QPalette::Button, QColor(0x3a, 0x3a, 0x3e));
    dark.setColor(QPalette::ButtonText, QColor(0xe8, 0xe8, 0xea));
    dark.setColor(QPalette::Highlight, QColor(0x3d, 0x7b, 0xd9));
    dark.setColor(QPalette::HighlightedText, Qt::white);
    dark.setColor(QPalette::Link, QColor(0x8a, 0xb4, 0xf8));
    dark.setColor(QPalette::ToolTipBase, QColor(0x3a, 0x3a, 0x3e));
    dark.setColor(QPalette::ToolTipText, QColor(0xe8, 0xe8, 0xea));
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
