#pragma once

#include "capture/ActiveApplicationTracker.h"

#include <memory>

namespace velnora {

class X11Connection;

// _NET_ACTIVE_WINDOW on the root window and the active window's _NET_WM_PID, on a connection of its own.
class X11ActiveWindowTracker : public ActiveApplicationTracker
{
public:
    explicit X11ActiveWindowTracker(std::unique_ptr<X11Connection> connection);
    ~X11ActiveWindowTracker() override;

    std::optional<qint64> activeProcess() override;
    void watch(std::function<void(std::optional<qint64>)> onActivated) override;

private:
    std::unique_ptr<X11Connection> m_x;
    std::function<void(std::optional<qint64>)> m_onActivated;
};

} // namespace velnora
