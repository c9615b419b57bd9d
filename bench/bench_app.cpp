// Whole-process figures of the tray application, inside scripts/desktop-session.sh:
//   start to tray icon ready (embedded by trayer), hot key to card shown through AT-SPI and through
//   PRIMARY (API mode, answered by a loopback proxy that plays the provider), resident memory once the
//   first explanation is done and the app idles, and CPU used while idle.
//   Footprint: resident and proportional memory of the tray idling, and once one explanation has been
//   shown and its card closed (median of the runs).
// Usage: bench_app [--runs N] [--idle-seconds S] [--footprint-only]
#include "BenchStatistics.h"
#include "CaptureDesktopSupport.h"
#include "DesktopProbe.h"
#include "InterceptingProxy.h"
#include "bridge/RequestStore.h"
#include "config/ConfigurationStore.h"
#include "config/KeychainStore.h"
#include "config/ProviderCatalog.h"
#include "support/TestEnvironment.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFontDatabase>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QUrl>
#include <X11/keysym.h>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <vector>
#include <xcb/xcb.h>
#include <xcb/xcb_keysyms.h>
#include <xcb/xtest.h>

using namespace velnora;
using namespace velnora::test;

namespace {

// Ctrl+Alt+E through XTest, straight from this process (no helper process in the measured time).
void pressHotKey()
{
    xcb_connection_t* c = xcb_connect(nullptr, nullptr);
    xcb_key_symbols_t* symbols = xcb_key_symbols_alloc(c);
    auto code = [&](xcb_keysym_t sym) {
        xcb_keycode_t* codes = xcb_key_symbols_get_keycode(symbols, sym);
        const xcb_keycode_t value = codes ? codes[0] : 0;
        free(codes);
        return value;
    };
    const xcb_keycode_t keys[] = {code(XK_Control_L), code(XK_Alt_L), code(XK_e)};
    for (const xcb_keycode_t key : keys) {
        xcb_test_fake_input(c, XCB_KEY_PRESS, key, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    }
    for (int i = 2; i >= 0; --i) {
        xcb_test_fake_input(c, XCB_KEY_RELEASE, keys[i], XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    }
    xcb_flush(c);
    free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
    xcb_key_symbols_free(symbols);
    xcb_disconnect(c);
}

// A field of /proc/<pid>/status or smaps_rollup, in kB; -1 when absent.
long memoryKilobytes(qint64 pid, const char* file, const QByteArray& field)
{
    QFile source(QStringLiteral("/proc/%1/%2").arg(pid).arg(QString::fromLatin1(file)));
    if (!source.open(QIODevice::ReadOnly)) {
        return -1;
    }
    for (const QByteArray& line : source.readAll().split('\n')) {
        if (line.startsWith(field + ':')) {
            return line.mid(field.size() + 1).trimmed().split(' ').first().toLong();
        }
    }
    return -1;
}

double cpuSeconds(qint64 pid)
{
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly)) {
        return -1;
    }
    const QByteArray stat = file.readAll();
    // Fields after the command name, which may hold spaces: utime and stime are the 12th and 13th.
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    return (fields.value(11).toDouble() + fields.value(12).toDouble()) / double(sysconf(_SC_CLK_TCK));
}

class Application
{
public:
    Application(const QStringList& command, const QStringList& environmentEntries, const QString& emptyPath)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PATH"), emptyPath); // never start a browser
        for (const QString& entry : environmentEntries) {
            environment.insert(entry.section(u'=', 0, 0), entry.section(u'=', 1));
        }
        m_process.setProcessEnvironment(environment);
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_clock.start();
        m_process.start(command.first(), command.mid(1));
        m_process.waitForStarted(5000);
    }
    ~Application()
    {
        m_process.terminate();
        if (!waitUntil([&] { return m_process.state() == QProcess::NotRunning; }, 5000)) {
            m_process.kill();
            m_process.waitForFinished(2000);
        }
    }
    qint64 pid() const { return m_process.processId(); }
    // Milliseconds from start until the tray host shows the icon; -1 after 15 s.
    double trayReadyMs()
    {
        return waitUntil([&] { return DesktopProbe::embeddedTrayIcon(pid()).has_value(); }, 15000)
                   ? m_clock.nsecsElapsed() / 1e6
                   : -1;
    }

private:
    QProcess m_process;
    QElapsedTimer m_clock;
};

