#include "bridge/BridgeDiagnostics.h"

#include "bridge/ChromeProfileProbe.h"
#include "bridge/NativeHostInstaller.h"
#include "bridge/RequestStore.h"
#include "config/ProviderCatalog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <unistd.h>

namespace velnora::BridgeDiagnostics {

namespace {

std::vector<DiagnosedBrowser> candidates()
{
    std::vector<DiagnosedBrowser> found;
    const QString identifier = ExplainerConstants::extensionIdentifier();
    for (const ChromiumBrowsers::Browser& browser : ChromiumBrowsers::all()) {
        if (!ChromiumBrowsers::hasUserDataDirectory(browser)) {
            continue;
        }
        const QString folder = ChromiumBrowsers::userDataDirectory(browser);
        found.push_back({BrowserFamily::chromium, &browser, nullptr, folder,
                         ChromiumBrowsers::isRunning(browser, folder),
                         ChromeProfileProbe::inspectCached(3, identifier, folder).kind});
    }
    const QString gecko = ExplainerConstants::firefoxExtensionIdentifier();
    for (const FirefoxBrowser::Installation& firefox : FirefoxBrowser::all()) {
        const std::optional<QString> profile =
            FirefoxBrowser::defaultProfile(FirefoxBrowser::profilesRoot(firefox));
        if (profile) {
            found.push_back({BrowserFamily::firefox, nullptr, &firefox, *profile,
                             FirefoxBrowser::isRunning(*profile, firefox.sandboxed),
                             FirefoxBrowser::inspect(gecko, *profile).kind});
        }
    }
    return found;
}

DiagnosedBrowser primaryChromium()
{
    const ChromiumBrowsers::Browser& browser = ChromiumBrowsers::primary();
    return {BrowserFamily::chromium,
            &browser,
            nullptr,
            ChromiumBrowsers::userDataDirectory(browser),
            false,
            ChromeExtensionInstall::Kind::unknown};
}

bool admits(const QJsonValue& list, const QString& wanted)
{
    bool admitted = false;
    bool allStrings = list.isArray();
    for (const QJsonValue& entry : list.toArray()) {
        allStrings = allStrings && entry.isString();
        admitted = admitted || entry.toString() == wanted;
    }
    return allStrings && admitted;
}

BrowserFamily connectedFamily()
{
    QFile file(RequestStore().extensionStatusFilePath());
    const QJsonValue identifier =
        file.open(QIODevice::ReadOnly)
            ? QJsonDocument::fromJson(file.read(4096)).object().value(QStringLiteral("extensionID"))
            : QJsonValue();
    return identifier.toString() == ExplainerConstants::firefoxExtensionIdentifier()
               ? BrowserFamily::firefox
               : BrowserFamily::chromium;
}

} // namespace

DiagnosedBrowser diagnosedBrowser()
{
    const std::vector<DiagnosedBrowser> all = candidates();
    const auto first = [&all](const std::function<bool(const DiagnosedBrowser&)>& wanted) {
        const auto it = std::find_if(all.begin(), all.end(), wanted);
        return it == all.end() ? std::optional<DiagnosedBrowser>() : std::optional(*it);
    };
    if (const auto found = first([](const auto& b) { return b.running && b.hasExtension(); })) {
        return *found;
    }
    if (const auto found = first([](const auto& b) { return b.hasExtension(); })) {
        return *found;
    }
    if (const auto found = first([](const auto& b) { return b.running; })) {
        return *found;
    }
    const bool chromiumInUse =
        std::any_of(ChromiumBrowsers::all().begin(), ChromiumBrowsers::all().end(),
                    [](const auto& browser) { return ChromiumBrowsers::isInUse(browser); });
    if (!chromiumInUse) {
        if (const auto found = first([](const auto& b) { return b.family == BrowserFamily::firefox; })) {
            return *found;
        }
    }
    return primaryChromium();
}

bool isChromeRunning()
{
    return diagnosedBrowser().running;
}

QString manifestURL(const DiagnosedBrowser& browser)
{
    const QString folder = browser.firefox
                               ? FirefoxBrowser::nativeMessagingHostsDirectory(*browser.firefox)
                               : ChromiumBrowsers::nativeMessagingHostsDirectory(*browser.chromium);
    return QDir(folder).filePath(QString::fromLatin1(NativeHostInstaller::manifestFileName));
}

BridgeDiagnosis diagnose(bool bridgeActive, const QString& manifestURL, const QString& extensionIdentifier,
                         bool chromeRunning, const std::function<ChromeExtensionInstall()>& chromeInstall,
                         const QString& sandboxedBrowserTitle, BrowserFamily family)
{
    const auto named = [family](BridgeDiagnosis diagnosis) {
        return family == BrowserFamily::firefox ? diagnosis.inFirefox() : diagnosis;
    };
    if (bridgeActive) {
        return named(BridgeDiagnosis::connected());
    }
    QFile file(manifestURL);
    if (!file.open(QIODevice::ReadOnly)) {
        return named(BridgeDiagnosis::manifestMissing());
    }
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    const QJsonObject manifest = document.object();
    const QJsonValue path = manifest.value(QStringLiteral("path"));
    if (!document.isObject() || !path.isString() || path.toString().isEmpty()) {
        return named(BridgeDiagnosis::manifestMissing());
    }
    const QFileInfo executable(path.toString());
    if (!executable.isFile() || ::access(QFile::encodeName(path.toString()).constData(), X_OK) != 0) {
        return named(BridgeDiagnosis::manifestPathBroken(path.toString()));
    }
    const bool admitted =
        family == BrowserFamily::firefox
            ? admits(manifest.value(QStringLiteral("allowed_extensions")), extensionIdentifier)
            : admits(manifest.value(QStringLiteral("allowed_origins")),
                     QStringLiteral("chrome-extension://") + extensionIdentifier + u'/');
    if (!admitted) {
        return named(BridgeDiagnosis::manifestOriginMismatch());
    }
    if (!chromeRunning) {
        return named(BridgeDiagnosis::chromeNotRunning());
    }
    if (!sandboxedBrowserTitle.isEmpty()) {
        return named(BridgeDiagnosis::sandboxedBrowser(sandboxedBrowserTitle));
    }
    return named(BridgeDiagnosis::extensionSilent(chromeInstall()));
}

BridgeDiagnosis diagnoseCurrent(bool bridgeActive)
{
    if (bridgeActive) {
        const BridgeDiagnosis connected = BridgeDiagnosis::connected();
        return connectedFamily() == BrowserFamily::firefox ? connected.inFirefox() : connected;
    }
    const DiagnosedBrowser browser = diagnosedBrowser();
    if (browser.firefox) {
        const QString gecko = ExplainerConstants::firefoxExtensionIdentifier();
        return diagnose(
            false, manifestURL(browser), gecko, browser.running,
            [&] { return FirefoxBrowser::inspect(gecko, browser.dataFolder); },
            browser.firefox->sandboxed ? browser.firefox->title : QString(), BrowserFamily::firefox);
    }
    const QString identifier = ExplainerConstants::extensionIdentifier();
    const bool sandboxed = browser.chromium->sandbox != ChromiumBrowsers::Browser::Sandbox::none;
    return diagnose(
        false, manifestURL(browser), identifier, browser.running,
        [&] { return ChromeProfileProbe::inspectCached(3, identifier, browser.dataFolder); },
        sandboxed ? browser.chromium->title : QString());
}

} // namespace velnora::BridgeDiagnostics
