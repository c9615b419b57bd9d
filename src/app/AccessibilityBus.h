#pragma once

#include <optional>

// The desktop's accessibility switch (org.a11y.Status on the session bus): applications expose their
// text to AT-SPI only while it is on, and read it when they start.
namespace velnora::AccessibilityBus {

// None when the session has no accessibility bus at all.
std::optional<bool> isEnabled();
// Turns it on for applications started afterwards; false when that failed.
bool enable();

} // namespace velnora::AccessibilityBus
