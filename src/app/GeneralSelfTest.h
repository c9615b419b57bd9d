#pragma once

#include "base/ProcessArguments.h"

#include <QString>

// "--self-test": every subsystem's own checks that need neither network nor a display, then the
// application shell's (menu texts, length limit, login entry, control names).
namespace velnora::GeneralSelfTest {

int run(const ProcessArguments& arguments);
// The first failure in words, or an empty string. Needs a QApplication (the Markdown checks lay out text).
QString failure();
QString shellFailure();

} // namespace velnora::GeneralSelfTest
