#pragma once

#include "base/ProcessArguments.h"

namespace velnora::AccessibilityCheck {

// --check-accessibility: prints "trusted" (status 0) when capture can work in this session, else
// "not-trusted" (status 2).
int run(const ProcessArguments& arguments);

} // namespace velnora::AccessibilityCheck
