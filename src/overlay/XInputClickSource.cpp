#include "overlay/XInputClickSource.h"

#include <QCursor>
#include <QGuiApplication>
#include <QLoggingCategory>
#include <QSocketNotifier>

#include <xcb/xcb.h>
#include <xcb/xinput.h>

#include <cstdlib>
#include <memory>

namespace velnora {

Q_LOGGING_CATEGORY(outsideClicks, "velnora.overlay.clicks")

namespace {

struct FreeDeleter
{
    void operator()(void* pointer) const { std::free(pointer); }
};

class NoClickSource : public OutsideClickSource
{
public:
    bool start(Handler) override { return false; }
    void stop() override {}
    bool isActive() const override { return false; }
};

} // namespace

std::unique_ptr<OutsideClickSource> OutsideClickSource::createDefault()
{
    if (QGuiApplication::platformName() == u"xcb") {
        return std::make_unique<XInputClickSource>();
    }
    return std::make_unique<NoClickSource>();
}

XInputClickSource::XInputClickSource() = default;

XInputClickSource::~XInputClickSource()
{
    stop();
}

bool XInputClickSource::start(Handler handler)
{
    stop();
    xcb_connection_t* connection = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(connection)) {
        xcb_disconnect(connection);
        qCWarning(outsideClicks) << "no X server: clicks outside the card are not seen";
        return false;
    }
    const xcb_query_extension_reply_t* extension = xcb_get_extension_data(connection, &xcb_input_id);
    std::unique_ptr<xcb_input_xi_query_version_reply_t, FreeDeleter> version(
        extension && extension->present
            ? xcb_input_xi_query_version_reply(connection, xcb_input_xi_query_version(connection, 2, 0), nullptr)
            : nullptr);
    if (!version || version->major_version < 2) {
        xcb_disconnect(connection);
        qCWarning(outsideClicks) << "XInput2 missing: clicks outside the card are not seen";
        return false;
    }

    const xcb_setup_t* setup = xcb_get_setup(connection);
    const xcb_window_t root = xcb_setup_roots_iterator(setup).data->root;
    struct
    {
        xcb_input_event_mask_t header;
        uint32_t bits;
    } mask{{XCB_INPUT_DEVICE_ALL_MASTER, 1}, XCB_INPUT_XI_EVENT_MASK_RAW_BUTTON_PRESS};
    std::unique_ptr<xcb_generic_error_t, FreeDeleter> error(
        xcb_request_check(connection, xcb_input_xi_select_events_checked(connection, root, 1, &mask.header)));
    if (error) {
        xcb_disconnect(connection);
        qCWarning(outsideClicks) << "XInput2 refused the raw button mask, error" << error->error_code;
        return false;
    }

    m_connection = connection;
    m_extensionOpcode = extension->major_opcode;
    m_handler = std::move(handler);
    m_notifier = new QSocketNotifier(xcb_get_file_descriptor(connection), QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &XInputClickSource::readEvents);
    return true;
}

void XInputClickSource::stop()
{
    if (m_notifier) {
        // It may be stopped from inside the notifier's own signal.
        m_notifier->setEnabled(false);
        m_notifier->deleteLater();
        m_notifier = nullptr;
    }
    if (m_connection) {
        xcb_disconnect(m_connection);
        m_connection = nullptr;
    }
    m_handler = nullptr;
}

void XInputClickSource::readEvents()
{
    if (!m_connection) {
        return;
    }
    int presses = 0;
    while (xcb_generic_event_t* raw = xcb_poll_for_event(m_connection)) {
        std::unique_ptr<xcb_generic_event_t, FreeDeleter> event(raw);
        if ((event->response_type & 0x7f) != XCB_GE_GENERIC) {
            continue;
        }
        const auto* generic = reinterpret_cast<const xcb_ge_generic_event_t*>(event.get());
        if (generic->extension != m_extensionOpcode || generic->event_type != XCB_INPUT_RAW_BUTTON_PRESS) {
            continue;
        }
        // Buttons 4 to 7 are the wheel: scrolling another window is not a click.
        const auto* press = reinterpret_cast<const xcb_input_raw_button_press_event_t*>(event.get());
        if (press->detail == 1 || press->detail == 3) {
            ++presses;
        }
    }
    if (xcb_connection_has_error(m_connection)) {
        qCWarning(outsideClicks) << "lost the X connection for outside clicks";
        stop();
        return;
    }
    if (presses > 0 && m_handler) {
        // Raw events carry no position; the pointer has not moved far by the time we get here. The handler
        // may stop this source, so it runs after the read loop, on a copy.
        const Handler handler = m_handler;
        handler(QCursor::pos());
    }
}

} // namespace velnora
