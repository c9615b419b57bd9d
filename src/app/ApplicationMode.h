#pragma once

#include "base/ProcessArguments.h"

namespace velnora::ApplicationMode {

// Why no graphical session can be opened, in Chinese; empty when one can.
QString missingDisplayReason();
// The names, version, desktop entry and font every window and notification of ours carries.
void nameApplication();
// Starts the tray application and runs its event loop.
int run(const ProcessArguments& arguments);

} // namespace velnora::ApplicationMode
