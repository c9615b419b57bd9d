#pragma once

#include <QString>

namespace velnora::ModeResult {

// Prints "<mode>: ok" (exit status 0) or "<mode>: <reason>" on one line (exit status 1).
int report(const QString& mode, const QString& failureReason);
// Prints one line to standard output / standard error and flushes it.
void printLine(const QString& line);
void printErrorLine(const QString& line);

} // namespace velnora::ModeResult
