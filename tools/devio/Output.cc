#include "Output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace devio_tool {

namespace {
int results_fd = STDOUT_FILENO;
}

void separateLibraryOutput(bool verbose) {
    std::fflush(stdout);
    const int kept = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (kept < 0) return;
    const int sink = verbose ? ::dup(STDERR_FILENO) : ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (sink < 0) {
        ::close(kept);
        return;
    }
    ::dup2(sink, STDOUT_FILENO);
    ::close(sink);
    results_fd = kept;
}

bool print(const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(results_fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace devio_tool
