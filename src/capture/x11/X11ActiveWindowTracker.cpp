#include "capture/x11/X11ActiveWindowTracker.h"

#include "capture/x11/X11Connection.h"

namespace velnora {

X11ActiveWindowTracker::X11ActiveWindowTracker(std::unique_ptr<X11Connection> connection)
    : m_x(std::move(connection))
{
    const xcb_atom_t activeWindow = m_x->atom("_NET_ACTIVE_WINDOW");
    m_x->setEventHandler([this, activeWindow](const xcb_generic_event_t& event) {
        if ((event.response_type & 0x7f) != XCB_PROPERTY_NOTIFY) {
            return;
        }
        const auto& notify = reinterpret_cast<const xcb_property_notify_event_t&>(event);
        if (notify.window == m_x->root() && notify.atom == activeWindow && m_onActivated) {
            m_onActivated(activeProcess());
        }
    });
    const std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_change_window_attributes(m_x->raw(), m_x->root(), XCB_CW_EVENT_MASK, &mask);
    m_x->sync();
}

X11ActiveWindowTracker::~X11ActiveWindowTracker()
{
    m_x->setEventHandler({});
}

std::optional<qint64> X11ActiveWindowTracker::activeProcess()
{
    return m_x->focusedWindow().processId;
}

void X11ActiveWindowTracker::watch(std::function<void(std::optional<qint64>)> onActivated)
{
    m_onActivated = std::move(onActivated);
}

} // namespace velnora
