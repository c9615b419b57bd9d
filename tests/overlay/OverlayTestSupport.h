#pragma once

#include "overlay/OutsideClickSource.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>

namespace velnora::test {

// Clicks where no pointer can reach: the desktop's real source cannot be told where to click.
class FakeClickSource : public OutsideClickSource
{
public:
    bool start(Handler handler) override
    {
        m_handler = std::move(handler);
        return true;
    }
    void stop() override { m_handler = nullptr; }
    bool isActive() const override { return m_handler != nullptr; }
    void click(const QPoint& point)
    {
        if (m_handler) {
            m_handler(point);
        }
    }

private:
    Handler m_handler;
};

// Runs the event loop until the condition holds or the deadline passes.
template <typename Condition>
bool waitUntil(Condition condition, int milliseconds = 3000)
{
    const QDeadlineTimer deadline(milliseconds);
    while (!condition()) {
        if (deadline.hasExpired()) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(2);
    }
    return true;
}

} // namespace velnora::test
