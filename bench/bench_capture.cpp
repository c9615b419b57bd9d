// Selection capture, measured in a private desktop session:
//   scripts/desktop-session.sh build/bench/bench_capture
// readSelection through AT-SPI (a Qt field with a selection), through PRIMARY (xclip), and the whole
// path from an xdotool hot-key press to the captured text (PRIMARY, and a GTK entry through AT-SPI).
#include "BenchStatistics.h"
#include "capture/GlobalHotKey.h"
#include "capture/SelectionReader.h"

#include <QApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QProcess>
#include <QTimer>
#include <benchmark/benchmark.h>
#include <vector>

namespace {

using namespace velnora;

void spinUntil(const std::function<bool()>& condition, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!condition() && !deadline.hasExpired()) {
        QEventLoop loop;
        QTimer::singleShot(5, &loop, &QEventLoop::quit);
        loop.exec();
    }
}

void reportPercentiles(benchmark::State& state, const std::vector<double>& milliseconds)
{
    state.counters["p50_ms"] = bench::percentile(milliseconds, 0.5);
    state.counters["p90_ms"] = bench::percentile(milliseconds, 0.9);
}

// xclip holds PRIMARY for the text, as another application's selection would.
void ownPrimary(QProcess& xclip)
{
    xclip.start(QStringLiteral("xclip"),
                {QStringLiteral("-quiet"), QStringLiteral("-selection"), QStringLiteral("primary")});
    xclip.write("words selected in another application");
    xclip.closeWriteChannel();
}

bool haveSession(benchmark::State& state)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY")) {
        state.SkipWithError("needs the private desktop session (scripts/desktop-session.sh)");
        return false;
    }
    return true;
}

void BM_ReadSelectionAccessible(benchmark::State& state)
{
    if (!haveSession(state)) {
        return;
    }
    QProcess fields;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), QStringLiteral("1"));
    fields.setProcessEnvironment(environment);
    fields.start(QStringLiteral(CAPTURE_TEST_CLIENT), {QStringLiteral("fields")});
    spinUntil([&] { return fields.canReadLine(); }, 10000);
    SelectionReader reader;
    spinUntil([&] { return reader.peekSelection(fields.processId()).has_value(); }, 10000);

    std::vector<double> times;
    for (auto _ : state) {
        QElapsedTimer timer;
        timer.start();
        try {
            const SelectionResult result = reader.readSelection();
            if (!result.anchorRect) {
                state.SkipWithError("the text did not come through AT-SPI");
                break;
            }
        } catch (...) {
            state.SkipWithError("readSelection failed");
            break;
        }
        times.push_back(timer.nsecsElapsed() / 1e6);
    }
    reportPercentiles(state, times);
    fields.kill();
    fields.waitForFinished();
}

void BM_ReadSelectionPrimary(benchmark::State& state)
{
    if (!haveSession(state)) {
        return;
    }
    QProcess xclip;
    ownPrimary(xclip);
    SelectionReader reader;
    spinUntil([] { return false; }, 200); // let xclip take PRIMARY

    std::vector<double> times;
    for (auto _ : state) {
        QElapsedTimer timer;
        timer.start();
        try {
            benchmark::DoNotOptimize(reader.readSelection());
        } catch (...) {
            state.SkipWithError("readSelection failed");
            break;
        }
        times.push_back(timer.nsecsElapsed() / 1e6);
    }
    reportPercentiles(state, times);
    xclip.kill();
    xclip.waitForFinished();
}

void BM_HotKeyToCapturedText(benchmark::State& state)
{
    if (!haveSession(state)) {
        return;
    }
    QProcess xclip;
    ownPrimary(xclip);
    SelectionReader reader;
    GlobalHotKey hotKey;
    int captured = 0;
    if (!hotKey.registerChoice(HotKeyChoice::choice(std::nullopt), [&] {
            try {
                reader.readSelection();
                ++captured;
            } catch (...) {
            }
        })) {
        state.SkipWithError("hot key taken");
        return;
    }
    std::vector<double> times;
    for (auto _ : state) {
        const int before = captured;
        QElapsedTimer timer;
        timer.start();
        // No delay between xdotool's key events, so the figure is ours rather than xdotool's pacing.
        QProcess::startDetached(QStringLiteral("xdotool"),
                                {QStringLiteral("key"), QStringLiteral("--delay"), QStringLiteral("0"),
                                 QStringLiteral("ctrl+alt+e")});
        spinUntil([&] { return captured > before; }, 3000);
        if (captured == before) {
            state.SkipWithError("the hot key did not fire");
            break;
        }
        times.push_back(timer.nsecsElapsed() / 1e6);
    }
    reportPercentiles(state, times);
    xclip.kill();
    xclip.waitForFinished();
}

// The hot key in a GTK entry: its grab deactivates the window until the key is up, so this is the
// figure a GTK user meets, anchor included.
void BM_HotKeyToCapturedTextGtk(benchmark::State& state)
{
    if (!haveSession(state)) {
        return;
    }
    QProcess gtk;
    gtk.start(QStringLiteral("/usr/bin/python3"),
              {QStringLiteral(CAPTURE_SOURCES_DIR "/gtk_source.py"), QStringLiteral("entry")});
    spinUntil([&] { return gtk.canReadLine(); }, 10000);
    SelectionReader reader;
    GlobalHotKey hotKey;
    int anchored = 0;
    if (!hotKey.registerChoice(HotKeyChoice::choice(std::nullopt), [&] {
            try {
                anchored += reader.readSelection().anchorRect.has_value() ? 1 : 0;
            } catch (...) {
            }
        })) {
        state.SkipWithError("hot key taken");
        return;
    }
    std::vector<double> times;
    for (auto _ : state) {
        const int before = anchored;
        QElapsedTimer timer;
        timer.start();
        QProcess::startDetached(QStringLiteral("xdotool"),
                                {QStringLiteral("key"), QStringLiteral("--delay"), QStringLiteral("0"),
                                 QStringLiteral("ctrl+alt+e")});
        spinUntil([&] { return anchored > before; }, 3000);
        if (anchored == before) {
            state.SkipWithError("no anchored read from the GTK entry");
            break;
        }
        times.push_back(timer.nsecsElapsed() / 1e6);
    }
    reportPercentiles(state, times);
    gtk.kill();
    gtk.waitForFinished();
}

BENCHMARK(BM_ReadSelectionAccessible)->Iterations(50)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadSelectionPrimary)->Iterations(200)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HotKeyToCapturedText)->Iterations(30)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HotKeyToCapturedTextGtk)->Iterations(30)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    // Outside the session the benchmarks skip instead of Qt aborting on an unreachable display.
    if (!CapturePlatform::isTrusted()) {
        qunsetenv("DISPLAY");
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
