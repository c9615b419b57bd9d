#pragma once

#include <QString>
#include <QtGlobal>
#include <optional>

// What another process shows on the X display and tells the accessibility bus, asked from outside
// the way a user's tools see it.
namespace velnora::test::DesktopProbe {

using Window = quint32; // the X window id

// The process's tray icon, once a tray host has embedded it.
std::optional<Window> embeddedTrayIcon(qint64 pid);
// A shown top-level window of the process at least this large (the card, a settings window).
std::optional<Window> shownWindow(qint64 pid, int minimumWidth, int minimumHeight);

// Whether some client owns the named selection ("CLIPBOARD_MANAGER", "PRIMARY").
bool selectionHasOwner(const char* selection);

// The names and texts of every accessible object of the process, one per line, or none when the
// process is not on the accessibility bus. Each call is bounded by the library's own time-out.
std::optional<QString> accessibleContent(qint64 pid);

} // namespace velnora::test::DesktopProbe
