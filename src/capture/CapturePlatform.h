#pragma once

#include "capture/AccessibilityProbe.h"
#include "capture/ActiveApplicationTracker.h"
#include "capture/ClipboardAccess.h"
#include "capture/HotKeyBackend.h"
#include "capture/KeyStrokeInjector.h"

#include <memory>

namespace velnora {

// The platform's capture mechanisms. This is the one place that picks a backend, at run time;
// VELNORA_CAPTURE_BACKEND=none forces a session without any. Members are null where the session offers
// no such mechanism (no display at all; Wayland without XWayland).
struct CapturePlatform
{
    enum class Backend { x11, none };
    static Backend currentBackend();

    std::unique_ptr<AccessibilityProbe> accessibility;
    std::unique_ptr<ClipboardAccess> clipboard;
    std::unique_ptr<KeyStrokeInjector> keyboard;
    // On Wayland the accessibility layer's "screen" extents are relative to the window, so the card
    // cannot go beside the selection.
    bool extentsAreScreenCoordinates = true;

    static CapturePlatform create();
    // On Wayland the desktop's GlobalShortcuts portal, and none without one: an X11 grab through
    // XWayland fires only while an X11 window has focus. VELNORA_HOTKEY_BACKEND=portal forces the portal.
    static std::unique_ptr<HotKeyBackend> createHotKeyBackend();
    static bool isWaylandSession();
    static std::unique_ptr<ActiveApplicationTracker> createActiveApplicationTracker();
    // Capture can work in this session: an X display answers (XTest and the selections need no
    // permission there).
    static bool isTrusted();
};

} // namespace velnora
