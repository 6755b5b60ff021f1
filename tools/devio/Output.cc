#include "Output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace devio_tool {

namespace {
int results_fd = STDOUT_FILENO;
// Names the results' descriptor in a run that --verbose started afresh.
constexpr const char* kResultsDescriptor = "DEVIO_TOOL_RESULTS_FD";
}  // namespace

void separateLibraryOutput(bool verbose, char** argv) {
    // The run that the code below started: descriptor 1 is standard error
    // already, and the results go to the descriptor it names.
    if (const char* kept = std::getenv(kResultsDescriptor)) {
        results_fd = std::atoi(kept);
        ::fcntl(results_fd, F_SETFD, FD_CLOEXEC);
        ::unsetenv(kResultsDescriptor);
        return;
    }
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
    if (!verbose) return;
    // The log reads its settings at its first line, and the library logs
    // while the program's statics are made, before main: new settings reach
    // it only in a new image of the program, which keeps these descriptors.
    ::fcntl(kept, F_SETFD, 0);
    ::setenv(kResultsDescriptor, std::to_string(kept).c_str(), 1);
    ::execv("/proc/self/exe", argv);
    // Without /proc the run goes on with the log as it was configured.
    ::unsetenv(kResultsDescriptor);
    ::fcntl(kept, F_SETFD, FD_CLOEXEC);
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
