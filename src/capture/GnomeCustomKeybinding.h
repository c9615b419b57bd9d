#pragma once

#include "capture/HotKeyChoice.h"

#include <QString>

namespace velnora {

// Where a Wayland desktop has no shortcuts portal, GNOME still runs a command on a key of its own
// custom keybindings. Ours lives at a path of its own; the user's keybindings are never changed.
namespace GnomeCustomKeybinding {

inline constexpr char path[] = "/org/gnome/settings-daemon/plugins/media-keys/custom-keybindings/velnora/";
inline constexpr char command[] = "velnora --explain-selection";

enum class Outcome { bound, taken, unavailable };
struct Result
{
    Outcome outcome = Outcome::unavailable;
    // For the user, in Chinese.
    QString message;
};

// Whether this GNOME's settings schema for custom keybindings is installed.
bool isAvailable();
// "<Control><Alt>e" for Ctrl+Alt+E.
QString accelerator(const HotKeyChoice& choice);
// Binds the command to the choice's keys, unless one of the user's own keybindings already uses them.
Result bind(const HotKeyChoice& choice);
// What the user should bind by hand where no desktop setting can be written.
QString manualInstruction();

} // namespace GnomeCustomKeybinding
} // namespace velnora
