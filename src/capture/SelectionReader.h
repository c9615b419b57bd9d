#pragma once

#include "capture/CapturePlatform.h"
#include "capture/SelectionResult.h"

#include <chrono>
#include <functional>
#include <optional>

namespace velnora {

// Reads what the user has selected in the application in front. Main thread only; holds no text
// between calls.
class SelectionReader
{
public:
    SelectionReader();
    explicit SelectionReader(CapturePlatform platform);
    ~SelectionReader();

    // Accessibility, then PRIMARY, then a synthetic copy. Throws SelectionReadError.
    SelectionResult readSelection();
    // Accessibility only, short timeouts, never touches a selection or the clipboard.
    std::optional<SelectionResult> peekSelection(std::optional<qint64> inProcess);
    // Throws SelectionReadError(clipboardUnavailable).
    SelectionResult clipboardText();

    bool isReading() const { return m_isReading; }
    // At quit: a clipboard we restored lives only as long as this process, so a clipboard manager gets it.
    bool handOffClipboard();

private:
    enum class Walk { read, peek };
    std::optional<SelectionResult> readAccessible(Walk walk, std::optional<qint64> process,
                                                  std::optional<std::chrono::milliseconds> timeout);
    std::optional<QString> copySelectionAndRestoreClipboard();
    // Every key up, the hot key's own included.
    bool waitForModifiersToClear(std::chrono::milliseconds timeout);
    bool waitForClipboardChange(std::uint64_t since, std::chrono::milliseconds timeout);
    static bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

    CapturePlatform m_platform;
    bool m_isReading = false;
};

} // namespace velnora
