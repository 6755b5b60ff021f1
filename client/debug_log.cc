#include "debug_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>

namespace qv {

namespace {

// -1: no log asked for; -2: asked for, but the file failed to open.
std::atomic<int> logFd{-1};

}  // namespace

void openDebugLog(const std::string& path) {
    int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    logFd = fd >= 0 ? fd : -2;
    writeTrace("STARTUP DEBUG LOG");
}

void closeDebugLog() {
    int fd = logFd.exchange(-1);
    if (fd >= 0) ::close(fd);
}

bool debugLogRequested() {
    return logFd != -1;
}

bool debugLogOpen() {
    return logFd >= 0;
}

void writeTrace(const std::string& line) {
    int fd = logFd;
    if (fd < 0) return;
    // One write per trace: an O_APPEND write lands whole, so the two
    // threads' lines can interleave but not mix.
    std::string text = line;
    if (text.empty() || text.back() != '\n') text += '\n';
    const char* p = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n <= 0) return;
        p += n;
        left -= static_cast<size_t>(n);
    }
}

}  // namespace qv
