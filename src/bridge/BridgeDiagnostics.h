#pragma once

#include "bridge/BridgeDiagnosis.h"

#include <QString>
#include <functional>

// Decides which single BridgeDiagnosis applies. Never fails: unreadable input maps to a diagnosis.
namespace velnora::BridgeDiagnostics {

// A browser process of the primary browser's default data folder is alive.
bool isChromeRunning();

// First match wins: heartbeat, manifest readable, its path executable, its origin, browser running,
// then the extension install (evaluated only when every earlier check passed).
BridgeDiagnosis diagnose(bool bridgeActive, const QString& manifestURL, const QString& extensionIdentifier,
                         bool chromeRunning, const std::function<ChromeExtensionInstall()>& chromeInstall);

// The diagnosis of this user's setup right now, as the status command and the repair see it.
BridgeDiagnosis diagnoseCurrent(bool bridgeActive);

// The primary browser's manifest file.
QString manifestURL();

} // namespace velnora::BridgeDiagnostics
