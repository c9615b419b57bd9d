#include "app/TerminationSignals.h"

#include <QSocketNotifier>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace velnora {

namespace {

// Written from the handler, read on the main thread: the only thing a signal handler may safely do.
int wakeSockets[2] = {-1, -1};

} // namespace

TerminationSignals::TerminationSignals(QObject* parent) : QObject(parent)
{
    if (wakeSockets[0] < 0 && ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, wakeSockets) != 0) {
        return;
    }
    m_notifier = new QSocketNotifier(wakeSockets[1], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &TerminationSignals::readPending);
    struct sigaction action = {};
    action.sa_handler = &TerminationSignals::onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

TerminationSignals::~TerminationSignals()
{
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
}

void TerminationSignals::onSignal(int signalNumber)
{
    const char number = char(signalNumber);
    [[maybe_unused]] const ssize_t written = ::write(wakeSockets[0], &number, 1);
}

void TerminationSignals::readPending()
{
    char number = 0;
    if (::read(wakeSockets[1], &number, 1) == 1) {
        Q_EMIT received(number);
    }
}

} // namespace velnora
