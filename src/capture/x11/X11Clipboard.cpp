#include "capture/x11/X11Clipboard.h"

#include "capture/x11/X11Connection.h"

#include <QSet>

#include <cstdlib>
#include <cstring>

#include <xcb/xfixes.h>

namespace velnora {

using namespace std::chrono_literals;

namespace {

constexpr auto textReadTimeout = 1000ms;
constexpr auto formatReadTimeout = 1000ms;
constexpr auto snapshotTimeout = 2000ms;
constexpr qsizetype snapshotByteLimit = 64 * 1024 * 1024;

// Protocol targets that describe the selection rather than hold content; saving them would
// advertise them twice after a restore.
const QSet<QByteArray>& protocolTargets()
{
    static const QSet<QByteArray> targets{"TARGETS",        "MULTIPLE",         "TIMESTAMP",
                                          "SAVE_TARGETS",   "DELETE",           "INSERT_SELECTION",
                                          "INSERT_PROPERTY", "_GTK_SAVE_TARGETS"};
    return targets;
}

template <typename T>
std::unique_ptr<T, decltype(&std::free)> reply(T* raw)
{
    return {raw, &std::free};
}

} // namespace

X11Clipboard::X11Clipboard(std::shared_ptr<X11Connection> connection) : m_x(std::move(connection))
{
    xcb_connection_t* c = m_x->raw();
    m_window = xcb_generate_id(c);
    const uint32_t values[] = {1, XCB_EVENT_MASK_PROPERTY_CHANGE};
    xcb_create_window(c, 0, m_window, m_x->root(), -10, -10, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY,
                      XCB_COPY_FROM_PARENT, XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
    m_clipboard = m_x->atom("CLIPBOARD");
    m_transfer = m_x->atom("VELNORA_SELECTION");
    m_stamp = m_x->atom("VELNORA_TIMESTAMP");

    const xcb_query_extension_reply_t* xfixes = xcb_get_extension_data(c, &xcb_xfixes_id);
    if (xfixes && xfixes->present) {
        auto version = reply(xcb_xfixes_query_version_reply(c, xcb_xfixes_query_version(c, 5, 0), nullptr));
        if (version) {
            m_hasXFixes = true;
            m_xfixesEvent = xfixes->first_event;
            xcb_xfixes_select_selection_input(c, m_window, m_clipboard,
                                              XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER |
                                                  XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_WINDOW_DESTROY |
                                                  XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_CLIENT_CLOSE);
        }
    }
    m_x->setEventHandler([this](const xcb_generic_event_t& event) { handleEvent(event); });
    m_x->sync();
}

X11Clipboard::~X11Clipboard()
{
    m_x->setEventHandler({});
    xcb_destroy_window(m_x->raw(), m_window);
    xcb_flush(m_x->raw());
}

std::optional<QString> X11Clipboard::primaryText()
{
    return selectionText(XCB_ATOM_PRIMARY);
}

std::optional<QString> X11Clipboard::clipboardText()
{
    return selectionText(m_clipboard);
}

std::uint64_t X11Clipboard::clipboardChangeCount()
{
    m_x->sync();
    if (!m_hasXFixes) {
        // Without XFixes an owner change still shows as a different owner window.
        const xcb_window_t owner = selectionOwner(m_clipboard);
        if (owner != m_lastOwner) {
            m_lastOwner = owner;
            ++m_changes;
        }
    }
    return m_changes;
}

std::optional<QString> X11Clipboard::selectionText(xcb_atom_t selection)
{
    m_x->dispatchPending();
    if (selectionOwner(selection) == XCB_NONE) {
        return std::nullopt;
    }
    const QDeadlineTimer deadline(textReadTimeout);
    for (const char* target : {"UTF8_STRING", "text/plain;charset=utf-8", "STRING"}) {
        if (deadline.hasExpired()) {
            break;
        }
        if (auto converted = convert(selection, m_x->atom(target), deadline)) {
            if (std::strcmp(target, "STRING") == 0) {
                return QString::fromLatin1(converted->data);
            }
            return QString::fromUtf8(converted->data);
        }
    }
    return std::nullopt;
}

ClipboardSnapshot X11Clipboard::snapshotClipboard()
{
    m_x->dispatchPending();
    if (m_owned) {
        return *m_owned;
    }
    ClipboardSnapshot snapshot;
    if (selectionOwner(m_clipboard) == XCB_NONE) {
        return snapshot;
    }
    const QDeadlineTimer deadline(snapshotTimeout);
    auto targets = convert(m_clipboard, m_x->atom("TARGETS"), deadline);
    if (!targets || targets->format != 32) {
        return snapshot;
    }
    const auto* atoms = reinterpret_cast<const xcb_atom_t*>(targets->data.constData());
    const qsizetype count = targets->data.size() / qsizetype(sizeof(xcb_atom_t));
    QSet<xcb_atom_t> seen;
    qsizetype total = 0;
    for (qsizetype i = 0; i < count && !deadline.hasExpired(); ++i) {
        const xcb_atom_t target = atoms[i];
        if (target == XCB_ATOM_NONE || seen.contains(target)) {
            continue;
        }
        seen.insert(target);
        const QByteArray name = m_x->atomName(target);
        if (name.isEmpty() || protocolTargets().contains(name)) {
            continue;
        }
        QDeadlineTimer formatDeadline(formatReadTimeout);
        if (formatDeadline.deadline() > deadline.deadline()) {
            formatDeadline = deadline;
        }
        auto converted = convert(m_clipboard, target, formatDeadline);
        if (!converted || total + converted->data.size() > snapshotByteLimit) {
            continue; // unreadable formats are skipped, like the owner never offered them
        }
        total += converted->data.size();
        snapshot.entries.push_back({name, m_x->atomName(converted->type), converted->format, converted->data});
    }
    return snapshot;
}

void X11Clipboard::restoreClipboard(const ClipboardSnapshot& snapshot)
{
    xcb_connection_t* c = m_x->raw();
    if (snapshot.isEmpty()) {
        m_owned.reset();
        xcb_set_selection_owner(c, XCB_NONE, m_clipboard, XCB_CURRENT_TIME);
        m_x->sync();
        return;
    }
    m_owned = snapshot;
    m_ownedSince = serverTime();
    xcb_set_selection_owner(c, m_window, m_clipboard, m_ownedSince);
    if (selectionOwner(m_clipboard) != m_window) {
        m_owned.reset();
    }
    m_x->dispatchPending();
}

xcb_window_t X11Clipboard::selectionOwner(xcb_atom_t selection)
{
    xcb_connection_t* c = m_x->raw();
    auto answer = reply(xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, selection), nullptr));
    return answer ? answer->owner : XCB_NONE;
}

