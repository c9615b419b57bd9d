// The browser bridge's costs as the user feels them: how fast a host Chrome starts is ready, what it
// keeps resident, how long a request waits between enqueue and delivery, and what a queue scan costs.
#include "BenchStatistics.h"
#include "bridge/RequestStore.h"
#include "support/NativeHostClient.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <benchmark/benchmark.h>
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

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
