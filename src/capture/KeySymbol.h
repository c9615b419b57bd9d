#pragma once

#include <QString>
#include <QtCore/qnamespace.h>
#include <cstdint>

namespace velnora::KeySymbol {

// The keysym a desktop binds for a recorded key, 0 for keys no hot key can use (media keys, modifiers).
std::uint32_t of(Qt::Key key);

// The keysym's name, as GTK accelerators and desktop shortcut triggers spell the key; empty when it has none.
QString nameOf(Qt::Key key);

} // namespace velnora::KeySymbol
