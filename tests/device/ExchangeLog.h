#pragma once

// Exchanges as one process saw them: when each command went out and when
// its answer completed it, on the machine's monotonic clock, so that the
// logs of several processes can be merged.

#include <cstdint>
#include <string>
#include <vector>

#include "DeviceRig.h"

namespace devtest {

struct Mark {
    std::int64_t ns;  // steady clock, comparable across processes
    bool is_write;
    std::uint8_t echo;
    int owner;
};

// The successful writes and completing answers of `rec`, tagged `owner`.
std::vector<Mark> exchange_marks(Recorder& rec, int owner);
void write_marks(const std::vector<Mark>& marks, const std::string& file);
std::vector<Mark> read_marks(const std::string& file);
// Empty when, in time order, each command went out at least `min_gap_ms`
// after the one before it; else the first pair that did not. With a device
// that answers `min_gap_ms` or later, commands closer than that were in
// flight together. (The answers' own marks are taken after the waiter woke,
// so they cannot order the exchanges.)
std::string check_serial(std::vector<Mark> marks, int min_gap_ms);

}  // namespace devtest
