#pragma once

#include "capture/HotKeyBackend.h"

#include <memory>
#include <vector>
#include <xcb/xcb.h>

namespace velnora {

class X11Connection;

// XGrabKey on the root window, on a connection of its own so that the key events reach nobody else.
// The lock modifiers (NumLock, CapsLock) are grabbed in every combination, or the key would go dead
// whenever one of them is on.
class X11HotKeyBackend : public HotKeyBackend
{
public:
    explicit X11HotKeyBackend(std::unique_ptr<X11Connection> connection);
    ~X11HotKeyBackend() override;

    bool grab(Qt::KeyboardModifiers modifiers, Qt::Key key, std::function<void()> onPressed) override;
    void release() override;

private:
    void handleKey(const xcb_generic_event_t& event);

    std::unique_ptr<X11Connection> m_x;
    xcb_keycode_t m_keycode = 0;
    std::vector<std::uint16_t> m_grabbed;
    std::function<void()> m_onPressed;
    xcb_timestamp_t m_lastRelease = 0;
};

} // namespace velnora
