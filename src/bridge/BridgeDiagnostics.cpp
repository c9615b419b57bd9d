#include "bridge/BridgeDiagnostics.h"

#include "bridge/ChromeProfileProbe.h"
#include "bridge/ChromiumBrowsers.h"
#include "bridge/NativeHostInstaller.h"
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

bool runs(const ChromiumBrowsers::Browser& browser)
{
    return ChromiumBrowsers::hasUserDataDirectory(browser) &&
           ChromiumBrowsers::isRunning(browser, ChromiumBrowsers::userDataDirectory(browser));
}

} // namespace

const ChromiumBrowsers::Browser& diagnosedBrowser()
{
    const QString identifier = ExplainerConstants::extensionIdentifier();
    const ChromiumBrowsers::Browser* firstRunning = nullptr;
    for (const ChromiumBrowsers::Browser& browser : ChromiumBrowsers::all()) {
        if (!runs(browser)) {
            continue;
        }
        const ChromeExtensionInstall::Kind install =
            ChromeProfileProbe::inspectCached(3, identifier, ChromiumBrowsers::userDataDirectory(browser))
                .kind;
        if (install == ChromeExtensionInstall::Kind::installed ||
            install == ChromeExtensionInstall::Kind::unpacked) {
            return browser;
        }
        if (!firstRunning) {
            firstRunning = &browser;
        }
    }
    return firstRunning ? *firstRunning : ChromiumBrowsers::primary();
}

bool isChromeRunning()
{
    return runs(diagnosedBrowser());
}

QString manifestURL()
{
    return QDir(ChromiumBrowsers::nativeMessagingHostsDirectory(diagnosedBrowser()))
        .filePath(QString::fromLatin1(NativeHostInstaller::manifestFileName));
}

BridgeDiagnosis diagnose(bool bridgeActive, const QString& manifestURL, const QString& extensionIdentifier,
                         bool chromeRunning, const std::function<ChromeExtensionInstall()>& chromeInstall,
                         const QString& sandboxedBrowserTitle)
{
    if (bridgeActive) {
        return BridgeDiagnosis::connected();
    }
    QFile file(manifestURL);
    if (!file.open(QIODevice::ReadOnly)) {
        return BridgeDiagnosis::manifestMissing();
    }
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    const QJsonObject manifest = document.object();
    const QJsonValue path = manifest.value(QStringLiteral("path"));
    if (!document.isObject() || !path.isString() || path.toString().isEmpty()) {
        return BridgeDiagnosis::manifestMissing();
    }
    const QFileInfo executable(path.toString());
    if (!executable.isFile() || ::access(QFile::encodeName(path.toString()).constData(), X_OK) != 0) {
        return BridgeDiagnosis::manifestPathBroken(path.toString());
    }
    const QJsonValue origins = manifest.value(QStringLiteral("allowed_origins"));
    const QString wanted = QStringLiteral("chrome-extension://") + extensionIdentifier + u'/';
    bool admitted = false;
    bool allStrings = origins.isArray();
    for (const QJsonValue& origin : origins.toArray()) {
        allStrings = allStrings && origin.isString();
        admitted = admitted || origin.toString() == wanted;
    }
    if (!allStrings || !admitted) {
        return BridgeDiagnosis::manifestOriginMismatch();
    }
    if (!chromeRunning) {
        return BridgeDiagnosis::chromeNotRunning();
    }
    if (!sandboxedBrowserTitle.isEmpty()) {
        return BridgeDiagnosis::sandboxedBrowser(sandboxedBrowserTitle);
    }
    return BridgeDiagnosis::extensionSilent(chromeInstall());
}

BridgeDiagnosis diagnoseCurrent(bool bridgeActive)
{
    if (bridgeActive) {
        return BridgeDiagnosis::connected();
    }
    const QString identifier = ExplainerConstants::extensionIdentifier();
    const ChromiumBrowsers::Browser& browser = diagnosedBrowser();
    const QString folder = ChromiumBrowsers::userDataDirectory(browser);
    const bool sandboxed = browser.sandbox != ChromiumBrowsers::Browser::Sandbox::none;
    return diagnose(
        false, manifestURL(), identifier, runs(browser),
        [&] { return ChromeProfileProbe::inspectCached(3, identifier, folder); },
        sandboxed ? browser.title : QString());
}

} // namespace velnora::BridgeDiagnostics
