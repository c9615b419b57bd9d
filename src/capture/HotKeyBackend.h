#pragma once

#include <QtCore/qnamespace.h>

#include <functional>

namespace velnora {

// A system-wide key combination. Holds at most one at a time.
class HotKeyBackend
{
public:
    virtual ~HotKeyBackend() = default;
    // Replaces any previous combination. False when the combination is taken or cannot be grabbed,
    // and then nothing is held. onPressed runs inside event processing, once per press.
    virtual bool grab(Qt::KeyboardModifiers modifiers, Qt::Key key, std::function<void()> onPressed) = 0;
    virtual void release() = 0;
};

} // namespace velnora
