#pragma once

#include <QByteArray>

namespace velnora::TerminalWindows {

// Whether a window with this WM_CLASS (instance and class, NUL-separated as stored) is a terminal
// emulator, where Ctrl+C interrupts and copying is Ctrl+Shift+C.
bool isTerminal(const QByteArray& wmClass);

} // namespace velnora::TerminalWindows
