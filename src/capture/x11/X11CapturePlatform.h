#pragma once

#include "capture/ActiveApplicationTracker.h"
#include "capture/CapturePlatform.h"
#include "capture/HotKeyBackend.h"

#include <memory>

// The X11 backend of every capture interface; each returns null when no X display answers.
namespace velnora::X11CapturePlatform {

CapturePlatform create();
std::unique_ptr<HotKeyBackend> createHotKeyBackend();
std::unique_ptr<ActiveApplicationTracker> createActiveApplicationTracker();
bool isDisplayReachable();

} // namespace velnora::X11CapturePlatform