xcb_timestamp_t X11Clipboard::serverTime()
{
    // A zero-length append yields a PropertyNotify that carries the server's clock.
    m_stampTime.reset();
    xcb_change_property(m_x->raw(), XCB_PROP_MODE_APPEND, m_window, m_stamp, XCB_ATOM_STRING, 8, 0, nullptr);
    xcb_flush(m_x->raw());
    m_x->waitFor([this] { return m_stampTime.has_value(); }, QDeadlineTimer(500ms));
    return m_stampTime.value_or(XCB_CURRENT_TIME);
}

std::optional<X11Clipboard::Converted> X11Clipboard::convert(xcb_atom_t selection, xcb_atom_t target,
                                                              QDeadlineTimer deadline)
{
    if (target == XCB_ATOM_NONE) {
        return std::nullopt;
    }
    // Asking ourselves through the server would wait on our own answer.
    if (m_owned && selection == m_clipboard && selectionOwner(selection) == m_window) {
        const QByteArray name = m_x->atomName(target);
        for (const auto& entry : m_owned->entries) {
            if (entry.target == name) {
                return Converted{m_x->atom(entry.type), entry.format, entry.data};
            }
        }
        if (name == "TARGETS") {
            QByteArray list;
            for (const auto& entry : m_owned->entries) {
                const xcb_atom_t a = m_x->atom(entry.target);
                list.append(reinterpret_cast<const char*>(&a), sizeof a);
            }
            return Converted{XCB_ATOM_ATOM, 32, list};
        }
        return std::nullopt;
    }

    xcb_connection_t* c = m_x->raw();
    m_notify.reset();
    xcb_delete_property(c, m_window, m_transfer);
    xcb_convert_selection(c, m_window, selection, target, m_transfer, XCB_CURRENT_TIME);
    xcb_flush(c);
    const bool answered = m_x->waitFor(
        [&] { return m_notify && m_notify->selection == selection && m_notify->target == target; }, deadline);
    if (!answered || m_notify->property == XCB_NONE) {
        m_notify.reset();
        return std::nullopt;
    }
    m_notify.reset();

    bool incremental = false;
    m_transferUpdates = 0;
    auto first = readProperty(&incremental);
    if (!first || !incremental) {
        return first;
    }
    // INCR: the owner writes chunks one by one, each after we delete the previous; an empty one ends it.
    Converted whole;
    for (;;) {
        const int seen = m_transferUpdates;
        if (!m_x->waitFor([&] { return m_transferUpdates > seen; }, deadline)) {
            return std::nullopt;
        }
        auto chunk = readProperty(nullptr);
        if (!chunk) {
            continue;
        }
        if (chunk->data.isEmpty()) {
            return whole;
        }
        whole.type = chunk->type;
        whole.format = chunk->format;
        whole.data += chunk->data;
        if (whole.data.size() > snapshotByteLimit) {
            return std::nullopt;
        }
    }
}

