#include "CaptureDesktopSupport.h"

#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>

#include <cstdlib>
#include <cstring>

#include <xcb/xcb.h>

namespace velnora::test {

bool spinUntil(const std::function<bool()>& condition, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired()) {
            return condition();
        }
        spinFor(10);
    }
    return true;
}

void spinFor(int milliseconds)
{
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

TestClient::TestClient(const QStringList& arguments, bool accessible)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (accessible) {
        environment.insert(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), QStringLiteral("1"));
    } else {
        environment.remove(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"));
    }
    environment.remove(QStringLiteral("QT_QPA_PLATFORM"));
    m_process.setProcessEnvironment(environment);
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(QStringLiteral(CAPTURE_TEST_CLIENT), arguments);
}

TestClient::~TestClient()
{
    m_process.kill();
    m_process.waitForFinished(3000);
}

QString TestClient::readyLine()
{
    spinUntil([this] { return m_process.canReadLine() || m_process.state() == QProcess::NotRunning; }, 10000);
    return m_process.canReadLine() ? QString::fromUtf8(m_process.readLine()).trimmed() : QString();
}

std::optional<QByteArray> runTool(const QString& program, const QStringList& arguments, const QByteArray& input)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForStarted(5000)) {
        return std::nullopt;
    }
    if (!input.isNull()) {
        process.write(input);
    }
    process.closeWriteChannel();
    if (!spinUntil([&] { return process.state() == QProcess::NotRunning; }, 5000)) {
        process.kill();
        process.waitForFinished(1000);
        return std::nullopt;
    }
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        return std::nullopt;
    }
    return process.readAllStandardOutput();
}

BackgroundTool::BackgroundTool(const QString& program, const QStringList& arguments, const QByteArray& input)
{
    m_process.start(program, arguments);
    m_process.waitForStarted(5000);
    m_process.write(input);
    m_process.closeWriteChannel();
}

BackgroundTool::~BackgroundTool()
{
    m_process.kill();
    m_process.waitForFinished(3000);
}

namespace X11TestTools {

namespace {

struct Connection
{
    xcb_connection_t* c = xcb_connect(nullptr, nullptr);
    ~Connection() { xcb_disconnect(c); }
    xcb_atom_t atom(const char* name)
    {
        auto* r = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, uint16_t(std::strlen(name)), name), nullptr);
        const xcb_atom_t a = r ? r->atom : 0;
        std::free(r);
        return a;
    }
    xcb_window_t root() { return xcb_setup_roots_iterator(xcb_get_setup(c)).data->root; }
};

} // namespace

void clearSelection(const char* selection)
{
    Connection x;
    xcb_set_selection_owner(x.c, XCB_NONE, x.atom(selection), XCB_CURRENT_TIME);
    std::free(xcb_get_input_focus_reply(x.c, xcb_get_input_focus(x.c), nullptr));
}

bool selectionOwned(const char* selection)
{
    Connection x;
    auto* r = xcb_get_selection_owner_reply(x.c, xcb_get_selection_owner(x.c, x.atom(selection)), nullptr);
    const bool owned = r && r->owner != XCB_NONE;
    std::free(r);
    return owned;
}

bool numLockOn()
{
    Connection x;
    auto* r = xcb_query_pointer_reply(x.c, xcb_query_pointer(x.c, x.root()), nullptr);
    const bool on = r && (r->mask & XCB_MOD_MASK_2);
    std::free(r);
    return on;
}

} // namespace X11TestTools

} // namespace velnora::test
