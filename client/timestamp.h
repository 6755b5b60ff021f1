#pragma once

// Client clock and the timestamp text of the events and the state file.

#include <cstdint>
#include <string>

namespace qv {

// System clock in 100-nanosecond ticks from the Unix epoch.
std::uint64_t nowTicks();

// Milliseconds from `from` to `to`, truncated toward zero.
std::int64_t ticksToMs(std::uint64_t from, std::uint64_t to);

// "%Y-%m-%d %H:%M:%S.%06lu" in UTC: 26 characters.
std::string timestampText(std::uint64_t ticks);
std::string nowTimestamp();

// Reads a stored timestamp back as seconds. The date is taken as local
// standard time while it was written as UTC, so only differences of two
// results mean anything; the shift is the same for every date, daylight
// saving time or not. A text without "." gives its date part with no
// fraction.
double readTimestamp(const std::string& text);

}  // namespace qv
