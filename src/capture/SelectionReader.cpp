#include "capture/SelectionReader.h"

#include "capture/ScreenMapping.h"
#include "capture/SelectionReadError.h"

#include <QDeadlineTimer>
#include <QEventLoop>
#include <QThread>
#include <QTimer>

namespace velnora {

using namespace std::chrono_literals;

namespace {

constexpr auto modifierReleaseTimeout = 600ms;
constexpr auto clipboardChangeTimeout = 700ms;
// The hot key's grab makes GTK windows report themselves inactive until its key goes up, so the read
// waits for the keys first; a hold longer than this reads whatever can be seen.
constexpr auto hotKeyReleaseTimeout = 2000ms;
// After the grab ends, the window needs a moment to take its focus back.
constexpr auto reactivationTimeout = 150ms;
constexpr auto peekMessagingTimeout = 250ms;
constexpr auto waitSlice = 20ms;

std::optional<QString> trimmedText(const std::optional<QString>& text)
{
    if (!text) {
        return std::nullopt;
    }
    QString trimmed = text->trimmed();
    if (trimmed.isEmpty()) {
        return std::nullopt;
    }
    return trimmed;
}

// Resets the re-entrancy flag on every way out.
class ReadingGuard
{
public:
    explicit ReadingGuard(bool& flag) : m_flag(flag) { m_flag = true; }
    ~ReadingGuard() { m_flag = false; }

private:
    bool& m_flag;
};

} // namespace

SelectionReader::SelectionReader() : SelectionReader(CapturePlatform::create()) {}

SelectionReader::SelectionReader(CapturePlatform platform) : m_platform(std::move(platform)) {}

SelectionReader::~SelectionReader() = default;

SelectionResult SelectionReader::readSelection()
{
    if (!m_platform.clipboard || !m_platform.keyboard) {
        throw SelectionReadError(SelectionReadError::Case::accessibilityPermissionRequired);
    }
    // A second hot-key press that arrives while a wait spins the event loop is refused, not queued.
    if (m_isReading) {
        throw SelectionReadError(SelectionReadError::Case::noSelection);
    }
    ReadingGuard guard(m_isReading);

    waitForModifiersToClear(hotKeyReleaseTimeout);
    std::optional<SelectionResult> found = readAccessible(Walk::read, std::nullopt, std::nullopt);
    if (!found && m_platform.accessibility && m_platform.accessibility->focusedApplicationIsAccessible()) {
        waitUntil(
            [&] {
                found = readAccessible(Walk::read, std::nullopt, std::nullopt);
                return found.has_value();
            },
            reactivationTimeout);
    }
    if (found) {
        return *found;
    }
    if (auto primary = trimmedText(m_platform.clipboard->primaryText())) {
        return {*primary, std::nullopt};
    }
    if (auto copied = copySelectionAndRestoreClipboard()) {
        return {*copied, std::nullopt};
    }
    throw SelectionReadError(SelectionReadError::Case::noSelection);
}

std::optional<SelectionResult> SelectionReader::peekSelection(std::optional<qint64> inProcess)
{
    if (!m_platform.clipboard || !m_platform.keyboard) {
        return std::nullopt;
    }
    try {
        return readAccessible(Walk::peek, inProcess, peekMessagingTimeout);
    } catch (const SelectionReadError&) {
        return std::nullopt;
    }
}

SelectionResult SelectionReader::clipboardText()
{
    if (m_platform.clipboard) {
        if (auto text = trimmedText(m_platform.clipboard->clipboardText())) {
            return {*text, std::nullopt};
        }
    }
    throw SelectionReadError(SelectionReadError::Case::clipboardUnavailable);
}

bool SelectionReader::handOffClipboard()
{
    return m_platform.clipboard && m_platform.clipboard->handOffToClipboardManager();
}

std::optional<SelectionResult>
SelectionReader::readAccessible(Walk walk, std::optional<qint64> process,
                                std::optional<std::chrono::milliseconds> timeout)
{
    if (!m_platform.accessibility) {
        return std::nullopt;
    }
    for (const auto& element : m_platform.accessibility->focusedElements(process, timeout)) {
        // A password field ends the read at once: no later candidate, no copy.
        if (element->isSecure()) {
            if (walk == Walk::peek) {
                return std::nullopt;
            }
            throw SelectionReadError(SelectionReadError::Case::secureField);
        }
        if (auto text = trimmedText(element->selectedText())) {
            std::optional<QRectF> anchor;
            if (auto deviceRect = m_platform.extentsAreScreenCoordinates ? element->selectedTextScreenRect()
                                                                         : std::nullopt) {
                anchor = ScreenMapping::logicalRect(*deviceRect, ScreenMapping::currentScreens());
            }
            return SelectionResult{*text, anchor};
        }
    }
    return std::nullopt;
}

std::optional<QString> SelectionReader::copySelectionAndRestoreClipboard()
{
    ClipboardAccess& clipboard = *m_platform.clipboard;
    const std::optional<ClipboardSnapshot> snapshot = clipboard.snapshotClipboard();
    if (!snapshot) {
        // Copying over a clipboard we could not keep whole would lose the user's content.
        throw SelectionReadError(SelectionReadError::Case::clipboardNotSaved);
    }
    const std::uint64_t before = clipboard.clipboardChangeCount();

    bool changed = false;
    for (int attempt = 0; attempt < 2 && !changed; ++attempt) {
        // A copy typed into held keys becomes another shortcut, or a plain "c" over the selection.
        if (!waitForModifiersToClear(modifierReleaseTimeout)) {
            continue;
        }
        if (!m_platform.keyboard->postCopyShortcut()) {
            return std::nullopt;
        }
        changed = waitForClipboardChange(before, clipboardChangeTimeout);
    }
    if (!changed) {
        return std::nullopt;
    }

    const std::uint64_t afterCopy = clipboard.clipboardChangeCount();
    const std::optional<QString> text = trimmedText(clipboard.clipboardText());
    // Whoever wrote after our copy wins: their content is newer than the snapshot.
    if (clipboard.clipboardChangeCount() == afterCopy) {
        clipboard.restoreClipboard(*snapshot);
    }
    return text;
}

bool SelectionReader::waitForModifiersToClear(std::chrono::milliseconds timeout)
{
    return waitUntil([this] { return !m_platform.keyboard->keysHeld(); }, timeout);
}

bool SelectionReader::waitForClipboardChange(std::uint64_t since, std::chrono::milliseconds timeout)
{
    return waitUntil([this, since] { return m_platform.clipboard->clipboardChangeCount() != since; },
                     timeout);
}

bool SelectionReader::waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    const QDeadlineTimer deadline(timeout);
    while (!deadline.hasExpired()) {
        if (condition()) {
            return true;
        }
        // Spin the event loop rather than sleep, so the tray menu and timers stay alive.
        QEventLoop slice;
        const auto remaining =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline.remainingTimeAsDuration());
        QTimer::singleShot(std::min<std::chrono::milliseconds>(waitSlice, remaining), &slice,
                           &QEventLoop::quit);
        slice.exec();
    }
    return condition();
}

} // namespace velnora
