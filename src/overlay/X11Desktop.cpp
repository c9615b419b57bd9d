#include "overlay/X11Desktop.h"

#include <QGuiApplication>
#include <QScreen>
#include <QWidget>
#include <QtGui/qguiapplication_platform.h>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <xcb/xcb.h>

namespace velnora::X11Desktop {

namespace {

template <typename T> using Reply = std::unique_ptr<T, decltype(&std::free)>;

xcb_connection_t* connection()
{
    auto* x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    return x11 ? x11->connection() : nullptr;
}

xcb_window_t rootWindow(xcb_connection_t* c)
{
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    return screen ? screen->root : XCB_NONE;
}

xcb_atom_t atom(xcb_connection_t* c, const char* name)
{
    const Reply<xcb_intern_atom_reply_t> reply(
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, uint16_t(std::strlen(name)), name), nullptr),
        &std::free);
    return reply ? reply->atom : XCB_NONE;
}

QList<xcb_atom_t> atomList(xcb_connection_t* c, xcb_window_t window, xcb_atom_t property)
{
    const Reply<xcb_get_property_reply_t> reply(
        xcb_get_property_reply(c, xcb_get_property(c, 0, window, property, XCB_ATOM_ATOM, 0, 32), nullptr),
        &std::free);
    QList<xcb_atom_t> atoms;
    if (reply && reply->format == 32) {
        const auto* values = static_cast<const xcb_atom_t*>(xcb_get_property_value(reply.get()));
        atoms = QList<xcb_atom_t>(values, values + xcb_get_property_value_length(reply.get()) / 4);
    }
    return atoms;
}

void sendToWindowManager(xcb_connection_t* c, xcb_window_t root, xcb_window_t window, xcb_atom_t type,
                         std::initializer_list<uint32_t> data)
{
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = window;
    event.type = type;
    std::copy(data.begin(), data.end(), event.data.data32);
    xcb_send_event(c, 0, root, XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char*>(&event));
}

} // namespace

bool isPanelAt(const QPoint& point)
{
    xcb_connection_t* c = connection();
    if (!c) {
        return false;
    }
    const xcb_window_t root = rootWindow(c);
    const xcb_atom_t windowType = atom(c, "_NET_WM_WINDOW_TYPE");
    const xcb_atom_t dock = atom(c, "_NET_WM_WINDOW_TYPE_DOCK");
    const qreal scale =
        QGuiApplication::primaryScreen() ? QGuiApplication::primaryScreen()->devicePixelRatio() : 1;
    const auto x = int16_t(qRound(point.x() * scale));
    const auto y = int16_t(qRound(point.y() * scale));
    // The top-level window at the point, then (under a reparenting window manager) the client in its frame.
    xcb_window_t parent = root;
    for (int depth = 0; depth < 2; ++depth) {
        const Reply<xcb_translate_coordinates_reply_t> reply(
            xcb_translate_coordinates_reply(c, xcb_translate_coordinates(c, root, parent, x, y), nullptr),
            &std::free);
        if (!reply || reply->child == XCB_NONE) {
            return false;
        }
        if (atomList(c, reply->child, windowType).contains(dock)) {
            return true;
        }
        parent = reply->child;
    }
    return false;
}

void joinAllWorkspaces(QWidget& window)
{
    xcb_connection_t* c = connection();
    if (!c || !window.isWindow()) {
        return;
    }
    const auto id = xcb_window_t(window.winId());
    const xcb_window_t root = rootWindow(c);
    const xcb_atom_t desktop = atom(c, "_NET_WM_DESKTOP");
    const xcb_atom_t state = atom(c, "_NET_WM_STATE");
    const xcb_atom_t sticky = atom(c, "_NET_WM_STATE_STICKY");
    constexpr uint32_t allDesktops = 0xFFFFFFFF;
    // The properties for a window manager that reads them at mapping, or for none at all …
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, id, desktop, XCB_ATOM_CARDINAL, 32, 1, &allDesktops);
    if (!atomList(c, id, state).contains(sticky)) {
        xcb_change_property(c, XCB_PROP_MODE_APPEND, id, state, XCB_ATOM_ATOM, 32, 1, &sticky);
    }
    // … and the requests a running one acts on (it owns both properties of a mapped window).
    constexpr uint32_t normalSource = 1;
    constexpr uint32_t add = 1;
    sendToWindowManager(c, root, id, desktop, {allDesktops, normalSource, 0, 0, 0});
    sendToWindowManager(c, root, id, state, {add, sticky, 0, normalSource, 0});
    xcb_flush(c);
}

} // namespace velnora::X11Desktop
