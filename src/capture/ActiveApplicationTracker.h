#pragma once

#include <QtGlobal>
#include <functional>
#include <optional>

namespace velnora {

// Follows which application holds the active window, as the window manager announces it.
class ActiveApplicationTracker
{
public:
    virtual ~ActiveApplicationTracker() = default;
    // The process of the active window now, if the session names one.
    virtual std::optional<qint64> activeProcess() = 0;
    // Runs on the main thread each time another window becomes active, with its process when known.
    virtual void watch(std::function<void(std::optional<qint64>)> onActivated) = 0;
};

} // namespace velnora
