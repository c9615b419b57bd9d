#pragma once

#include <QStringList>
#include <QWidget>

namespace velnora::test {

// Lays the window out in the dark and then the light look (Fusion with either palette) and returns the
// texts of visible labels and buttons that do not fit, each prefixed with the look. Leaves the light
// look applied. With VELNORA_SHOT_DIR set, a named window is kept there as shotName-dark/light.png for
// a person to look at.
QStringList clippedInEitherAppearance(QWidget* window, const QString& shotName = {});

} // namespace velnora::test
