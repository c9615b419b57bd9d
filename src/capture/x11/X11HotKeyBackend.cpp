#include "capture/x11/X11HotKeyBackend.h"

#include "capture/KeySymbol.h"
#include "capture/x11/X11Connection.h"

#include <X11/keysym.h>
#include <cstdlib>

namespace velnora {

X11HotKeyBackend::X11HotKeyBackend(std::unique_ptr<X11Connection> connection) : m_x(std::move(connection))
{
    m_x->setEventHandler([this](const xcb_generic_event_t& event) { handleKey(event); });
}

void X11HotKeyBackend::handleKey(const xcb_generic_event_t& event)
{
    const std::uint8_t type = event.response_type & 0x7f;
    if (type != XCB_KEY_PRESS && type != XCB_KEY_RELEASE) {
        return;
    }
    const auto& key = reinterpret_cast<const xcb_key_press_event_t&>(event);
    if (key.detail != m_keycode) {
        return;
    }
    if (type == XCB_KEY_RELEASE) {
        m_lastRelease = key.time;
        return;
    }
    // A held key repeats as release and press with one timestamp: only the first press counts.
    if (key.time == m_lastRelease || m_grabbed.empty() || !m_onPressed) {
        return;
    }
    m_onPressed();
}

X11HotKeyBackend::~X11HotKeyBackend()
{
    release();
    m_x->setEventHandler({});
}

bool X11HotKeyBackend::grab(Qt::KeyboardModifiers modifiers, Qt::Key key, std::function<void()> onPressed)
{
    release();
    m_onPressed = std::move(onPressed);
    const xcb_keysym_t keysym = KeySymbol::of(key);
    m_keycode = keysym ? m_x->keycodeFor(keysym) : 0;
    if (m_keycode == 0) {
        return false;
    }
    std::uint16_t base = 0;
    if (modifiers & Qt::ControlModifier) {
        base |= XCB_MOD_MASK_CONTROL;
    }
    if (modifiers & Qt::ShiftModifier) {
        base |= XCB_MOD_MASK_SHIFT;
    }
    if (modifiers & Qt::AltModifier) {
        base |= m_x->modifierMaskFor(XK_Alt_L, XCB_MOD_MASK_1);
    }
    if (modifiers & Qt::MetaModifier) {
        base |= m_x->modifierMaskFor(XK_Super_L, XCB_MOD_MASK_4);
    }
    const std::uint16_t numLock = m_x->modifierMaskFor(XK_Num_Lock, XCB_MOD_MASK_2);

    xcb_connection_t* c = m_x->raw();
    for (std::uint16_t locks : {std::uint16_t(0), std::uint16_t(XCB_MOD_MASK_LOCK), numLock,
                                std::uint16_t(XCB_MOD_MASK_LOCK | numLock)}) {
        const std::uint16_t mask = base | locks;
        xcb_generic_error_t* error =
            xcb_request_check(c, xcb_grab_key_checked(c, 1, m_x->root(), mask, m_keycode, XCB_GRAB_MODE_ASYNC,
                                                      XCB_GRAB_MODE_ASYNC));
        if (error) {
            // BadAccess: another client holds this combination. Either way, hold none of it.
            std::free(error);
            release();
            return false;
        }
        m_grabbed.push_back(mask);
    }
    m_x->dispatchPending();
    return true;
}

void X11HotKeyBackend::release()
{
    xcb_connection_t* c = m_x->raw();
    for (std::uint16_t mask : m_grabbed) {
        xcb_ungrab_key(c, m_keycode, m_x->root(), mask);
    }
    if (!m_grabbed.empty()) {
        m_grabbed.clear();
        m_x->sync();
    }
}

} // namespace velnora
