#pragma once

#include <QString>

// Built-in checks of the "--native-host-installer-self-test" and "--bridge-diagnostics-self-test" modes.
// Each works in a private temporary folder and returns the first failure in words, or an empty string.
namespace velnora::BridgeSelfChecks {

QString installerFailure();
QString diagnosticsFailure();

} // namespace velnora::BridgeSelfChecks
