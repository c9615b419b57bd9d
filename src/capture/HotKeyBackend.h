#pragma once

#include <QString>
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
    // Backends whose desktop owns the key report later what it is bound to, and failures that arrive
    // after grab() returned; an X11 grab knows its answer at once and reports nothing.
    virtual bool desktopOwnsKey() const { return false; }
    virtual void observe(std::function<void(const QString& trigger)> triggerChanged,
                         std::function<void(const QString& message)> failed)
    {
        (void)triggerChanged;
        (void)failed;
    }
};

} // namespace velnora
