#pragma once

#include "base/ProcessArguments.h"

namespace velnora::UpdateRunModes {

// "--update-self-test": the manifest and version checks, one result line.
int runUpdateSelfTest(const ProcessArguments& arguments);
// "--updates-preview": the About window on its own, until it is closed.
int runUpdatesPreview(const ProcessArguments& arguments);

} // namespace velnora::UpdateRunModes
