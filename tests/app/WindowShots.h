#pragma once

#include <QString>
#include <QStringList>

class QWidget;

namespace velnora::test {

// Lays the window out in the light and then the dark look (Fusion with either palette) and returns the
// texts of visible labels and buttons that do not fit, each prefixed with the look. Saves a grab of each
// look as <name>-<look>.png in $VELNORA_SCREENSHOT_DIR when that is set. Leaves the light look applied.
QStringList clippedInEitherAppearance(QWidget* window, const QString& name);

} // namespace velnora::test
