#pragma once

#include "capture/AccessibilityProbe.h"

#include <functional>

namespace velnora {

// Focused elements through AT-SPI 2. Every call into another application is a synchronous D-Bus call
// bounded by the timeout; the walk as a whole has its own deadline.
class AtspiAccessibilityProbe : public AccessibilityProbe
{
public:
    // focusedProcess: the process owning the window with the keyboard focus, if known.
    explicit AtspiAccessibilityProbe(std::function<std::optional<qint64>()> focusedProcess);

    std::vector<std::unique_ptr<AccessibleElement>>
    focusedElements(std::optional<qint64> preferredProcess,
                    std::optional<std::chrono::milliseconds> timeout) override;
    bool focusedApplicationIsAccessible() override;

    // The accessibility bus answers; without it no application can be asked.
    static bool isAvailable();

private:
    std::function<std::optional<qint64>()> m_focusedProcess;
};

} // namespace velnora
