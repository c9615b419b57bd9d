#include "capture/x11/X11SelectionOwner.h"

#include "capture/x11/X11Connection.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace velnora {

using namespace std::chrono_literals;

namespace {

// GTK and Qt send at most this much per property too; big requests are not needed then.
constexpr qsizetype largestChunk = 128 * 1024;
// A requestor that stops reading a transfer for this long has gone away.
constexpr auto transferIdleTimeout = 5s;

} // namespace

X11SelectionOwner::X11SelectionOwner(X11Connection& connection, xcb_window_t window, xcb_atom_t selection)
    : m_x(connection), m_window(window), m_selection(selection)
{}

bool X11SelectionOwner::own(const ClipboardSnapshot& content, xcb_timestamp_t since)
{
    m_content = content;
    m_since = since;
    xcb_set_selection_owner(m_x.raw(), m_window, m_selection, since);
    if (!owns()) {
        m_content.reset();
        return false;
    }
    return true;
}

void X11SelectionOwner::forget()
{
    m_content.reset();
}

bool X11SelectionOwner::owns()
{
    xcb_connection_t* c = m_x.raw();
    xcb_get_selection_owner_reply_t* answer =
        xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, m_selection), nullptr);
    const bool ours = answer && answer->owner == m_window;
    std::free(answer);
    return ours && m_content.has_value();
}

qsizetype X11SelectionOwner::chunkBytes() const
{
    const qsizetype requestBytes = qsizetype(xcb_get_maximum_request_length(m_x.raw())) * 4 - 64;
    return std::min(largestChunk, requestBytes);
}

void X11SelectionOwner::handleEvent(const xcb_generic_event_t& event)
{
    switch (event.response_type & 0x7f) {
    case XCB_SELECTION_REQUEST:
        serve(reinterpret_cast<const xcb_selection_request_event_t&>(event));
        break;
    case XCB_SELECTION_CLEAR:
        if (reinterpret_cast<const xcb_selection_clear_event_t&>(event).selection == m_selection) {
            m_content.reset();
        }
        break;
    case XCB_PROPERTY_NOTIFY: {
        const auto& notify = reinterpret_cast<const xcb_property_notify_event_t&>(event);
        if (notify.state == XCB_PROPERTY_DELETE && notify.window != m_window) {
            continueTransfer(notify.window, notify.atom);
        }
        break;
    }
    default:
        break;
    }
}

void X11SelectionOwner::serve(const xcb_selection_request_event_t& request)
{
    xcb_connection_t* c = m_x.raw();
    dropExpiredTransfers();
    // Obsolete clients leave the property empty and expect the target's name to be used.
    const xcb_atom_t property = request.property != XCB_NONE ? request.property : request.target;
    const bool current =
        m_content && request.selection == m_selection &&
        (request.time == XCB_CURRENT_TIME || m_since == XCB_CURRENT_TIME || request.time >= m_since);
    bool answered = false;
    if (current) {
        answered = request.target == m_x.atom("MULTIPLE") && request.property != XCB_NONE
                       ? answerMultiple(request.requestor, property)
                       : answer(request.requestor, request.target, property);
    }
    xcb_selection_notify_event_t notify{};
    notify.response_type = XCB_SELECTION_NOTIFY;
    notify.time = request.time;
    notify.requestor = request.requestor;
    notify.selection = request.selection;
    notify.target = request.target;
    notify.property = answered ? property : xcb_atom_t(XCB_NONE);
    char wire[32] = {};
    std::memcpy(wire, &notify, sizeof notify);
    xcb_send_event(c, 0, request.requestor, XCB_EVENT_MASK_NO_EVENT, wire);
    xcb_flush(c);
}

