#include "line_input.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace qv {

namespace {

constexpr size_t readChunk = 65536;

// Appends what one read(2) gives. False at the end of input or on an error.
bool fill(LineInput& in) {
    char chunk[readChunk];
    for (;;) {
        ssize_t n = ::read(in.fd, chunk, sizeof chunk);
        if (n > 0) {
            in.buffer.append(chunk, static_cast<size_t>(n));
            return true;
        }
        if (n == 0) {
            in.eof = true;
            return false;
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            // A non-blocking descriptor handed to us: wait as a blocking
            // read would.
            struct pollfd p = {in.fd, POLLIN, 0};
            ::poll(&p, 1, -1);
            continue;
        }
        in.bad = true;
        return false;
    }
}

}  // namespace

bool lineBuffered(const LineInput& in) {
    return in.buffer.find('\n', in.start) != std::string::npos;
}

bool waitForInput(const LineInput& in, int timeoutMs) {
    struct pollfd p = {in.fd, POLLIN, 0};
    int n = ::poll(&p, 1, timeoutMs);
    return n > 0;
}

void getLine(LineInput& in, std::string& line) {
    line.clear();
    if (in.fd < 0 || in.eof || in.bad) {
        in.fail = true;
        return;
    }
    size_t searched = in.start;
    for (;;) {
        size_t newline = in.buffer.find('\n', searched);
        if (newline != std::string::npos) {
            line.assign(in.buffer, in.start, newline - in.start);
            in.start = newline + 1;
            return;
        }
        // Drop what was returned before reading more, so the buffer holds
        // at most one partial line and one chunk.
        in.buffer.erase(0, in.start);
        in.start = 0;
        searched = in.buffer.size();
        if (!fill(in)) break;
    }
    line.swap(in.buffer);
    in.buffer.clear();
    if (line.empty()) in.fail = true;
}

}  // namespace qv
