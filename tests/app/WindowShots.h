#pragma once

#include <QStringList>
#include <QWidget>

namespace velnora::test {

// Lays the window out in the dark and then the light look (Fusion with either palette) and returns the
// texts of visible labels and buttons that do not fit, each prefixed with the look. Leaves the light
// look applied.
QStringList clippedInEitherAppearance(QWidget* window);

} // namespace velnora::test