bool X11SelectionOwner::answer(xcb_window_t requestor, xcb_atom_t target, xcb_atom_t property)
{
    xcb_connection_t* c = m_x.raw();
    const QByteArray name = m_x.atomName(target);
    if (name == "TARGETS") {
        std::vector<xcb_atom_t> atoms{m_x.atom("TARGETS"), m_x.atom("TIMESTAMP"), m_x.atom("MULTIPLE")};
        for (const auto& entry : m_content->entries) {
            atoms.push_back(m_x.atom(entry.target));
        }
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, XCB_ATOM_ATOM, 32,
                            std::uint32_t(atoms.size()), atoms.data());
        return true;
    }
    if (name == "TIMESTAMP") {
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, XCB_ATOM_INTEGER, 32, 1, &m_since);
        return true;
    }
    const auto entry = std::find_if(m_content->entries.cbegin(), m_content->entries.cend(),
                                    [&](const ClipboardSnapshot::Entry& e) { return e.target == name; });
    if (entry == m_content->entries.cend()) {
        return false;
    }
    const xcb_atom_t type = m_x.atom(entry->type);
    const int unit = std::max(1, entry->format / 8);
    if (entry->data.size() <= chunkBytes()) {
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, type, std::uint8_t(entry->format),
                            std::uint32_t(entry->data.size() / unit), entry->data.constData());
        return true;
    }
    // Listen before announcing, or the requestor's first deletion could pass unseen.
    const std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_change_window_attributes(c, requestor, XCB_CW_EVENT_MASK, &mask);
    const std::uint32_t size = std::uint32_t(entry->data.size());
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, m_x.atom("INCR"), 32, 1, &size);
    std::erase_if(m_transfers,
                  [&](const Transfer& t) { return t.requestor == requestor && t.property == property; });
    m_transfers.push_back({requestor, property, type, entry->format, entry->data, 0, false,
                           QDeadlineTimer(transferIdleTimeout)});
    return true;
}

bool X11SelectionOwner::answerMultiple(xcb_window_t requestor, xcb_atom_t property)
{
    xcb_connection_t* c = m_x.raw();
    xcb_get_property_reply_t* pairs = xcb_get_property_reply(
        c, xcb_get_property(c, 0, requestor, property, XCB_GET_PROPERTY_TYPE_ANY, 0, 0x10000), nullptr);
    if (!pairs || pairs->format != 32) {
        std::free(pairs);
        return false;
    }
    const int count = xcb_get_property_value_length(pairs) / 4;
    std::vector<xcb_atom_t> atoms(static_cast<size_t>(count));
    std::memcpy(atoms.data(), xcb_get_property_value(pairs), size_t(count) * 4);
    const xcb_atom_t type = pairs->type;
    std::free(pairs);
    // Each pair is (target, property); a target we cannot give has its property replaced by None.
    for (size_t i = 0; i + 1 < atoms.size(); i += 2) {
        if (atoms[i + 1] == XCB_NONE || !answer(requestor, atoms[i], atoms[i + 1])) {
            atoms[i + 1] = XCB_NONE;
        }
    }
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, type, 32, std::uint32_t(atoms.size()),
                        atoms.data());
    return true;
}

void X11SelectionOwner::continueTransfer(xcb_window_t requestor, xcb_atom_t property)
{
    const auto transfer = std::find_if(m_transfers.begin(), m_transfers.end(), [&](const Transfer& t) {
        return t.requestor == requestor && t.property == property;
    });
    if (transfer == m_transfers.end()) {
        return;
    }
    xcb_connection_t* c = m_x.raw();
    if (transfer->finished) {
        m_transfers.erase(transfer);
        if (std::none_of(m_transfers.cbegin(), m_transfers.cend(),
                         [&](const Transfer& t) { return t.requestor == requestor; })) {
            const std::uint32_t none = XCB_EVENT_MASK_NO_EVENT;
            xcb_change_window_attributes(c, requestor, XCB_CW_EVENT_MASK, &none);
        }
        xcb_flush(c);
        return;
    }
    const int unit = std::max(1, transfer->format / 8);
    const qsizetype length = std::min(transfer->data.size() - transfer->sent, chunkBytes() / unit * unit);
    // An empty chunk tells the requestor that the transfer is complete.
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, transfer->type,
                        std::uint8_t(transfer->format), std::uint32_t(length / unit),
                        transfer->data.constData() + transfer->sent);
    transfer->sent += length;
    transfer->finished = length == 0;
    transfer->expires = QDeadlineTimer(transferIdleTimeout);
    xcb_flush(c);
}

void X11SelectionOwner::dropExpiredTransfers()
{
    std::erase_if(m_transfers, [](const Transfer& t) { return t.expires.hasExpired(); });
}

} // namespace velnora
