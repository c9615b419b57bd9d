#pragma once

#include "capture/KeyStrokeInjector.h"

#include <memory>

namespace velnora {

class X11Connection;

// XTest key events and the core keyboard's modifier state.
class X11Keyboard : public KeyStrokeInjector
{
public:
    explicit X11Keyboard(std::shared_ptr<X11Connection> connection);

    bool modifiersHeld() override;
    bool postCopyShortcut() override;

private:
    std::shared_ptr<X11Connection> m_x;
    bool m_hasXTest = false;
};

} // namespace velnora
