#pragma once

#include <QPoint>

class QWidget;

namespace velnora {

// What the card needs to know of, and ask from, an X11 desktop beyond what Qt offers. Elsewhere (offscreen,
// Wayland) the questions answer "no" and the requests do nothing.
namespace X11Desktop {

// Whether a panel or dock (the window type of taskbars and tray hosts) is under the point, in global
// logical coordinates: a click there opens the tray menu, even where the panel reserves no screen space.
bool isPanelAt(const QPoint& point);
// Puts a shown top-level window on every workspace: the card stays with the user who switches.
void joinAllWorkspaces(QWidget& window);

} // namespace X11Desktop
} // namespace velnora
