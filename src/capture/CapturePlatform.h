#pragma once

#include "capture/AccessibilityProbe.h"
#include "capture/ClipboardAccess.h"
#include "capture/HotKeyBackend.h"
#include "capture/KeyStrokeInjector.h"

#include <memory>

namespace velnora {

// The platform's capture mechanisms, picked at run time. Members are null where the session offers
// no such mechanism (no display at all; Wayland without XWayland).
struct CapturePlatform
{
    std::unique_ptr<AccessibilityProbe> accessibility;
    std::unique_ptr<ClipboardAccess> clipboard;
    std::unique_ptr<KeyStrokeInjector> keyboard;

    static CapturePlatform create();
    static std::unique_ptr<HotKeyBackend> createHotKeyBackend();
    // Capture can work in this session: an X display answers (XTest and the selections need no
    // permission there).
    static bool isTrusted();
};

} // namespace velnora
