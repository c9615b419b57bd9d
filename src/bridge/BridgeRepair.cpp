#include "bridge/BridgeRepair.h"

#include "bridge/BridgeDiagnostics.h"
#include "bridge/ChromiumBrowsers.h"
#include "bridge/FileSystemError.h"
#include "bridge/FirefoxBrowser.h"
#include "bridge/NativeHostInstaller.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QProcess>
#include <QTimer>
#include <memory>
#include <mutex>

namespace velnora::BridgeRepair {

namespace {

constexpr double bridgeMaximumAge = 4.0;
constexpr int pollMilliseconds = 500;

void poll(RequestStore store, QDeadlineTimer deadline, std::function<void(bool)> completion)
{
    const bool active = store.isBridgeActive(bridgeMaximumAge);
    if (active || deadline.hasExpired()) {
        completion(active);
        return;
    }
    const int wait = int(std::min<qint64>(pollMilliseconds, std::max<qint64>(deadline.remainingTime(), 0)));
    QTimer::singleShot(wait,
                       [store = std::move(store), deadline, completion = std::move(completion)]() mutable {
                           poll(std::move(store), deadline, std::move(completion));
                       });
}

} // namespace

void waitForBridge(const RequestStore& store, double secondsLeft, std::function<void(bool)> completion)
{
    poll(store, QDeadlineTimer(qint64(secondsLeft * 1000)), std::move(completion));
}

void attempt(const RequestStore& store, double timeout,
             std::function<void(const BridgeDiagnosis&)> completion)
{
    try {
        NativeHostInstaller::installForAllBrowsers();
    } catch (const FileSystemError&) {
        // The diagnosis below reports the missing or broken manifest.
    }
    if (!(BridgeDiagnostics::isChromeRunning() && store.isBridgeActive(bridgeMaximumAge))) {
        launchChrome();
    }
    waitForBridge(store, timeout, [completion = std::move(completion)](bool active) {
        completion(BridgeDiagnostics::diagnoseCurrent(active));
    });
}

bool launchChrome()
{
    static std::mutex mutex;
    static QElapsedTimer lastLaunch;
    {
        const std::lock_guard lock(mutex);
        if (lastLaunch.isValid() && lastLaunch.elapsed() < 4000) {
            return false;
        }
        lastLaunch.start();
    }
    const BridgeDiagnostics::DiagnosedBrowser diagnosed = BridgeDiagnostics::diagnosedBrowser();
    std::optional<QString> program;
    QString hostsFolder;
    BrowserFamily family = BrowserFamily::chromium;
    if (diagnosed.firefox) {
        program = FirefoxBrowser::findProgram();
        hostsFolder = FirefoxBrowser::nativeMessagingHostsDirectory(*diagnosed.firefox);
        family = BrowserFamily::firefox;
    }
    std::vector<const ChromiumBrowsers::Browser*> chromium{diagnosed.chromium ? diagnosed.chromium
                                                                              : &ChromiumBrowsers::primary()};
    for (const ChromiumBrowsers::Browser& browser : ChromiumBrowsers::all()) {
        chromium.push_back(&browser);
    }
    for (const ChromiumBrowsers::Browser* browser : chromium) {
        if (program) {
            break;
        }
        program = ChromiumBrowsers::findProgram(*browser);
        hostsFolder = ChromiumBrowsers::nativeMessagingHostsDirectory(*browser);
    }
    // Debian's default browser may be the only one there is.
    if (!program && (program = FirefoxBrowser::findProgram())) {
        hostsFolder = FirefoxBrowser::nativeMessagingHostsDirectory(FirefoxBrowser::all().front());
        family = BrowserFamily::firefox;
    }
    if (!program) {
        return false;
    }
    // A browser started for the first time has no data folder yet, so nothing admitted our host there.
    try {
        NativeHostInstaller::install(hostsFolder, std::nullopt, family);
    } catch (const FileSystemError&) {
    }
    QProcess process;
    process.setProgram(*program);
    // Firefox has no windowless start on Linux: it opens its usual window, where the extension works.
    if (family == BrowserFamily::chromium) {
        process.setArguments({QStringLiteral("--no-startup-window")});
    }
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    return process.startDetached();
}

} // namespace velnora::BridgeRepair