std::optional<X11Clipboard::Converted> X11Clipboard::readProperty(bool* incremental)
{
    xcb_connection_t* c = m_x->raw();
    auto answer = reply(xcb_get_property_reply(
        c, xcb_get_property(c, 1, m_window, m_transfer, XCB_GET_PROPERTY_TYPE_ANY, 0, 0x1fffffff), nullptr));
    m_x->dispatchPending();
    if (!answer) {
        return std::nullopt;
    }
    if (incremental) {
        *incremental = answer->type == m_x->atom("INCR");
    }
    if (answer->type == XCB_ATOM_NONE) {
        return std::nullopt;
    }
    const int format = answer->format == 0 ? 8 : answer->format;
    return Converted{answer->type, format,
                     QByteArray(static_cast<const char*>(xcb_get_property_value(answer.get())),
                                xcb_get_property_value_length(answer.get()))};
}

void X11Clipboard::handleEvent(const xcb_generic_event_t& event)
{
    const std::uint8_t type = event.response_type & 0x7f;
    if (m_hasXFixes && type == m_xfixesEvent + XCB_XFIXES_SELECTION_NOTIFY) {
        const auto& notify = reinterpret_cast<const xcb_xfixes_selection_notify_event_t&>(event);
        if (notify.selection == m_clipboard) {
            ++m_changes;
        }
        return;
    }
    switch (type) {
    case XCB_SELECTION_NOTIFY: {
        const auto& notify = reinterpret_cast<const xcb_selection_notify_event_t&>(event);
        if (notify.requestor == m_window) {
            m_notify = notify;
        }
        break;
    }
    case XCB_PROPERTY_NOTIFY: {
        const auto& notify = reinterpret_cast<const xcb_property_notify_event_t&>(event);
        if (notify.window != m_window) {
            break;
        }
        if (notify.atom == m_transfer && notify.state == XCB_PROPERTY_NEW_VALUE) {
            ++m_transferUpdates;
        } else if (notify.atom == m_stamp) {
            m_stampTime = notify.time;
        }
        break;
    }
    case XCB_SELECTION_REQUEST:
        serve(reinterpret_cast<const xcb_selection_request_event_t&>(event));
        break;
    case XCB_SELECTION_CLEAR:
        if (reinterpret_cast<const xcb_selection_clear_event_t&>(event).selection == m_clipboard) {
            m_owned.reset();
        }
        break;
    default:
        break;
    }
}

void X11Clipboard::serve(const xcb_selection_request_event_t& request)
{
    xcb_connection_t* c = m_x->raw();
    // Obsolete clients leave the property empty and expect the target's name to be used.
    const xcb_atom_t property = request.property != XCB_NONE ? request.property : request.target;
    xcb_atom_t answered = XCB_NONE;
    const bool current = m_owned && request.selection == m_clipboard &&
                         (request.time == XCB_CURRENT_TIME || m_ownedSince == XCB_CURRENT_TIME ||
                          request.time >= m_ownedSince);
    if (current) {
        const QByteArray target = m_x->atomName(request.target);
        const std::uint32_t maxBytes = xcb_get_maximum_request_length(c) * 4u - 64u;
        if (target == "TARGETS") {
            std::vector<xcb_atom_t> atoms{m_x->atom("TARGETS"), m_x->atom("TIMESTAMP")};
            for (const auto& entry : m_owned->entries) {
                atoms.push_back(m_x->atom(entry.target));
            }
            xcb_change_property(c, XCB_PROP_MODE_REPLACE, request.requestor, property, XCB_ATOM_ATOM, 32,
                                std::uint32_t(atoms.size()), atoms.data());
            answered = property;
        } else if (target == "TIMESTAMP") {
            xcb_change_property(c, XCB_PROP_MODE_REPLACE, request.requestor, property, XCB_ATOM_INTEGER, 32, 1,
                                &m_ownedSince);
            answered = property;
        } else {
            for (const auto& entry : m_owned->entries) {
                if (entry.target != target || std::uint32_t(entry.data.size()) > maxBytes) {
                    continue;
                }
                const int unit = entry.format / 8;
                xcb_change_property(c, XCB_PROP_MODE_REPLACE, request.requestor, property, m_x->atom(entry.type),
                                    std::uint8_t(entry.format), std::uint32_t(entry.data.size() / unit),
                                    entry.data.constData());
                answered = property;
                break;
            }
        }
    }
    xcb_selection_notify_event_t notify{};
    notify.response_type = XCB_SELECTION_NOTIFY;
    notify.time = request.time;
    notify.requestor = request.requestor;
    notify.selection = request.selection;
    notify.target = request.target;
    notify.property = answered;
    char wire[32] = {};
    std::memcpy(wire, &notify, sizeof notify);
    xcb_send_event(c, 0, request.requestor, XCB_EVENT_MASK_NO_EVENT, wire);
    xcb_flush(c);
}

} // namespace velnora
