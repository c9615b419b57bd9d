#include "base/ModeResult.h"

#include <cstdio>

namespace velnora::ModeResult {

namespace {

QString oneLine(QString text)
{
    return text.replace(u'\n', u' ').trimmed();
}

} // namespace

void printLine(const QString& line)
{
    std::fputs((line + u'\n').toUtf8().constData(), stdout);
    std::fflush(stdout);
}

void printErrorLine(const QString& line)
{
    std::fputs((line + u'\n').toUtf8().constData(), stderr);
    std::fflush(stderr);
}

int report(const QString& mode, const QString& failureReason)
{
    if (failureReason.isEmpty()) {
        printLine(mode + QStringLiteral(": ok"));
        return 0;
    }
    printLine(mode + QStringLiteral(": ") + oneLine(failureReason));
    return 1;
}

} // namespace velnora::ModeResult
