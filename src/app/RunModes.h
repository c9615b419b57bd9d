#pragma once

#include "base/ProcessArguments.h"

#include <functional>
#include <optional>
#include <vector>

namespace velnora {

// The table of roles the executable can take, tested in order; the first row that matches decides.
namespace RunModes {

enum class Match {
    flag,            // the flag stands anywhere in the arguments
    flagWithValue,   // the flag is followed by a value; without one the row is skipped
    nativeMessaging, // Chrome started us as its native-messaging host
    always,          // application mode
};

struct Row
{
    int step;
    const char* flag; // empty for the last two rows
    Match match;
    // Runs the mode and returns the process's exit status. Empty while the mode is not built:
    // such a row is skipped like an unknown flag.
    std::function<int(const ProcessArguments&)> action;
    const char* help = ""; // for --help: the value it takes, then what it does
};

const std::vector<Row>& table();
// The row that would run for these arguments.
const Row* select(const ProcessArguments& arguments);
// Runs the selected mode; --help and --version come first.
int dispatch(const ProcessArguments& arguments);

bool isNativeMessagingInvocation(const QStringList& arguments);
QString usage();

} // namespace RunModes
} // namespace velnora
