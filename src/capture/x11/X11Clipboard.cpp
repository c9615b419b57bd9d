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
// Owners like GTK encode a large image anew for every format asked; measured about 0.5 s for 1 MB.
constexpr auto snapshotTimeout = 3000ms;
// Some managers (xfce4-clipman) keep a copy of their own and never answer: quitting must not hang on them.
constexpr auto handOffTimeout = 2000ms;
constexpr qsizetype snapshotByteLimit = 64 * 1024 * 1024;

// Protocol targets that describe the selection rather than hold content; saving them would
// advertise them twice after a restore.
const QSet<QByteArray>& protocolTargets()
{
    static const QSet<QByteArray> targets{"TARGETS",         "MULTIPLE",         "TIMESTAMP",
                                          "SAVE_TARGETS",    "DELETE",           "INSERT_SELECTION",
                                          "INSERT_PROPERTY", "_GTK_SAVE_TARGETS"};
    return targets;
}

template <typename T> std::unique_ptr<T, decltype(&std::free)> reply(T* raw)
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
    m_owner.emplace(*m_x, m_window, m_clipboard);

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
        if (auto converted = convert(selection, m_x->atom(target), deadline).converted) {
            if (std::strcmp(target, "STRING") == 0) {
                return QString::fromLatin1(converted->data);
            }
            return QString::fromUtf8(converted->data);
        }
    }
    return std::nullopt;
}

std::optional<ClipboardSnapshot> X11Clipboard::snapshotClipboard()
{
    m_x->dispatchPending();
    if (m_owner->owns()) {
        return *m_owner->content();
    }
    ClipboardSnapshot snapshot;
    if (selectionOwner(m_clipboard) == XCB_NONE) {
        return snapshot;
    }
    const QDeadlineTimer deadline(snapshotTimeout);
    const Conversion targets = convert(m_clipboard, m_x->atom("TARGETS"), deadline);
    if (targets.refused || (targets.converted && targets.converted->format != 32)) {
        return snapshot; // an owner without a format list offers nothing we could save
    }
    if (!targets.converted) {
        return std::nullopt;
    }
    const QByteArray& list = targets.converted->data;
    const auto* atoms = reinterpret_cast<const xcb_atom_t*>(list.constData());
    const qsizetype count = list.size() / qsizetype(sizeof(xcb_atom_t));
    QSet<xcb_atom_t> seen;
    qsizetype total = 0;
    for (qsizetype i = 0; i < count; ++i) {
        const xcb_atom_t target = atoms[i];
        if (target == XCB_ATOM_NONE || seen.contains(target)) {
            continue;
        }
        seen.insert(target);
        const QByteArray name = m_x->atomName(target);
        if (name.isEmpty() || protocolTargets().contains(name)) {
            continue;
        }
        const Conversion format = convert(m_clipboard, target, deadline);
        if (format.refused) {
            continue; // what the owner will not give is not lost by leaving it out
        }
        if (!format.converted || total + format.converted->data.size() > snapshotByteLimit) {
            return std::nullopt;
        }
        total += format.converted->data.size();
        snapshot.entries.push_back(
            {name, m_x->atomName(format.converted->type), format.converted->format, format.converted->data});
    }
    return snapshot;
}

void X11Clipboard::restoreClipboard(const ClipboardSnapshot& snapshot)
{
    if (snapshot.isEmpty()) {
        m_owner->forget();
        xcb_set_selection_owner(m_x->raw(), XCB_NONE, m_clipboard, XCB_CURRENT_TIME);
        m_x->sync();
        return;
    }
    m_owner->own(snapshot, serverTime());
    m_x->dispatchPending();
}

bool X11Clipboard::handOffToClipboardManager()
{
    const xcb_atom_t manager = m_x->atom("CLIPBOARD_MANAGER");
    const xcb_atom_t saveTargets = m_x->atom("SAVE_TARGETS");
    if (!m_owner->owns() || selectionOwner(manager) == XCB_NONE) {
        return false;
    }
    // The manager asks us for every format while we wait, then answers the request.
    m_notify.reset();
    xcb_convert_selection(m_x->raw(), m_window, manager, saveTargets, m_transfer, XCB_CURRENT_TIME);
    xcb_flush(m_x->raw());
    const bool answered = m_x->waitFor(
        [&] { return m_notify && m_notify->selection == manager && m_notify->target == saveTargets; },
        QDeadlineTimer(handOffTimeout));
    const bool saved = answered && m_notify->property != XCB_NONE;
    m_notify.reset();
    return saved;
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

X11Clipboard::Conversion X11Clipboard::convert(xcb_atom_t selection, xcb_atom_t target,
                                               QDeadlineTimer deadline)
{
    if (target == XCB_ATOM_NONE) {
        return {std::nullopt, true};
    }
    // Asking ourselves through the server would wait on our own answer.
    if (selection == m_clipboard && m_owner->owns()) {
        const QByteArray name = m_x->atomName(target);
        for (const auto& entry : m_owner->content()->entries) {
            if (entry.target == name) {
                return {Converted{m_x->atom(entry.type), entry.format, entry.data}};
            }
        }
        if (name == "TARGETS") {
            QByteArray list;
            for (const auto& entry : m_owner->content()->entries) {
                const xcb_atom_t a = m_x->atom(entry.target);
                list.append(reinterpret_cast<const char*>(&a), sizeof a);
            }
            return {Converted{XCB_ATOM_ATOM, 32, list}};
        }
        return {std::nullopt, true};
    }

    xcb_connection_t* c = m_x->raw();
    m_notify.reset();
    xcb_delete_property(c, m_window, m_transfer);
    xcb_convert_selection(c, m_window, selection, target, m_transfer, XCB_CURRENT_TIME);
    xcb_flush(c);
    const bool answered = m_x->waitFor(
        [&] { return m_notify && m_notify->selection == selection && m_notify->target == target; }, deadline);
    if (!answered) {
        m_notify.reset();
        return {};
    }
    const bool refused = m_notify->property == XCB_NONE;
    m_notify.reset();
    if (refused) {
        return {std::nullopt, true};
    }
    bool incremental = false;
    const int updatesBefore = m_transferUpdates;
    auto first = readProperty(&incremental);
    if (!first) {
        return {std::nullopt, true};
    }
    if (!incremental) {
        return {first};
    }
    return {readIncrementally(updatesBefore, deadline)};
}

std::optional<X11Clipboard::Converted> X11Clipboard::readIncrementally(int seen, QDeadlineTimer deadline)
{
    // The owner writes chunk after chunk, each once we delete the previous; an empty one ends it. The
    // count is taken before each read that deletes, so a chunk announced during that read still wakes us.
    Converted whole;
    for (;;) {
        if (!m_x->waitFor([&] { return m_transferUpdates > seen; }, deadline)) {
            xcb_delete_property(m_x->raw(), m_window, m_transfer);
            return std::nullopt;
        }
        seen = m_transferUpdates;
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
            xcb_delete_property(m_x->raw(), m_window, m_transfer);
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
            m_owner->handleEvent(event);
        } else if (notify.atom == m_transfer && notify.state == XCB_PROPERTY_NEW_VALUE) {
            ++m_transferUpdates;
        } else if (notify.atom == m_stamp) {
            m_stampTime = notify.time;
        }
        break;
    }
    case XCB_SELECTION_REQUEST:
    case XCB_SELECTION_CLEAR:
        m_owner->handleEvent(event);
        break;
    default:
        break;
    }
}

} // namespace velnora
