#pragma once

#include "bridge/BrowserFamily.h"
#include "bridge/ChromeExtensionInstall.h"

#include <QString>

namespace velnora {

// The one reason the browser bridge works or does not, with its menu line and its advice.
struct BridgeDiagnosis
{
    enum class Kind {
        manifestPathBroken,
        manifestOriginMismatch,
        extensionSilent,
        connected,
        manifestMissing,
        chromeNotRunning,
        sandboxedBrowser
    };

    Kind kind = Kind::manifestMissing;
    QString path; // manifestPathBroken: where the manifest points; sandboxedBrowser: its name
    ChromeExtensionInstall install;                 // extensionSilent: what the profile files say
    BrowserFamily family = BrowserFamily::chromium; // which browser the sentences name

    static BridgeDiagnosis manifestPathBroken(QString path)
    {
        return {Kind::manifestPathBroken, std::move(path), {}};
    }
    static BridgeDiagnosis manifestOriginMismatch() { return {Kind::manifestOriginMismatch, {}, {}}; }
    static BridgeDiagnosis extensionSilent(ChromeExtensionInstall install)
    {
        return {Kind::extensionSilent, {}, std::move(install)};
    }
    static BridgeDiagnosis connected() { return {Kind::connected, {}, {}}; }
    static BridgeDiagnosis manifestMissing() { return {Kind::manifestMissing, {}, {}}; }
    static BridgeDiagnosis chromeNotRunning() { return {Kind::chromeNotRunning, {}, {}}; }
    // A Flatpak or Snap browser runs the extension but cannot start our host outside its sandbox.
    static BridgeDiagnosis sandboxedBrowser(QString browserTitle)
    {
        return {Kind::sandboxedBrowser, std::move(browserTitle), {}};
    }

    BridgeDiagnosis inFirefox() const
    {
        BridgeDiagnosis copy = *this;
        copy.family = BrowserFamily::firefox;
        return copy;
    }

    // "Chrome" or "Firefox", as the sentences name the browser.
    QString browserName() const
    {
        return family == BrowserFamily::firefox ? QStringLiteral("Firefox") : QStringLiteral("Chrome");
    }
    QString statusText() const;
    QString advice() const;
    // The extension itself is missing or of the wrong edition: pointing at the bundled folder helps.
    bool concernsExtensionInstall() const;

    friend bool operator==(const BridgeDiagnosis&, const BridgeDiagnosis&) = default;
};

} // namespace velnora
