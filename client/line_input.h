#pragma once

// Line input over a raw descriptor, with the states of a C++ stream.
//
// The client reads its own buffer rather than a stdio stream so that the
// wait for input and the buffered bytes agree: waiting is only done when no
// complete line is buffered, and then on the descriptor itself.

#include <string>

namespace qv {

struct LineInput {
    int fd = -1;
    std::string buffer;  // bytes read; those from `start` on are not yet returned
    size_t start = 0;
    bool eof = false;   // the descriptor reported its end
    bool fail = false;  // no line could be extracted (or no descriptor)
    bool bad = false;   // a read failed
};

// True when the next getLine() can return without reading.
bool lineBuffered(const LineInput& in);

// Waits up to `timeoutMs` for input on the descriptor. False on timeout or
// on a failed wait.
bool waitForInput(const LineInput& in, int timeoutMs);

// Reads up to the next "\n" (blocking), which is removed. At the end of
// input the bytes read so far are returned with `eof` set, and `fail` is set
// too when there were none, as std::getline does.
void getLine(LineInput& in, std::string& line);

}  // namespace qv
