#include "capture/x11/X11CapturePlatform.h"

#include "capture/x11/AtspiAccessibilityProbe.h"
#include "capture/x11/X11ActiveWindowTracker.h"
#include "capture/x11/X11Clipboard.h"
#include "capture/x11/X11Connection.h"
#include "capture/x11/X11HotKeyBackend.h"
#include "capture/x11/X11Keyboard.h"

namespace velnora::X11CapturePlatform {

CapturePlatform create()
{
    CapturePlatform platform;
    std::shared_ptr<X11Connection> connection = X11Connection::open();
    if (!connection) {
        return platform;
    }
    platform.clipboard = std::make_unique<X11Clipboard>(connection);
    platform.keyboard = std::make_unique<X11Keyboard>(connection);
    platform.accessibility = std::make_unique<AtspiAccessibilityProbe>(
        [connection] { return connection->focusedWindow().processId; });
    return platform;
}

std::unique_ptr<HotKeyBackend> createHotKeyBackend()
{
    if (auto connection = X11Connection::open()) {
        return std::make_unique<X11HotKeyBackend>(std::move(connection));
    }
    return nullptr;
}

std::unique_ptr<ActiveApplicationTracker> createActiveApplicationTracker()
{
    if (auto connection = X11Connection::open()) {
        return std::make_unique<X11ActiveWindowTracker>(std::move(connection));
    }
    return nullptr;
}

bool isDisplayReachable()
{
    return X11Connection::open() != nullptr;
}

} // namespace velnora::X11CapturePlatform
