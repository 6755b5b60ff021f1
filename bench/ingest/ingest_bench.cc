// Ingest throughput of qvclient against the bound its design sets.
//
// Every event line costs the client two state-store transactions (UploadId
// and ClientId, each open/lock/read/unlock/close of registry.json) and one
// append to the events file. The bound is those three operations alone, run
// back to back in this process; the client is the real binary reading the
// same lines with --noupload into a fresh data folder. Both run in the same
// invocation, so the ratio does not depend on the machine.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "globals.h"
#include "settings.h"
#include "shared_file.h"
#include "state_store.h"

namespace {

using Clock = std::chrono::steady_clock;

// CPU seconds (user + system) used so far by this process or by its
// waited-for children: on a loaded machine this shows whether a slow run
// was slow work or a short share of the processors.
double cpuSeconds(int who) {
    struct rusage usage = {};
    ::getrusage(who, &usage);
    auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

constexpr int lineCount = 200000;
constexpr int rounds = 3;

std::string makeDir(const std::string& base, const std::string& name) {
    std::string dir = base + "/" + name;
    std::filesystem::create_directories(dir);
    return dir;
}

// A realistic event: a few keys, about 120 bytes once stamped keys are off.
std::string eventLine(int n) {
    return "{\"event\":\"feature_used\",\"feature\":\"zoom\",\"n\":" + std::to_string(n) +
           ",\"duration_ms\":" + std::to_string(n % 977) + ",\"view\":\"main\"}";
}

struct Timing {
    double wall = 0;
    double cpu = 0;
};

Timing boundTiming(const std::string& dir, const std::vector<std::string>& stamped) {
    // The store as the client has it while running: ids and all settings.
    qv::setDataDir(dir);
    qv::getClientId();
    qv::loadSettings();
    qv::getUploadId();
    int fd = qv::openShared(qv::eventsPath, O_RDWR | O_APPEND | O_CREAT);
    double cpuStart = cpuSeconds(RUSAGE_SELF);
    auto start = Clock::now();
    for (const std::string& line : stamped) {
        qv::getUploadId();
        qv::getClientId();
        if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
            std::perror("write");
            std::exit(1);
        }
    }
    Timing timing{std::chrono::duration<double>(Clock::now() - start).count(),
                  cpuSeconds(RUSAGE_SELF) - cpuStart};
    ::close(fd);
    return timing;
}

Timing clientTiming(const std::string& dir, const std::string& input) {
    double cpuStart = cpuSeconds(RUSAGE_CHILDREN);
    auto start = Clock::now();
    pid_t pid = ::fork();
    if (pid == 0) {
        int in = ::open(input.c_str(), O_RDONLY);
        int out = ::open("/dev/null", O_WRONLY);
        ::dup2(in, STDIN_FILENO);
        ::dup2(out, STDOUT_FILENO);
        ::setenv("VANTSHRD_DIR", dir.c_str(), 1);
        ::execl(QVCLIENT_PATH, QVCLIENT_PATH, "--noupload", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "qvclient failed (status %d)\n", status);
        std::exit(1);
    }
    return {std::chrono::duration<double>(Clock::now() - start).count(),
            cpuSeconds(RUSAGE_CHILDREN) - cpuStart};
}

size_t linesIn(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "r");
    if (f == nullptr) return 0;
    size_t n = 0;
    for (int c; (c = std::fgetc(f)) != EOF;) n += c == '\n';
    std::fclose(f);
    return n;
}

}  // namespace

int main() {
    char pattern[] = "/tmp/qvclient-bench-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) return 1;
    std::string base = pattern;

    std::string input = base + "/events.in";
    std::vector<std::string> stamped;
    {
        FILE* f = std::fopen(input.c_str(), "w");
        for (int n = 0; n < lineCount; ++n) {
            std::string line = eventLine(n);
            std::fprintf(f, "%s\n", line.c_str());
            // The appended line as the client writes it, stamps included.
            line.pop_back();
            stamped.push_back(line +
                              ",\"client\":\"0123456789abcdef0123456789abcdef0123\",\"timestamp\":"
                              "\"2024-01-01 00:00:00.000000\",\"upload\":"
                              "\"0123456789abcdef0123456789abcdef0123\",\"user\":"
                              "\"0123456789abcdef01234567\"}\n");
        }
        std::fclose(f);
    }

    std::printf("ingest: %d event lines per run, best of %d runs\n", lineCount, rounds);
    Timing bestBound{1e30, 0};
    Timing bestClient{1e30, 0};
    size_t written = 0;
    for (int r = 0; r < rounds; ++r) {
        Timing bound = boundTiming(makeDir(base, "bound" + std::to_string(r)), stamped);
        std::string dir = makeDir(base, "client" + std::to_string(r));
        Timing client = clientTiming(dir, input);
        written = linesIn(dir + "/qvevents.json");
        std::printf(
            "  run %d: bound %.0f lines/s, qvclient %.0f lines/s (%zu lines written); "
            "cpu per line: bound %.1f us, qvclient %.1f us\n",
            r + 1, lineCount / bound.wall, lineCount / client.wall, written,
            bound.cpu / lineCount * 1e6, client.cpu / lineCount * 1e6);
        if (bound.wall < bestBound.wall) bestBound = bound;
        if (client.wall < bestClient.wall) bestClient = client;
    }
    double boundRate = lineCount / bestBound.wall;
    double clientRate = lineCount / bestClient.wall;
    std::printf("bound (2 store transactions + 1 append): %.0f lines/s\n", boundRate);
    std::printf("qvclient --noupload:                      %.0f lines/s\n", clientRate);
    std::printf("ratio to bound: %.2f (target 0.80)\n", clientRate / boundRate);
    std::printf("cpu ratio (bound cpu / qvclient cpu, both threads): %.2f\n",
                bestBound.cpu / bestClient.cpu);

    std::error_code ignored;
    std::filesystem::remove_all(base, ignored);
    return 0;
}
