#pragma once

#include <QRectF>
#include <QString>
#include <chrono>
#include <memory>
#include <optional>
#include <vector>

namespace velnora {

// One focused element of some application, as the accessibility layer reports it. Every query may fail
// or time out; a failure reads as "nothing".
class AccessibleElement
{
public:
    virtual ~AccessibleElement() = default;
    virtual bool isSecure() = 0;
    virtual std::optional<QString> selectedText() = 0;
    // In device pixels of the X screen, origin top-left.
    virtual std::optional<QRectF> selectedTextScreenRect() = 0;
};

class AccessibilityProbe
{
public:
    virtual ~AccessibilityProbe() = default;
    // The focused elements worth asking, best first and without repeats: the preferred process's, the
    // one of whichever application holds the active window, the one of the window with input focus.
    // With a timeout every call to another application is bounded by it.
    virtual std::vector<std::unique_ptr<AccessibleElement>>
    focusedElements(std::optional<qint64> preferredProcess,
                    std::optional<std::chrono::milliseconds> timeout) = 0;
    // Whether the application holding the focused window answers on the accessibility bus, so that a
    // missing focused element means "not yet" (a window re-activating after a key grab), not "never".
    virtual bool focusedApplicationIsAccessible() = 0;
};

} // namespace velnora
