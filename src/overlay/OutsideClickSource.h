#pragma once

#include <QPoint>

#include <functional>
#include <memory>

namespace velnora {

// Reports left and right mouse presses anywhere on the desktop, also in other applications, while the
// card is shown. Behind an interface so that tests can click where no pointer can.
class OutsideClickSource
{
public:
    using Handler = std::function<void(const QPoint& globalPosition)>;

    virtual ~OutsideClickSource() = default;
    // Replaces any running watch. False when the desktop cannot report clicks (no X server, no XInput2).
    virtual bool start(Handler handler) = 0;
    virtual void stop() = 0;
    virtual bool isActive() const = 0;

    // The source for the running platform: XInput2 raw events on X11, none elsewhere.
    static std::unique_ptr<OutsideClickSource> createDefault();
};

} // namespace velnora
