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

bool isChromeRunning()
{
    const ChromiumBrowsers::Browser& browser = ChromiumBrowsers::primary();
    return ChromiumBrowsers::isRunning(browser, ChromiumBrowsers::userDataDirectory(browser));
}

QString manifestURL()
{
    return QDir(NativeHostInstaller::hostDirectoryURL())
        .filePath(QString::fromLatin1(NativeHostInstaller::manifestFileName));
}

BridgeDiagnosis diagnose(bool bridgeActive, const QString& manifestURL, const QString& extensionIdentifier,
                         bool chromeRunning, const std::function<ChromeExtensionInstall()>& chromeInstall)
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
    return BridgeDiagnosis::extensionSilent(chromeInstall());
}

BridgeDiagnosis diagnoseCurrent(bool bridgeActive)
{
    const QString identifier = ExplainerConstants::extensionIdentifier();
    return diagnose(bridgeActive, manifestURL(), identifier, !bridgeActive && isChromeRunning(),
                    [&identifier] { return ChromeProfileProbe::inspectCached(3, identifier); });
}

} // namespace velnora::BridgeDiagnostics
