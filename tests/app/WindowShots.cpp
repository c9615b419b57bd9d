#include "WindowShots.h"

#include "overlay/OverlayStyle.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDir>
#include <QLabel>
#include <QStyle>
#include <QStyleFactory>

namespace velnora::test {

QStringList clippedInEitherAppearance(QWidget* window, const QString& shotName)
{
    const QString shots = qEnvironmentVariable("VELNORA_SHOT_DIR");
    // The card's own dark look, with greyed disabled controls so the shots show them as users do.
    QPalette dark = OverlayStyle::darkPalette();
    for (const QPalette::ColorRole role : {QPalette::ButtonText, QPalette::WindowText, QPalette::Text}) {
        dark.setColor(QPalette::Disabled, role, QColor(0x80, 0x80, 0x86));
    }
    QApplication::setStyle(QStyleFactory::create("Fusion"));
    QStringList clipped;
    const std::pair<QString, QPalette> looks[] = {{"dark", dark},
                                                  {"light", QApplication::style()->standardPalette()}};
    for (const auto& [look, palette] : looks) {
        QApplication::setPalette(palette);
        QApplication::processEvents();
        window->adjustSize();
        QApplication::processEvents();
        if (!shots.isEmpty() && !shotName.isEmpty()) {
            window->grab().save(QDir(shots).filePath(shotName + '-' + look + ".png"));
        }
        for (QLabel* label : window->findChildren<QLabel*>()) {
            const bool fits = label->wordWrap() ? label->heightForWidth(label->width()) <= label->height()
                                                : label->sizeHint().width() <= label->width() &&
                                                      label->sizeHint().height() <= label->height();
            if (label->isVisibleTo(window) && !label->text().isEmpty() && !fits) {
                clipped << look + ": " + label->text();
            }
        }
        for (QAbstractButton* button : window->findChildren<QAbstractButton*>()) {
            if (button->isVisibleTo(window) && !button->text().isEmpty() &&
                button->sizeHint().width() > button->width()) {
                clipped << look + ": " + button->text();
            }
        }
    }
    return clipped;
}

} // namespace velnora::test
