#pragma once

#include "capture/ClipboardAccess.h"
#include "capture/x11/X11SelectionOwner.h"

#include <QDeadlineTimer>
#include <memory>
#include <xcb/xcb.h>

namespace velnora {

class X11Connection;

// PRIMARY and CLIPBOARD through the selection protocol. Owner changes of CLIPBOARD are counted from
// XFixes notifications; a restored snapshot is served from this client, byte for byte, until someone
// else takes the CLIPBOARD. Large formats are read incrementally (INCR).
class X11Clipboard : public ClipboardAccess
{
public:
    explicit X11Clipboard(std::shared_ptr<X11Connection> connection);
    ~X11Clipboard() override;

    std::optional<QString> primaryText() override;
    std::optional<QString> clipboardText() override;
    std::optional<ClipboardSnapshot> snapshotClipboard() override;
    void restoreClipboard(const ClipboardSnapshot& snapshot) override;
    bool handOffToClipboardManager() override;
    std::uint64_t clipboardChangeCount() override;

private:
    struct Converted
    {
        xcb_atom_t type = XCB_ATOM_NONE;
        int format = 8;
        QByteArray data;
    };
    // What a conversion ended with: data, an owner that refused the target, or no whole answer in time.
    struct Conversion
    {
        std::optional<Converted> converted;
        bool refused = false;
    };
    Conversion convert(xcb_atom_t selection, xcb_atom_t target, QDeadlineTimer deadline);
    std::optional<Converted> readIncrementally(int seen, QDeadlineTimer deadline);
    std::optional<Converted> readProperty(bool* incremental);
    std::optional<QString> selectionText(xcb_atom_t selection);
    xcb_window_t selectionOwner(xcb_atom_t selection);
    xcb_timestamp_t serverTime();
    void handleEvent(const xcb_generic_event_t& event);

    std::shared_ptr<X11Connection> m_x;
    xcb_window_t m_window = XCB_NONE;
    xcb_atom_t m_clipboard = XCB_ATOM_NONE;
    xcb_atom_t m_transfer = XCB_ATOM_NONE;
    xcb_atom_t m_stamp = XCB_ATOM_NONE;
    std::uint8_t m_xfixesEvent = 0;
    bool m_hasXFixes = false;
    std::uint64_t m_changes = 0;
    xcb_window_t m_lastOwner = XCB_NONE;

    std::optional<X11SelectionOwner> m_owner;

    // The conversion in flight.
    std::optional<xcb_selection_notify_event_t> m_notify;
    int m_transferUpdates = 0;
    std::optional<xcb_timestamp_t> m_stampTime;
};

} // namespace velnora
