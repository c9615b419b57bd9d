#include "app/BridgeCommands.h"

#include "app/ModeResult.h"
#include "bridge/BridgeDiagnostics.h"
#include "bridge/BridgeRepair.h"
#include "bridge/BridgeSelfChecks.h"
#include "bridge/BundledExtension.h"
#include "bridge/FileSystemError.h"
#include "bridge/NativeHostInstaller.h"
#include "bridge/NativeMessagingHost.h"
#include "bridge/RequestStore.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <csignal>

namespace velnora::BridgeCommands {

namespace {

constexpr double bridgeMaximumAge = 4.0;

// Runs the event loop for a slice of time, so timers and queued calls keep going while we poll.
void pumpFor(int milliseconds)
{
    const QDeadlineTimer slice(milliseconds);
    while (!slice.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents,
                                        int(std::max<qint64>(slice.remainingTime(), 1)));
    }
}

} // namespace

int runNativeHost(const ProcessArguments& arguments)
{
    // Chrome may close our output before our input; a failed write must not kill the host.
    std::signal(SIGPIPE, SIG_IGN);
    QCoreApplication application(arguments.argc(), arguments.argv());
    RequestStore store;
    NativeMessagingHost host(store);
    host.run();
    return 0;
}

int runBridgeStatus(const ProcessArguments&)
{
    const RequestStore store;
    const BridgeDiagnosis diagnosis =
        BridgeDiagnostics::diagnoseCurrent(store.isBridgeActive(bridgeMaximumAge));
    ModeResult::printLine(diagnosis.statusText());
    ModeResult::printLine(diagnosis.advice());
    if (diagnosis.concernsExtensionInstall()) {
        if (const std::optional<QString> folder = BundledExtension::folderURL()) {
            ModeResult::printLine(QStringLiteral("扩展目录：") + *folder);
        }
    }
    return diagnosis == BridgeDiagnosis::connected() ? 0 : 2;
}

int runBrowserRepairSelfTest(const ProcessArguments& arguments)
{
    QCoreApplication application(arguments.argc(), arguments.argv());
    const RequestStore store;
    std::optional<BridgeDiagnosis> outcome;
    BridgeRepair::attempt(store, 12, [&outcome](const BridgeDiagnosis& diagnosis) { outcome = diagnosis; });
    // The repair has its own 12-second limit; this one only guards against a completion that never comes.
    const QDeadlineTimer guard(20000);
    while (!outcome && !guard.hasExpired()) {
        pumpFor(100);
    }
    const bool connected = outcome == BridgeDiagnosis::connected();
    ModeResult::printLine(QStringLiteral("browser-repair-self-test: ") +
                          (connected ? QStringLiteral("ok") : QStringLiteral("connection timed out")));
    return connected ? 0 : 1;
}

int runBrowserWakeSelfTest(const ProcessArguments& arguments)
{
    const QString mode = QStringLiteral("browser-wake-self-test: ");
    QCoreApplication application(arguments.argc(), arguments.argv());
    RequestStore store;
    BridgeRequest request;
    try {
        NativeHostInstaller::installForAllBrowsers();
        request = store.enqueue(BridgeRequestType::openWorkbench, std::nullopt, QStringLiteral("kimi"));
    } catch (const FileSystemError& error) {
        ModeResult::printErrorLine(mode + error.description());
        return 1;
    }
    if (!BridgeDiagnostics::isChromeRunning() || !store.isBridgeActive(bridgeMaximumAge)) {
        BridgeRepair::launchChrome();
    }
    if (RequestStore::isValidRequestIdentifier(request.id)) {
        const QDeadlineTimer deadline(25000);
        while (store.contains(request.id) && !deadline.hasExpired()) {
            pumpFor(100);
        }
    }
    if (store.contains(request.id)) {
        try {
            store.acknowledge(request.id);
        } catch (const FileSystemError&) {
        }
        ModeResult::printLine(mode + QStringLiteral("delivery timed out"));
        return 1;
    }
    ModeResult::printLine(mode + QStringLiteral("ok"));
    return 0;
}

int runInstallerSelfTest(const ProcessArguments&)
{
    return ModeResult::report(QStringLiteral("native-host-installer-self-test"),
                              BridgeSelfChecks::installerFailure());
}

int runDiagnosticsSelfTest(const ProcessArguments&)
{
    return ModeResult::report(QStringLiteral("bridge-diagnostics-self-test"),
                              BridgeSelfChecks::diagnosticsFailure());
}

} // namespace velnora::BridgeCommands
