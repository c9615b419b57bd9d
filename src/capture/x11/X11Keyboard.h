#pragma once

#include "capture/KeyStrokeInjector.h"

#include <memory>

namespace velnora {

class X11Connection;

// XTest key events and the keyboard's key state.
class X11Keyboard : public KeyStrokeInjector
{
public:
    explicit X11Keyboard(std::shared_ptr<X11Connection> connection);

    bool keysHeld() override;
    bool postCopyShortcut() override;

private:
    std::shared_ptr<X11Connection> m_x;
    bool m_hasXTest = false;
};

} // namespace velnora
