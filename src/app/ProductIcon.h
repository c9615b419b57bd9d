#pragma once

#include <QIcon>
#include <QPixmap>

// The product mark for windows: the installed theme icon, else drawn, so a build run from the
// source tree has one too.
namespace velnora::ProductIcon {

QPixmap mark(int size, qreal devicePixelRatio);
QIcon windowIcon();

} // namespace velnora::ProductIcon
