#pragma once

#include "bridge/BridgeDiagnosis.h"
#include "bridge/ChromiumBrowsers.h"
#include "bridge/FirefoxBrowser.h"

#include <QString>
#include <functional>

// Decides which single BridgeDiagnosis applies. Never fails: unreadable input maps to a diagnosis.
namespace velnora::BridgeDiagnostics {

// The browser the diagnosis is about, Chromium family or Firefox.
struct DiagnosedBrowser
{
    BrowserFamily family = BrowserFamily::chromium;
    const ChromiumBrowsers::Browser* chromium = nullptr;
    const FirefoxBrowser::Installation* firefox = nullptr;
    QString dataFolder; // Chromium: the user-data-dir; Firefox: the default profile
    bool running = false;
    ChromeExtensionInstall::Kind install = ChromeExtensionInstall::Kind::unknown;

    bool hasExtension() const
    {
        return install == ChromeExtensionInstall::Kind::installed ||
               install == ChromeExtensionInstall::Kind::unpacked;
    }
};

// A running browser with our extension, else one with it that is closed (so waking starts the right
// one), else a running one, else Firefox when it is the only browser in use, else where manifests go
// first. With Chromium running and Chrome closed, that is Chromium.
DiagnosedBrowser diagnosedBrowser();

// A browser process of the diagnosed browser's data folder is alive.
bool isChromeRunning();

// First match wins: heartbeat, manifest readable, its path executable, its admission of the extension
// (an origin for Chromium, the gecko ID for Firefox), browser running, a sandboxed browser (named by
// sandboxedBrowserTitle), then the extension install (evaluated only when every earlier check passed).
BridgeDiagnosis diagnose(bool bridgeActive, const QString& manifestURL, const QString& extensionIdentifier,
                         bool chromeRunning, const std::function<ChromeExtensionInstall()>& chromeInstall,
                         const QString& sandboxedBrowserTitle = {},
                         BrowserFamily family = BrowserFamily::chromium);

// The diagnosis of this user's setup right now, as the status command and the repair see it. A live
// bridge is Firefox's when the last extension status came with the gecko ID.
BridgeDiagnosis diagnoseCurrent(bool bridgeActive);

// That browser's manifest file.
QString manifestURL(const DiagnosedBrowser& browser);

} // namespace velnora::BridgeDiagnostics
