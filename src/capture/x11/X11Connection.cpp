#include "capture/x11/X11Connection.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QSocketNotifier>
#include <QTimer>

#include <cstdlib>

#include <xcb/xcb_keysyms.h>

namespace velnora {

namespace {

template <typename T>
using Reply = std::unique_ptr<T, decltype(&std::free)>;

template <typename T>
Reply<T> reply(T* raw)
{
    return Reply<T>(raw, &std::free);
}

} // namespace

std::unique_ptr<X11Connection> X11Connection::open()
{
    if (qEnvironmentVariableIsEmpty("DISPLAY")) {
        return nullptr;
    }
    int screenNumber = 0;
    xcb_connection_t* connection = xcb_connect(nullptr, &screenNumber);
    if (!connection || xcb_connection_has_error(connection)) {
        if (connection) {
            xcb_disconnect(connection);
        }
        return nullptr;
    }
    xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
    for (int i = 0; i < screenNumber && screens.rem > 0; ++i) {
        xcb_screen_next(&screens);
    }
    if (screens.rem == 0) {
        xcb_disconnect(connection);
        return nullptr;
    }
    return std::unique_ptr<X11Connection>(new X11Connection(connection, screens.data->root));
}

X11Connection::X11Connection(xcb_connection_t* connection, xcb_window_t root)
    : m_connection(connection), m_root(root), m_keySymbols(xcb_key_symbols_alloc(connection))
{
    if (QCoreApplication::instance()) {
        m_notifier = new QSocketNotifier(xcb_get_file_descriptor(connection), QSocketNotifier::Read, this);
        connect(m_notifier, &QSocketNotifier::activated, this, &X11Connection::dispatchPending);
    }
}

X11Connection::~X11Connection()
{
    delete m_notifier;
    if (m_keySymbols) {
        xcb_key_symbols_free(m_keySymbols);
    }
    xcb_disconnect(m_connection);
}

xcb_atom_t X11Connection::atom(const QByteArray& name)
{
    if (auto it = m_atoms.constFind(name); it != m_atoms.cend()) {
        return *it;
    }
    auto answer = reply(xcb_intern_atom_reply(
        m_connection, xcb_intern_atom(m_connection, 0, uint16_t(name.size()), name.constData()), nullptr));
    const xcb_atom_t value = answer ? answer->atom : xcb_atom_t(XCB_ATOM_NONE);
    if (value != XCB_ATOM_NONE) {
        m_atoms.insert(name, value);
    }
    return value;
}

QByteArray X11Connection::atomName(xcb_atom_t atom)
{
    for (auto it = m_atoms.cbegin(); it != m_atoms.cend(); ++it) {
        if (it.value() == atom) {
            return it.key();
        }
    }
    auto answer = reply(xcb_get_atom_name_reply(m_connection, xcb_get_atom_name(m_connection, atom), nullptr));
    if (!answer) {
        return {};
    }
    QByteArray name(xcb_get_atom_name_name(answer.get()), xcb_get_atom_name_name_length(answer.get()));
    m_atoms.insert(name, atom);
    return name;
}

void X11Connection::setEventHandler(std::function<void(const xcb_generic_event_t&)> handler)
{
    m_handler = std::move(handler);
}

void X11Connection::dispatchPending()
{
    bool any = false;
    while (xcb_generic_event_t* event = xcb_poll_for_event(m_connection)) {
        any = true;
        if (m_handler) {
            m_handler(*event);
        }
        std::free(event);
    }
    // A dead server leaves the socket readable forever; stop listening instead of spinning.
    if (m_notifier && xcb_connection_has_error(m_connection)) {
        m_notifier->setEnabled(false);
    }
    if (any) {
        Q_EMIT eventsDispatched();
    }
}

void X11Connection::sync()
{
    std::free(xcb_get_input_focus_reply(m_connection, xcb_get_input_focus(m_connection), nullptr));
    dispatchPending();
}

bool X11Connection::waitFor(const std::function<bool()>& condition, QDeadlineTimer deadline)
{
    dispatchPending();
    if (condition()) {
        return true;
    }
    if (!m_notifier || deadline.hasExpired()) {
        return condition();
    }
    QEventLoop loop;
    QTimer timer;
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    connect(this, &X11Connection::eventsDispatched, &loop, [&] {
        if (condition()) {
            loop.quit();
        }
    });
    timer.start(std::max<qint64>(0, deadline.remainingTime()));
    loop.exec();
    dispatchPending();
    return condition();
}

xcb_keycode_t X11Connection::keycodeFor(xcb_keysym_t keysym)
{
    if (!m_keySymbols) {
        return 0;
    }
    xcb_keycode_t* codes = xcb_key_symbols_get_keycode(m_keySymbols, keysym);
    const xcb_keycode_t code = codes ? codes[0] : 0;
    std::free(codes);
    return code;
}

std::uint16_t X11Connection::modifierMaskFor(xcb_keysym_t keysym, std::uint16_t fallback)
{
    auto map = reply(xcb_get_modifier_mapping_reply(m_connection, xcb_get_modifier_mapping(m_connection), nullptr));
    if (!map || !m_keySymbols) {
        return fallback;
    }
    const xcb_keycode_t* codes = xcb_get_modifier_mapping_keycodes(map.get());
    const int perModifier = map->keycodes_per_modifier;
    for (int modifier = 0; modifier < 8; ++modifier) {
        for (int i = 0; i < perModifier; ++i) {
            const xcb_keycode_t code = codes[modifier * perModifier + i];
            if (code == 0) {
                continue;
            }
            for (int column = 0; column < 4; ++column) {
                if (xcb_key_symbols_get_keysym(m_keySymbols, code, column) == keysym) {
                    return std::uint16_t(1u << modifier);
                }
            }
        }
    }
    return fallback;
}

std::optional<QByteArray> X11Connection::windowProperty(xcb_window_t window, xcb_atom_t property, xcb_atom_t type)
{
    auto answer = reply(xcb_get_property_reply(
        m_connection, xcb_get_property(m_connection, 0, window, property, type, 0, 1024), nullptr));
    if (!answer || answer->type == XCB_ATOM_NONE) {
        return std::nullopt;
    }
    return QByteArray(static_cast<const char*>(xcb_get_property_value(answer.get())),
                      xcb_get_property_value_length(answer.get()));
}

X11Connection::FocusedWindow X11Connection::focusedWindow()
{
    FocusedWindow focused;
    xcb_window_t window = XCB_NONE;
    // A window manager names the active client; without one, the input focus is all there is.
    if (auto active = windowProperty(m_root, atom("_NET_ACTIVE_WINDOW"), XCB_ATOM_WINDOW);
        active && active->size() >= 4) {
        window = *reinterpret_cast<const xcb_window_t*>(active->constData());
    }
    if (window == XCB_NONE) {
        auto focus = reply(xcb_get_input_focus_reply(m_connection, xcb_get_input_focus(m_connection), nullptr));
        if (focus && focus->focus > XCB_INPUT_FOCUS_POINTER_ROOT) {
            window = focus->focus;
        }
    }
    const xcb_atom_t pidAtom = atom("_NET_WM_PID");
    // The focus may sit on a child of the top level; climb until a window names its client.
    for (int depth = 0; window != XCB_NONE && window != m_root && depth < 16; ++depth) {
        auto wmClass = windowProperty(window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING);
        auto pid = windowProperty(window, pidAtom, XCB_ATOM_CARDINAL);
        if (wmClass || pid) {
            focused.window = window;
            focused.wmClass = wmClass.value_or(QByteArray());
            if (pid && pid->size() >= 4) {
                focused.processId = *reinterpret_cast<const std::uint32_t*>(pid->constData());
            }
            break;
        }
        auto tree = reply(xcb_query_tree_reply(m_connection, xcb_query_tree(m_connection, window), nullptr));
        if (!tree) {
            break;
        }
        window = tree->parent;
    }
    dispatchPending();
    return focused;
}

} // namespace velnora
