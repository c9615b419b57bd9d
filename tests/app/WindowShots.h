#pragma once

#include <QPalette>
#include <QString>
#include <QStringList>

class QWidget;

namespace velnora::test {

// The light and the dark look the windows are checked in (Fusion with a light or a dark palette).
enum class Appearance { light, dark };
void applyAppearance(Appearance appearance);
QString appearanceName(Appearance appearance);

// Texts of visible labels and buttons that do not fit the space they were given.
QStringList clippedTexts(QWidget* root);

// Saves a grab of the window as <name>-<appearance>.png in $VELNORA_SCREENSHOT_DIR, when that is set.
void saveScreenshot(QWidget* window, const QString& name, Appearance appearance);

} // namespace velnora::test
