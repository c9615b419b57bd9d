#pragma once

#include <QByteArray>
#include <QDeadlineTimer>
#include <QHash>
#include <QObject>

#include <functional>
#include <memory>
#include <optional>

#include <xcb/xcb.h>

class QSocketNotifier;
struct _XCBKeySymbols;

namespace velnora {

// A private connection to the X server, separate from Qt's, so that grabs, selection ownership and
// XTest input belong to a client we fully control. Events are read as the socket becomes readable and
// handed to one handler.
class X11Connection : public QObject
{
    Q_OBJECT
public:
    // None when no display answers.
    static std::unique_ptr<X11Connection> open();
    ~X11Connection() override;

    xcb_connection_t* raw() const { return m_connection; }
    xcb_window_t root() const { return m_root; }
    xcb_atom_t atom(const QByteArray& name);
    QByteArray atomName(xcb_atom_t atom);

    // Receives every event read from the connection.
    void setEventHandler(std::function<void(const xcb_generic_event_t&)> handler);
    // Hands every event already read to the handler; call after request/reply pairs, which may leave
    // events queued inside xcb where the socket notifier cannot see them.
    void dispatchPending();
    // Round trip: afterwards every event the server produced before now has been dispatched.
    void sync();
    // Spins the event loop until condition() holds or the deadline passes; re-checks after each batch
    // of events. Returns condition().
    bool waitFor(const std::function<bool()>& condition, QDeadlineTimer deadline);

    xcb_keycode_t keycodeFor(xcb_keysym_t keysym);
    // The modifier bit (Mod1…Mod5 etc.) a modifier key is mapped to; fallback when it is unmapped.
    std::uint16_t modifierMaskFor(xcb_keysym_t keysym, std::uint16_t fallback);

    // The top-level window that has the keyboard focus, with its process and WM_CLASS.
    struct FocusedWindow
    {
        xcb_window_t window = XCB_NONE;
        std::optional<qint64> processId;
        QByteArray wmClass;
    };
    FocusedWindow focusedWindow();

Q_SIGNALS:
    void eventsDispatched();

private:
    X11Connection(xcb_connection_t* connection, xcb_window_t root);
    std::optional<QByteArray> windowProperty(xcb_window_t window, xcb_atom_t property, xcb_atom_t type);

    xcb_connection_t* m_connection;
    xcb_window_t m_root;
    QSocketNotifier* m_notifier = nullptr;
    _XCBKeySymbols* m_keySymbols = nullptr;
    QHash<QByteArray, xcb_atom_t> m_atoms;
    std::function<void(const xcb_generic_event_t&)> m_handler;
};

} // namespace velnora
