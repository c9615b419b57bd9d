#include "capture/KeySymbol.h"

#include <utility>
#include <xkbcommon/xkbcommon.h>

namespace velnora::KeySymbol {

namespace {

constexpr std::pair<Qt::Key, std::uint32_t> otherKeys[] = {
    {Qt::Key_Escape, XKB_KEY_Escape},
    {Qt::Key_Tab, XKB_KEY_Tab},
    {Qt::Key_Backspace, XKB_KEY_BackSpace},
    {Qt::Key_Return, XKB_KEY_Return},
    {Qt::Key_Enter, XKB_KEY_KP_Enter},
    {Qt::Key_Insert, XKB_KEY_Insert},
    {Qt::Key_Delete, XKB_KEY_Delete},
    {Qt::Key_Pause, XKB_KEY_Pause},
    {Qt::Key_Print, XKB_KEY_Print},
    {Qt::Key_Home, XKB_KEY_Home},
    {Qt::Key_End, XKB_KEY_End},
    {Qt::Key_Left, XKB_KEY_Left},
    {Qt::Key_Up, XKB_KEY_Up},
    {Qt::Key_Right, XKB_KEY_Right},
    {Qt::Key_Down, XKB_KEY_Down},
    {Qt::Key_PageUp, XKB_KEY_Page_Up},
    {Qt::Key_PageDown, XKB_KEY_Page_Down},
    {Qt::Key_Menu, XKB_KEY_Menu},
};

} // namespace

std::uint32_t of(Qt::Key key)
{
    // Printable Latin-1 keys share their codes with the keysyms; letters are bound by their lower case.
    if (key >= Qt::Key_A && key <= Qt::Key_Z) {
        return XKB_KEY_a + (key - Qt::Key_A);
    }
    if (key >= Qt::Key_Space && key <= Qt::Key_ydiaeresis) {
        return std::uint32_t(key);
    }
    if (key >= Qt::Key_F1 && key <= Qt::Key_F35) {
        return XKB_KEY_F1 + (key - Qt::Key_F1);
    }
    for (const auto& [qtKey, keysym] : otherKeys) {
        if (qtKey == key) {
            return keysym;
        }
    }
    return 0;
}

QString nameOf(Qt::Key key)
{
    const std::uint32_t keysym = of(key);
    char name[64];
    if (keysym == 0 || xkb_keysym_get_name(keysym, name, sizeof name) <= 0) {
        return {};
    }
    return QString::fromLatin1(name);
}

} // namespace velnora::KeySymbol
