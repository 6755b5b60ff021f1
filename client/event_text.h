#pragma once

// The quick road from an input line to its stamped text.
//
// The stamped line is what nlohmann json makes of the input: parsed, the four
// stamped keys set, dumped compactly with every object's keys in byte order.
// For the lines the application really sends (an object of strings without
// escapes, integers, literals, and nested arrays and objects of the same) that
// text can be had by one pass over the input that sorts the members and
// copies their bytes, without building a document and printing it again.
// Anything else (escapes, fractions and exponents, very long integers, "-0",
// a byte-order mark, invalid or unusual input of any kind) is declined, and
// the caller takes the general path, which also owns every error. A line the
// quick road accepts is always one the general path accepts, with the same
// bytes as the result.
//
// Not thread-safe: one EventScan per thread.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qv {

// The values of the four stamped keys.
struct Stamps {
    std::string_view timestamp;
    std::string_view upload;
    std::string_view client;
    std::string_view user;
};

// One scanned line: the top-level members in byte order of their keys (a
// repeated key keeps its last value), each value in its final text. Kept
// between lines so that its buffers are reused.
struct EventScan {
    struct Member {
        std::string_view key;  // raw bytes between the quotes; never escaped
        std::size_t at;        // the value's text in `values`
        std::size_t length;
        std::size_t order;  // position in the input, which decides between repeated keys
    };
    std::vector<Member> members;
    std::string values;
};

// True when `line` takes the quick road; `scan` then describes it. False
// otherwise, with `scan` unspecified. Has no effect outside `scan`. The scan
// refers to the bytes of `line`, which must outlive its use.
bool scanEvent(std::string_view line, EventScan& scan);

// The stamped line for a scanned event: its members with the four stamped
// keys set over any of the same name. A stamp value that isn't plain text is
// escaped as the general path would, and one that isn't valid UTF-8 throws
// the same exception as there.
std::string writeStamped(const EventScan& scan, const Stamps& stamps);

}  // namespace qv
