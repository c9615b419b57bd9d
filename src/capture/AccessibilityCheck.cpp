#include "capture/AccessibilityCheck.h"

#include "base/ModeResult.h"
#include "capture/CapturePlatform.h"

namespace velnora::AccessibilityCheck {

int run(const ProcessArguments&)
{
    const bool trusted = CapturePlatform::isTrusted();
    ModeResult::printLine(trusted ? QStringLiteral("trusted") : QStringLiteral("not-trusted"));
    return trusted ? 0 : 2;
}

} // namespace velnora::AccessibilityCheck
