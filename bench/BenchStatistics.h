#pragma once

#include <algorithm>
#include <limits>
#include <vector>

namespace velnora::bench {

// The sample at this fraction of the sorted samples (0.5 the median, 1.0 the largest); NaN when there
// are none, so a benchmark that measured nothing cannot report a plausible figure.
inline double percentile(std::vector<double> samples, double fraction)
{
    if (samples.empty()) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    std::sort(samples.begin(), samples.end());
    return samples[std::min(samples.size() - 1, std::size_t(fraction * double(samples.size())))];
}

} // namespace velnora::bench
