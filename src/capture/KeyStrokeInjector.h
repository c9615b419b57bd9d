#pragma once

namespace velnora {

// Synthetic keyboard input into whatever window has the focus.
class KeyStrokeInjector
{
public:
    virtual ~KeyStrokeInjector() = default;
    // True while any key is down, the hot key's own included: a copy typed now would mix with it.
    virtual bool keysHeld() = 0;
    // Ctrl+C, or Ctrl+Shift+C when the focused window is a terminal. False when nothing could be sent.
    virtual bool postCopyShortcut() = 0;
};

} // namespace velnora
