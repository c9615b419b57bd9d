#include "capture/CapturePlatform.h"

#include "capture/portal/PortalHotKeyBackend.h"
#include "capture/x11/X11CapturePlatform.h"

#include <QByteArray>

namespace velnora {

CapturePlatform::Backend CapturePlatform::currentBackend()
{
    if (qgetenv("VELNORA_CAPTURE_BACKEND") == "none") {
        return Backend::none;
    }
    // Wayland sessions run us through XWayland, so the X11 backend serves there too until one of their
    // own exists.
    return Backend::x11;
}

CapturePlatform CapturePlatform::create()
{
    switch (currentBackend()) {
    case Backend::x11: {
        CapturePlatform platform = X11CapturePlatform::create();
        platform.extentsAreScreenCoordinates = !isWaylandSession();
        return platform;
    }
    case Backend::none:
        break;
    }
    return {};
}

bool CapturePlatform::isWaylandSession()
{
    return !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") || qgetenv("XDG_SESSION_TYPE") == "wayland";
}

std::unique_ptr<HotKeyBackend> CapturePlatform::createHotKeyBackend()
{
    if (qgetenv("VELNORA_HOTKEY_BACKEND") == "portal" ||
        (currentBackend() != Backend::none && isWaylandSession())) {
        if (PortalHotKeyBackend::isAvailable()) {
            return std::make_unique<PortalHotKeyBackend>();
        }
        return nullptr;
    }
    switch (currentBackend()) {
    case Backend::x11:
        return X11CapturePlatform::createHotKeyBackend();
    case Backend::none:
        break;
    }
    return nullptr;
}

std::unique_ptr<ActiveApplicationTracker> CapturePlatform::createActiveApplicationTracker()
{
    switch (currentBackend()) {
    case Backend::x11:
        return X11CapturePlatform::createActiveApplicationTracker();
    case Backend::none:
        break;
    }
    return nullptr;
}

bool CapturePlatform::isTrusted()
{
    switch (currentBackend()) {
    case Backend::x11:
        return X11CapturePlatform::isDisplayReachable();
    case Backend::none:
        break;
    }
    return false;
}

} // namespace velnora
