#pragma once

#include "overlay/OutsideClickSource.h"

#include <QObject>

struct xcb_connection_t;
class QSocketNotifier;

namespace velnora {

// Raw button presses on the root window through a connection of its own, so that Qt's event masks are
// left alone. Raw events reach us even while another client holds a pointer grab.
class XInputClickSource : public QObject, public OutsideClickSource
{
    Q_OBJECT
public:
    XInputClickSource();
    ~XInputClickSource() override;

    bool start(Handler handler) override;
    void stop() override;
    bool isActive() const override { return m_connection != nullptr; }

private:
    void readEvents();

    xcb_connection_t* m_connection = nullptr;
    QSocketNotifier* m_notifier = nullptr;
    quint8 m_extensionOpcode = 0;
    Handler m_handler;
};

} // namespace velnora