// Presses the hot key and returns the milliseconds until the card's window is shown; -1 after 10 s.
double hotKeyToCardMs(qint64 pid)
{
    QElapsedTimer clock;
    clock.start();
    pressHotKey();
    const bool shown = waitUntil([&] { return DesktopProbe::shownWindow(pid, 200, 100).has_value(); }, 10000);
    return shown ? clock.nsecsElapsed() / 1e6 : -1;
}

struct Footprint
{
    std::vector<double> residentMB, proportionalMB;
    void sample(qint64 pid)
    {
        residentMB.push_back(memoryKilobytes(pid, "status", "VmRSS") / 1024.0);
        proportionalMB.push_back(memoryKilobytes(pid, "smaps_rollup", "Pss") / 1024.0);
    }
    void print(const char* label) const
    {
        std::printf("  %-34s resident %5.1f MB, proportional %5.1f MB\n", label,
                    bench::percentile(residentMB, 0.5), bench::percentile(proportionalMB, 0.5));
    }
};

// Closes a window the way a window manager's close button does (WM_DELETE_WINDOW).
void askWindowToClose(DesktopProbe::Window window)
{
    xcb_connection_t* c = xcb_connect(nullptr, nullptr);
    auto atom = [&](const char* name) {
        xcb_intern_atom_reply_t* reply =
            xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, uint16_t(strlen(name)), name), nullptr);
        const xcb_atom_t value = reply ? reply->atom : XCB_NONE;
        free(reply);
        return value;
    };
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = window;
    event.type = atom("WM_PROTOCOLS");
    event.data.data32[0] = atom("WM_DELETE_WINDOW");
    event.data.data32[1] = XCB_CURRENT_TIME;
    xcb_send_event(c, 0, window, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(&event));
    xcb_flush(c);
    xcb_disconnect(c);
}

// The tray idling, then one explanation asked for over the control bus (no capture involved) and its
// card closed: memory is read a few seconds after each, once the app has settled.
void measureFootprint(const QStringList& command, const QStringList& environment, const QString& emptyPath,
                      int runs, const QString& fonts)
{
    Footprint idle, afterCard;
    for (int run = 0; run < runs; ++run) {
        Application app(command, environment, emptyPath);
        if (app.trayReadyMs() < 0) {
            std::puts("bench_app: the tray icon never appeared");
            return;
        }
        spinFor(3000);
        idle.sample(app.pid());
        QProcess explain;
        explain.setStandardOutputFile(QProcess::nullDevice());
        explain.start(velnoraBinary(),
                      {QStringLiteral("--explain-selection"), QStringLiteral("解释一下内存占用")});
        explain.waitForFinished(10000);
        std::optional<DesktopProbe::Window> card;
        waitUntil([&] { return (card = DesktopProbe::shownWindow(app.pid(), 200, 100)).has_value(); }, 10000);
        spinFor(60 * 20 + 1500); // the answer streams to its end
        if (!card) {
            std::puts("bench_app: no card appeared");
            return;
        }
        askWindowToClose(*card);
        waitUntil([&] { return !DesktopProbe::shownWindow(app.pid(), 200, 100).has_value(); }, 5000);
        spinFor(3000);
        afterCard.sample(app.pid());
    }
    std::printf("bench_app: footprint, %d runs (median), %s\n", runs, qPrintable(fonts));
    idle.print("tray idle");
    afterCard.print("one explanation, card closed");
}

// Spins in 1 ms steps so that the figure is not rounded to Qt's 10 ms test waits; false after 10 s.
bool pollUntil(const std::function<bool()>& condition)
{
    QElapsedTimer clock;
    clock.start();
    while (!condition()) {
        if (clock.elapsed() > 10000) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        usleep(1000);
    }
    return true;
}

