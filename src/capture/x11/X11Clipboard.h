#pragma once

#include "capture/ClipboardAccess.h"

#include <QDeadlineTimer>

#include <memory>

#include <xcb/xcb.h>

namespace velnora {

class X11Connection;

// PRIMARY and CLIPBOARD through the selection protocol. Owner changes of CLIPBOARD are counted from
// XFixes notifications; a restored snapshot is served from this client, byte for byte, until someone
// else takes the CLIPBOARD.
class X11Clipboard : public ClipboardAccess
{
public:
    explicit X11Clipboard(std::shared_ptr<X11Connection> connection);
    ~X11Clipboard() override;

    std::optional<QString> primaryText() override;
    std::optional<QString> clipboardText() override;
    ClipboardSnapshot snapshotClipboard() override;
    void restoreClipboard(const ClipboardSnapshot& snapshot) override;
    std::uint64_t clipboardChangeCount() override;

private:
    struct Converted
    {
        xcb_atom_t type = XCB_ATOM_NONE;
        int format = 8;
        QByteArray data;
    };
    std::optional<Converted> convert(xcb_atom_t selection, xcb_atom_t target, QDeadlineTimer deadline);
    std::optional<Converted> readProperty(bool* incremental);
    std::optional<QString> selectionText(xcb_atom_t selection);
    xcb_window_t selectionOwner(xcb_atom_t selection);
    xcb_timestamp_t serverTime();
    void handleEvent(const xcb_generic_event_t& event);
    void serve(const xcb_selection_request_event_t& request);

    std::shared_ptr<X11Connection> m_x;
    xcb_window_t m_window = XCB_NONE;
    xcb_atom_t m_clipboard = XCB_ATOM_NONE;
    xcb_atom_t m_transfer = XCB_ATOM_NONE;
    xcb_atom_t m_stamp = XCB_ATOM_NONE;
    std::uint8_t m_xfixesEvent = 0;
    bool m_hasXFixes = false;
    std::uint64_t m_changes = 0;
    xcb_window_t m_lastOwner = XCB_NONE;

    std::optional<ClipboardSnapshot> m_owned;
    xcb_timestamp_t m_ownedSince = XCB_CURRENT_TIME;

    // The conversion in flight.
    std::optional<xcb_selection_notify_event_t> m_notify;
    int m_transferUpdates = 0;
    std::optional<xcb_timestamp_t> m_stampTime;
};

} // namespace velnora
