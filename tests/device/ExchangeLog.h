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
// Empty when, in time order, every write is followed by the answer that
// echoes it before any other write; else what went wrong.
std::string check_serial(std::vector<Mark> marks);

}  // namespace devtest
