// The browser bridge's costs as the user feels them: how fast a host Chrome starts is ready, what it
// keeps resident, how long a request waits between enqueue and delivery, what a queue scan costs, and
// what one diagnosis of the browsers costs (the settings window makes one every two seconds).
#include "BenchStatistics.h"
#include "bridge/BridgeDiagnostics.h"
#include "bridge/RequestStore.h"
#include "config/ProviderCatalog.h"
#include "support/NativeHostClient.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <benchmark/benchmark.h>
#include <unistd.h>
#include <vector>

using velnora::BridgeRequestType;
using velnora::RequestStore;
using velnora::test::NativeHostClient;

namespace {

using velnora::bench::percentile;

std::unique_ptr<NativeHostClient> startHost(const QString& dataDirectory, double* readyMilliseconds = nullptr)
{
    auto host = std::make_unique<NativeHostClient>();
    host->setEnvironmentValue(QStringLiteral("VELNORA_DATA_DIR"), dataDirectory);
    QElapsedTimer timer;
    timer.start();
    if (!host->start(QStringLiteral(VELNORA_BINARY_PATH)) || !host->receive(10000)) {
        return nullptr;
    }
    if (readyMilliseconds) {
        *readyMilliseconds = double(timer.nsecsElapsed()) / 1e6;
    }
    return host;
}

void BM_HostStartToReady(benchmark::State& state)
{
    QTemporaryDir data;
    std::vector<double> samples;
    for (auto _ : state) {
        double milliseconds = 0;
        auto host = startHost(data.path(), &milliseconds);
        if (!host) {
            state.SkipWithError("host did not announce itself");
            return;
        }
        state.SetIterationTime(milliseconds / 1000);
        samples.push_back(milliseconds);
        host->closeInput();
        host->waitForExit(5000);
    }
    state.counters["p50_ms"] = percentile(samples, 0.5);
    state.counters["p90_ms"] = percentile(samples, 0.9);
}
BENCHMARK(BM_HostStartToReady)->UseManualTime()->Iterations(30)->Unit(benchmark::kMillisecond);

void BM_EnqueueToDelivery(benchmark::State& state)
{
    QTemporaryDir data;
    RequestStore store(data.path());
    auto host = startHost(data.path());
    if (!host) {
        state.SkipWithError("host did not start");
        return;
    }
    std::vector<double> samples;
    for (auto _ : state) {
        QElapsedTimer timer;
        timer.start();
        const velnora::BridgeRequest request = store.enqueue(
            BridgeRequestType::explainText, QStringLiteral("什么是熵？"), QStringLiteral("kimi"));
        const std::optional<QJsonObject> delivered = host->receiveMessage(5000);
        const double milliseconds = double(timer.nsecsElapsed()) / 1e6;
        if (!delivered || delivered->value(QStringLiteral("requestId")).toString() != request.id) {
            state.SkipWithError("request not delivered");
            return;
        }
        state.SetIterationTime(milliseconds / 1000);
        samples.push_back(milliseconds);
        host->send({{"type", "ACK_REQUEST"}, {"requestId", request.id}});
    }
    state.counters["p50_ms"] = percentile(samples, 0.5);
    state.counters["p90_ms"] = percentile(samples, 0.9);
    state.counters["max_ms"] = percentile(samples, 1.0);
}
BENCHMARK(BM_EnqueueToDelivery)->UseManualTime()->Iterations(300)->Unit(benchmark::kMillisecond);

// Resident memory of a host that has carried a few hundred requests.
void BM_HostResidentMemory(benchmark::State& state)
{
    QTemporaryDir data;
    RequestStore store(data.path());
    for (auto _ : state) {
        auto host = startHost(data.path());
        if (!host) {
            state.SkipWithError("host did not start");
            return;
        }
        for (int i = 0; i < 300; ++i) {
            const velnora::BridgeRequest request = store.enqueue(BridgeRequestType::newSession);
            host->receiveMessage(5000);
            host->send({{"type", "ACK_REQUEST"}, {"requestId", request.id}});
        }
        QFile status(QStringLiteral("/proc/%1/status").arg(host->processId()));
        status.open(QIODevice::ReadOnly);
        for (const QByteArray& line : status.readAll().split('\n')) {
            if (line.startsWith("VmRSS:") || line.startsWith("VmHWM:")) {
                state.counters[line.startsWith("VmRSS:") ? "rss_kib" : "peak_rss_kib"] =
                    line.mid(6).trimmed().split(' ').value(0).toDouble();
            }
        }
    }
}
BENCHMARK(BM_HostResidentMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

// One host scan's listing and decoding with N requests waiting.
void BM_PendingScan(benchmark::State& state)
{
    QTemporaryDir data;
    RequestStore store(data.path());
    for (int64_t i = 0; i < state.range(0); ++i) {
        store.enqueue(BridgeRequestType::explainText, QString(200, u'字'), QStringLiteral("doubao"));
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(store.pendingRequests());
    }
}
BENCHMARK(BM_PendingScan)->Arg(1)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

void writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (file.open(QIODevice::WriteOnly)) {
        file.write(bytes);
    }
}

// A Chrome without the extension beside a running Firefox whose profile lists it among Firefox's own
// dozen add-ons, as a Debian desktop has them.
void BM_DiagnoseChromeAndFirefox(benchmark::State& state)
{
    QTemporaryDir home;
    qputenv("HOME", QFile::encodeName(home.path()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath(".config")));
    qputenv("VELNORA_DATA_DIR", QFile::encodeName(home.filePath("data")));
    writeFile(home.filePath(".config/google-chrome/Local State"), R"({"profile":{"last_used":"Default"}})");
    writeFile(home.filePath(".config/google-chrome/Default/Preferences"),
              R"({"extensions":{"settings":{}}})");
    writeFile(home.filePath(".mozilla/firefox/profiles.ini"),
              "[Profile0]\nPath=p.default-release\nDefault=1\n");
    QJsonArray addons{QJsonObject{{"id", velnora::ExplainerConstants::firefoxExtensionIdentifier()}}};
    for (int i = 0; i < 12; ++i) {
        addons.append(QJsonObject{{"id", QStringLiteral("builtin-%1@mozilla.org").arg(i)},
                                  {"defaultLocale", QJsonObject{{"description", QString(600, u'x')}}}});
    }
    const QString profile = home.filePath(".mozilla/firefox/p.default-release/");
    writeFile(profile + "extensions.json", QJsonDocument(QJsonObject{{"addons", addons}}).toJson());
    QFile::link(QStringLiteral("127.0.1.1:+%1").arg(::getpid()), profile + "lock");
    for (auto _ : state) {
        benchmark::DoNotOptimize(velnora::BridgeDiagnostics::diagnoseCurrent(false));
    }
}
BENCHMARK(BM_DiagnoseChromeAndFirefox)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
