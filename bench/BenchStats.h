#pragma once

// What the benchmarks share: the clock they time with, the time since a
// start in the unit a figure is printed in, and the median of the rounds.

#include <algorithm>
#include <chrono>
#include <ratio>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

// Time since `start`, in the unit of `Period` (std::micro, std::milli).
template <class Period>
double since(Clock::time_point start) {
    return std::chrono::duration<double, Period>(Clock::now() - start).count();
}

// The middle value, upper of the two for an even count; `v` not empty.
inline double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace bench