// Hot key to card (API mode) and to the queued record (browser mode) with a GTK entry in front, whose
// window the key grab deactivates until the key is up.
void reportGtkSourceFigures(const QString& settingsPath, const QStringList& command,
                            const QStringList& environment, const QString& emptyPath, int runs)
{
    std::vector<double> toCard, toQueue;
    for (int run = 0; run < runs; ++run) {
        for (const ExecutionMode mode : {ExecutionMode::api, ExecutionMode::browser}) {
            ConfigurationStore(settingsPath).setExecutionMode(mode);
            Application app(command, environment, emptyPath);
            app.trayReadyMs();
            BackgroundTool gtk(
                QStringLiteral("/usr/bin/python3"),
                {QStringLiteral(CAPTURE_SOURCES_DIR "/gtk_source.py"), QStringLiteral("entry")});
            gtk.readyLine();
            spinFor(300);
            QElapsedTimer clock;
            clock.start();
            pressHotKey();
            if (mode == ExecutionMode::api) {
                const bool shown =
                    pollUntil([&] { return DesktopProbe::shownWindow(app.pid(), 200, 100).has_value(); });
                toCard.push_back(shown ? clock.nsecsElapsed() / 1e6 : -1);
            } else {
                const bool queued = pollUntil([] { return !RequestStore().pendingRequests().empty(); });
                toQueue.push_back(queued ? clock.nsecsElapsed() / 1e6 : -1);
                for (const RequestStore::Pending& pending : RequestStore().pendingRequests()) {
                    RequestStore().acknowledge(pending.request.id);
                }
            }
        }
    }
    ConfigurationStore(settingsPath).setExecutionMode(ExecutionMode::api);
    std::printf("bench_app: GTK source, %d runs\n", runs);
    std::printf("  hot key to card shown, GTK entry     p50 %6.1f ms  p90 %6.1f ms\n",
                bench::percentile(toCard, 0.5), bench::percentile(toCard, 0.9));
    std::printf("  hot key to queued record, GTK entry  p50 %6.1f ms  p90 %6.1f ms\n",
                bench::percentile(toQueue, 0.5), bench::percentile(toQueue, 0.9));
}

} // namespace

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    int runs = 5;
    int idleSeconds = 60;
    const QStringList arguments = QCoreApplication::arguments();
    const bool footprintOnly = arguments.contains(QStringLiteral("--footprint-only"));
    for (qsizetype i = 1; i + 1 < arguments.size(); ++i) {
        if (arguments.at(i) == u"--runs") {
            runs = std::max(1, arguments.at(i + 1).toInt());
        } else if (arguments.at(i) == u"--idle-seconds") {
            idleSeconds = std::max(1, arguments.at(i + 1).toInt());
        }
    }
    if (qEnvironmentVariableIsEmpty("DISPLAY") ||
        QStandardPaths::findExecutable(QStringLiteral("trayer")).isEmpty()) {
        std::puts("bench_app: skipped (run it inside scripts/desktop-session.sh with trayer installed)");
        return 0;
    }
    TemporaryHome home;
    QTemporaryDir emptyPath;
    const QString settingsPath = home.configHome() + QStringLiteral("/tarnwick/velnora-domestic.conf");
    {
        ConfigurationStore settings(settingsPath);
        settings.setDidShowVersion2Setup(true);
        settings.setExecutionMode(ExecutionMode::api);
        settings.setApiProviderID(QStringLiteral("doubao"));
    }
    KeychainStore().saveAPIKey(QStringLiteral("sk-bench-only"), QStringLiteral("doubao"));

    QProcess trayHost;
    trayHost.start(QStringLiteral("trayer"),
                   {QStringLiteral("--edge"), QStringLiteral("bottom"), QStringLiteral("--align"),
                    QStringLiteral("right"), QStringLiteral("--widthtype"), QStringLiteral("request"),
                    QStringLiteral("--height"), QStringLiteral("24")});
    trayHost.waitForStarted(5000);
    spinFor(500);

    const QString host = QUrl(ProviderDefinition::definition(QStringLiteral("doubao")).defaultBaseURL).host();
    QString error;
    const auto authority = InterceptionAuthority::create(host, &error);
    if (!authority || !InterceptionAuthority::privateTrustAvailable()) {
        std::printf("bench_app: cannot intercept the provider (%s)\n", qPrintable(error));
        return 1;
    }
    InterceptingProxy proxy(*authority);
    // A realistic answer: 60 pieces 20 ms apart.
    QStringList deltas;
    for (int i = 0; i < 60; ++i) {
        deltas << QStringLiteral("这是第 %1 段，解释继续。").arg(i);
    }
    proxy.setAnswer(InterceptingProxy::responsesStream(deltas), 20);
    const QStringList command = authority->privateTrustCommand(velnoraBinary(), {});
    const QStringList environment{QStringLiteral("https_proxy=") + proxy.proxyURL(),
                                  QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1")};

    std::vector<double> start, viaAccessibility, viaPrimary;
    // Resident, proportional (shared pages divided among their users) and anonymous memory.
    long idleResident = -1, idleProportional = -1, idleAnonymous = -1;
    double idleCpu = -1;
    for (int run = 0; run < runs && !footprintOnly; ++run) {
        {
            Application app(command, environment, emptyPath.path());
            start.push_back(app.trayReadyMs());
            TestClient fields({QStringLiteral("fields")}, true);
            fields.readyLine();
            viaAccessibility.push_back(hotKeyToCardMs(app.pid()));
            if (run == 0) {
                spinFor(60 * 20 + 2000); // the stream ends, then the app settles
                idleResident = memoryKilobytes(app.pid(), "status", "VmRSS");
                idleProportional = memoryKilobytes(app.pid(), "smaps_rollup", "Pss");
                idleAnonymous = memoryKilobytes(app.pid(), "smaps_rollup", "Anonymous");
                const double before = cpuSeconds(app.pid());
                spinFor(idleSeconds * 1000);
                idleCpu = (cpuSeconds(app.pid()) - before) / idleSeconds * 100.0;
            }
        }
        {
            Application app(command, environment, emptyPath.path());
            app.trayReadyMs();
            // A plain X window holds the focus (nothing on the accessibility bus); PRIMARY has the text.
            BackgroundTool primary(
                QStringLiteral("xclip"),
                {QStringLiteral("-quiet"), QStringLiteral("-selection"), QStringLiteral("primary")},
                QByteArray("通过主选区读到的文字"));
            TestClient plain({QStringLiteral("copy")});
            plain.readyLine();
            spinFor(100);
            viaPrimary.push_back(hotKeyToCardMs(app.pid()));
        }
    }
    // The figures after a card depend on the fonts installed: Qt reads the whole list, fontconfig keeps its
    // cache mapped. So the app is measured twice: with this machine's fonts, and with only the fonts its
    // package depends on (Noto CJK, and DejaVu through fontconfig), the same on every machine.
    measureFootprint(command, environment, emptyPath.path(), runs,
                     QStringLiteral("%1 font families installed").arg(QFontDatabase::families().size()));
    QTemporaryDir fontConfiguration;
    QFile packageFonts(fontConfiguration.filePath(QStringLiteral("fonts.conf")));
    if (packageFonts.open(QIODevice::WriteOnly)) {
        packageFonts.write(
            "<?xml version=\"1.0\"?>\n<!DOCTYPE fontconfig SYSTEM \"urn:fontconfig:fonts.dtd\">\n"
            "<fontconfig>\n"
            "  <dir>/usr/share/fonts/opentype/noto</dir>\n"
            "  <dir>/usr/share/fonts/truetype/dejavu</dir>\n"
            "  <cachedir>" +
            fontConfiguration.path().toUtf8() +
            "/cache</cachedir>\n"
            "  <include ignore_missing=\"yes\">/etc/fonts/conf.d</include>\n"
            "</fontconfig>\n");
        packageFonts.close();
        measureFootprint(
            command, environment + QStringList{QStringLiteral("FONTCONFIG_FILE=") + packageFonts.fileName()},
            emptyPath.path(), runs, QStringLiteral("only the package's fonts"));
    }
    reportGtkSourceFigures(settingsPath, command, environment, emptyPath.path(), runs);
    KeychainStore().saveAPIKey(QString(), QStringLiteral("doubao"));
    trayHost.terminate();
    trayHost.waitForFinished(3000);

    if (footprintOnly) {
        return 0;
    }
    std::printf("bench_app: %d runs (median)\n", runs);
    std::printf("  start to tray icon ready        %8.1f ms\n", bench::percentile(start, 0.5));
    std::printf("  hot key to card shown, AT-SPI   %8.1f ms\n", bench::percentile(viaAccessibility, 0.5));
    std::printf("  hot key to card shown, PRIMARY  %8.1f ms\n", bench::percentile(viaPrimary, 0.5));
    std::printf(
        "  idle memory after one explanation: resident %.1f MB, proportional %.1f MB, anonymous %.1f MB\n",
        idleResident / 1024.0, idleProportional / 1024.0, idleAnonymous / 1024.0);
    std::printf("  idle CPU over %d s                %8.3f %%\n", idleSeconds, idleCpu);
    return 0;
}
