#include "app/BridgeCommands.h"

#include "base/ModeResult.h"
#include "bridge/BridgeDiagnostics.h"
#include "bridge/BridgeRepair.h"
#include "bridge/BridgeSelfChecks.h"
#include "bridge/BundledExtension.h"
#include "bridge/FileSystemError.h"
#include "bridge/NativeHostInstaller.h"
#include "bridge/NativeMessagingHost.h"
#include "bridge/PageSelfCheck.h"
#include "bridge/RequestStore.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <csignal>
#include <functional>

namespace velnora::BridgeCommands {

namespace {

using namespace std::chrono_literals;

constexpr double bridgeMaximumAge = 4.0;

// Runs the event loop, asleep between checks, until done() holds or the limit passes.
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit)
{
    QEventLoop loop;
    QTimer check;
    check.setInterval(100);
    QObject::connect(&check, &QTimer::timeout, &loop, [&] {
        if (done()) {
            loop.quit();
        }
    });
    QTimer::singleShot(limit, &loop, &QEventLoop::quit);
    check.start();
    if (!done()) {
        loop.exec();
    }
    return done();
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
    return diagnosis.kind == BridgeDiagnosis::Kind::connected ? 0 : 2;
}

int runBrowserRepairSelfTest(const ProcessArguments& arguments)
{
    QCoreApplication application(arguments.argc(), arguments.argv());
    const RequestStore store;
    std::optional<BridgeDiagnosis> outcome;
    BridgeRepair::attempt(store, 12, [&outcome](const BridgeDiagnosis& diagnosis) { outcome = diagnosis; });
    // The repair has its own 12-second limit; this one only guards against a completion that never comes.
    waitUntil([&outcome] { return outcome.has_value(); }, 20s);
    const bool connected = outcome && outcome->kind == BridgeDiagnosis::Kind::connected;
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
        waitUntil([&] { return !store.contains(request.id); }, 25s);
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

int runBrowserPageCheck(const ProcessArguments& arguments)
{
    QCoreApplication application(arguments.argc(), arguments.argv());
    const QString name = arguments.valueAfter(QStringLiteral("--browser-page-check")).value_or(QString());
    const std::optional<BrowserProvider> provider = fromRawValue<BrowserProvider>(name);
    if (!provider) {
        QStringList known;
        for (const BrowserProvider each : allCases<BrowserProvider>()) {
            known.append(rawValue(each));
        }
        ModeResult::printErrorLine(
            QStringLiteral("不认识的网页服务“%1”，可选：%2").arg(name, known.join(u'、')));
        return 2;
    }
    RequestStore store;
    PageSelfCheck check(store);
    std::optional<QString> sentence;
    bool ready = false;
    QObject::connect(&check, &PageSelfCheck::finished, [&](const QString& text, bool pageReady) {
        sentence = text;
        ready = pageReady;
    });
    check.start(*provider);
    waitUntil([&sentence] { return sentence.has_value(); },
              std::chrono::milliseconds(PageSelfCheck::timeoutMilliseconds + 5000));
    ModeResult::printLine(sentence.value_or(QStringLiteral("检测没有结束。")));
    return ready ? 0 : 1;
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
