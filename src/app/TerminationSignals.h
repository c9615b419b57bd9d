#pragma once

#include <QObject>

class QSocketNotifier;

namespace velnora {

// SIGTERM and SIGINT (session end, kill, Ctrl+C in a terminal) as a signal on the main thread, so the
// application quits through its event loop and cleans up instead of dying mid-way.
class TerminationSignals : public QObject
{
    Q_OBJECT
public:
    explicit TerminationSignals(QObject* parent = nullptr);
    ~TerminationSignals() override;

Q_SIGNALS:
    void received(int signalNumber);

private:
    static void onSignal(int signalNumber);
    void readPending();

    QSocketNotifier* m_notifier = nullptr;
};

} // namespace velnora
