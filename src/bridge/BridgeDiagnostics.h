#pragma once

#include "bridge/BridgeDiagnosis.h"
#include "bridge/ChromiumBrowsers.h"

#include <QString>
#include <functional>

// Decides which single BridgeDiagnosis applies. Never fails: unreadable input maps to a diagnosis.
namespace velnora::BridgeDiagnostics {

// The browser the diagnosis is about: a running one with our extension, else a running one, else the
// one manifests go to first. With Chromium running and Chrome closed, that is Chromium.
const ChromiumBrowsers::Browser& diagnosedBrowser();

// A browser process of the diagnosed browser's data folder is alive.
bool isChromeRunning();

// First match wins: heartbeat, manifest readable, its path executable, its origin, browser running,
// a sandboxed browser (named by sandboxedBrowserTitle), then the extension install (evaluated only
// when every earlier check passed).
BridgeDiagnosis diagnose(bool bridgeActive, const QString& manifestURL, const QString& extensionIdentifier,
                         bool chromeRunning, const std::function<ChromeExtensionInstall()>& chromeInstall,
                         const QString& sandboxedBrowserTitle = {});

// The diagnosis of this user's setup right now, as the status command and the repair see it.
BridgeDiagnosis diagnoseCurrent(bool bridgeActive);

// The diagnosed browser's manifest file.
QString manifestURL();

} // namespace velnora::BridgeDiagnostics
