#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <optional>
#include <vector>

namespace velnora {

// Everything the clipboard held, format by format, exactly as its owner served it.
struct ClipboardSnapshot
{
    struct Entry
    {
        QByteArray target; // the format's name, e.g. "text/html"
        QByteArray type;   // the type the owner answered with
        int format = 8;    // 8, 16 or 32 bits per item
        QByteArray data;
        friend bool operator==(const Entry&, const Entry&) = default;
    };
    std::vector<Entry> entries;
    bool isEmpty() const { return entries.empty(); }
};

// The PRIMARY selection and the CLIPBOARD of the session.
class ClipboardAccess
{
public:
    virtual ~ClipboardAccess() = default;
    virtual std::optional<QString> primaryText() = 0;
    virtual std::optional<QString> clipboardText() = 0;
    // None when some format could not be read whole in time: restoring less would lose the rest.
    virtual std::optional<ClipboardSnapshot> snapshotClipboard() = 0;
    // Puts the snapshot back on CLIPBOARD (an empty one leaves it without owner).
    virtual void restoreClipboard(const ClipboardSnapshot& snapshot) = 0;
    // While this process owns CLIPBOARD, asks a running clipboard manager to take a copy, so the content
    // outlives the process. False when there is nothing to hand over, no manager or no answer in time.
    virtual bool handOffToClipboardManager() = 0;
    // Grows by one each time the CLIPBOARD changes hands, our own writes included.
    virtual std::uint64_t clipboardChangeCount() = 0;
};

} // namespace velnora
