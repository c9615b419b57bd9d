#pragma once

#include "base/ProcessArguments.h"

// The run modes of the browser bridge.
namespace velnora::BridgeCommands {

// Chrome's native-messaging host: a QCoreApplication only, never the display.
int runNativeHost(const ProcessArguments& arguments);
// "--bridge-status": status line and advice; 0 when connected, 2 otherwise.
int runBridgeStatus(const ProcessArguments& arguments);
int runBrowserRepairSelfTest(const ProcessArguments& arguments);
int runBrowserWakeSelfTest(const ProcessArguments& arguments);
// "--browser-page-check <service>": the page self-check's sentence; 0 when the page is ready to use.
int runBrowserPageCheck(const ProcessArguments& arguments);
int runInstallerSelfTest(const ProcessArguments& arguments);
int runDiagnosticsSelfTest(const ProcessArguments& arguments);

} // namespace velnora::BridgeCommands
