#include "capture/x11/X11Keyboard.h"

#include "capture/TerminalWindows.h"
#include "capture/x11/X11Connection.h"

#include <QThread>
#include <X11/keysym.h>
#include <cstdlib>
#include <vector>
#include <xcb/xtest.h>

namespace velnora {

namespace {

constexpr unsigned long keyGapMilliseconds = 12;

} // namespace

X11Keyboard::X11Keyboard(std::shared_ptr<X11Connection> connection) : m_x(std::move(connection))
{
    const xcb_query_extension_reply_t* xtest = xcb_get_extension_data(m_x->raw(), &xcb_test_id);
    m_hasXTest = xtest && xtest->present;
}

bool X11Keyboard::keysHeld()
{
    xcb_connection_t* c = m_x->raw();
    xcb_query_keymap_reply_t* keymap = xcb_query_keymap_reply(c, xcb_query_keymap(c), nullptr);
    if (!keymap) {
        return false;
    }
    bool held = false;
    for (const std::uint8_t bits : keymap->keys) {
        held = held || bits != 0;
    }
    std::free(keymap);
    m_x->dispatchPending();
    return held;
}

bool X11Keyboard::postCopyShortcut()
{
    if (!m_hasXTest) {
        return false;
    }
    const bool terminal = TerminalWindows::isTerminal(m_x->focusedWindow().wmClass);
    const xcb_keycode_t control = m_x->keycodeFor(XK_Control_L);
    const xcb_keycode_t shift = m_x->keycodeFor(XK_Shift_L);
    const xcb_keycode_t letter = m_x->keycodeFor(XK_c);
    if (control == 0 || letter == 0 || (terminal && shift == 0)) {
        return false;
    }
    std::vector<std::pair<std::uint8_t, xcb_keycode_t>> strokes{{XCB_KEY_PRESS, control}};
    if (terminal) {
        strokes.push_back({XCB_KEY_PRESS, shift});
    }
    strokes.push_back({XCB_KEY_PRESS, letter});
    strokes.push_back({XCB_KEY_RELEASE, letter});
    if (terminal) {
        strokes.push_back({XCB_KEY_RELEASE, shift});
    }
    strokes.push_back({XCB_KEY_RELEASE, control});

    xcb_connection_t* c = m_x->raw();
    for (const auto& [type, code] : strokes) {
        xcb_test_fake_input(c, type, code, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        xcb_flush(c);
        // Some toolkits drop keys that arrive in the same instant as their modifier.
        QThread::msleep(keyGapMilliseconds);
    }
    return !xcb_connection_has_error(c);
}

} // namespace velnora
