#include "capture/TerminalWindows.h"

#include <QList>
#include <array>
#include <string_view>

namespace velnora::TerminalWindows {

namespace {

constexpr std::array<std::string_view, 30> terminalNames{
    "gnome-terminal",
    "gnome-terminal-server",
    "org.gnome.terminal",
    "org.gnome.console",
    "kgx",
    "konsole",
    "org.kde.konsole",
    "xfce4-terminal",
    "mate-terminal",
    "deepin-terminal",
    "lxterminal",
    "qterminal",
    "terminator",
    "tilix",
    "com.gexperts.tilix",
    "alacritty",
    "kitty",
    "xterm",
    "uxterm",
    "urxvt",
    "rxvt",
    "st",
    "st-256color",
    "wezterm",
    "org.wezfurlong.wezterm",
    "foot",
    "guake",
    "yakuake",
    "tilda",
    "sakura",
};

} // namespace

bool isTerminal(const QByteArray& wmClass)
{
    for (const QByteArray& part : wmClass.split('\0')) {
        const QByteArray name = part.trimmed().toLower();
        if (name.isEmpty()) {
            continue;
        }
        for (std::string_view terminal : terminalNames) {
            if (std::string_view(name.constData(), size_t(name.size())) == terminal) {
                return true;
            }
        }
        // Deepin's and UKUI's variants and "*-terminal" forks.
        if (name.endsWith("-terminal") || name.endsWith(".terminal")) {
            return true;
        }
    }
    return false;
}

} // namespace velnora::TerminalWindows
