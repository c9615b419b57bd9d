#pragma once

#include "capture/ClipboardAccess.h"

#include <QDeadlineTimer>
#include <optional>
#include <vector>
#include <xcb/xcb.h>

namespace velnora {

class X11Connection;

// Serves a saved clipboard from one of our windows: TARGETS, TIMESTAMP, MULTIPLE and every saved
// format byte for byte. Formats larger than one chunk go out incrementally (INCR), a chunk each time
// the requestor deletes the previous one.
class X11SelectionOwner
{
public:
    X11SelectionOwner(X11Connection& connection, xcb_window_t window, xcb_atom_t selection);

    // Takes the selection with this content, stamped with the server time `since`. False when the
    // server gave it to someone else.
    bool own(const ClipboardSnapshot& content, xcb_timestamp_t since);
    // Stops serving without touching the selection.
    void forget();
    const std::optional<ClipboardSnapshot>& content() const { return m_content; }
    // Whether the server still names our window as the owner.
    bool owns();

    // Takes selection requests, clears and the property deletions of transfers in progress.
    void handleEvent(const xcb_generic_event_t& event);

private:
    struct Transfer
    {
        xcb_window_t requestor = XCB_NONE;
        xcb_atom_t property = XCB_NONE;
        xcb_atom_t type = XCB_NONE;
        int format = 8;
        QByteArray data;
        qsizetype sent = 0;
        bool finished = false; // the closing empty chunk is out
        QDeadlineTimer expires;
    };

    void serve(const xcb_selection_request_event_t& request);
    // Writes one target into the requestor's property; false when we do not have it.
    bool answer(xcb_window_t requestor, xcb_atom_t target, xcb_atom_t property);
    bool answerMultiple(xcb_window_t requestor, xcb_atom_t property);
    void continueTransfer(xcb_window_t requestor, xcb_atom_t property);
    void dropExpiredTransfers();
    qsizetype chunkBytes() const;

    X11Connection& m_x;
    xcb_window_t m_window;
    xcb_atom_t m_selection;
    std::optional<ClipboardSnapshot> m_content;
    xcb_timestamp_t m_since = XCB_CURRENT_TIME;
    std::vector<Transfer> m_transfers;
};

} // namespace velnora
