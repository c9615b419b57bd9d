#pragma once

#include "bridge/BridgeDiagnosis.h"
#include "bridge/RequestStore.h"

#include <functional>

// The "修复连接" action: rewrite the manifest, wake the browser in the background, wait for the host.
// Runs on the calling thread's event loop; completions come back there.
namespace velnora::BridgeRepair {

// Installs the manifests, launches the browser unless it runs with a live host, waits up to timeout
// seconds for the heartbeat, then hands over a fresh diagnosis.
void attempt(const RequestStore& store, double timeout,
             std::function<void(const BridgeDiagnosis&)> completion);

// Checks the heartbeat every 0.5 s until it is fresh or the deadline (seconds from now) has passed.
void waitForBridge(const RequestStore& store, double secondsLeft, std::function<void(bool)> completion);

// Starts the diagnosed browser (Chromium with "--no-startup-window", Firefox as it is), else the first
// browser found on PATH; detached, output to /dev/null; at most once every 4 seconds. False when nothing
// was started (too soon, or no browser on PATH).
bool launchChrome();

} // namespace velnora::BridgeRepair
