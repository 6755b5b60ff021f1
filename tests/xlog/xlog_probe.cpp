// A small program for the process-level tests of the log facility: each
// scenario logs from a fresh process, so that startup, the log thread and
// shutdown at exit are the real ones. Results the test cannot see in the log
// file are printed on standard output as "key=value" lines.

#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "log_buffer.h"
#include "log_platform.h"
#include "xlog.h"

namespace {

using namespace std::chrono_literals;
using devio::LogBuffer;
using devio::xLog;

// Threads of this process named "xlog", the log thread's name.
int logThreads() {
    int count = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] == '.') continue;
            std::string comm = std::string("/proc/self/task/") + entry->d_name + "/comm";
            char name[32] = {};
            if (FILE* f = std::fopen(comm.c_str(), "r")) {
                if (std::fgets(name, sizeof name, f) != nullptr && std::strcmp(name, "xlog\n") == 0)
                    ++count;
                std::fclose(f);
            }
        }
        closedir(dir);
    }
    return count;
}

bool waitForDrain() {
    for (int i = 0; i < 6000 && LogBuffer::unreadCount() != 0; ++i)
        std::this_thread::sleep_for(5ms);
    return LogBuffer::unreadCount() == 0;
}

// Many threads at once; each message names its thread and sequence number.
int threads(int count, int perThread) {
    std::atomic<int> lost{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> pool;
    for (int t = 0; t < count; ++t) {
        pool.emplace_back([&, t] {
            while (!go.load()) std::this_thread::yield();
            for (int i = 0; i < perThread; ++i)
                if (!xLog("Probe", 3, "devio::Probe::run", "msg t=%d i=%d %s", t, i,
                          "padding-padding-padding-padding"))
                    std::printf("lost t=%d i=%d\n", t, i), lost.fetch_add(1);
        });
    }
    go.store(true);
    for (auto& th : pool) th.join();
    std::printf("lost=%d\n", lost.load());
    // One more message, so that a pending overrun count is reported.
    waitForDrain();
    xLog("Probe", 3, "devio::Probe::run", "done");
    return 0;
}

// Grows the rings step by step: with the reader held, fill a third of the
// current rings, let the reader see it, and repeat.
int growth(size_t entries, int steps) {
    LogBuffer::setInitialSize(entries, entries * 100);
    xLog("Probe", 2, "devio::Probe::growth", "start");
    waitForDrain();
    int sequence = 0, lost = 0;
    size_t capacity = entries;
    for (int step = 0; step < steps; ++step) {
        LogBuffer::holdReader(true);
        size_t batch = capacity / 2;
        for (size_t i = 0; i < batch; ++i)
            if (!xLog("Probe", 3, "devio::Probe::growth", "seq=%d", sequence++)) ++lost;
        LogBuffer::holdReader(false);
        if (!waitForDrain()) return 3;
        capacity *= 3;
    }
    std::printf("lost=%d\nsent=%d\n", lost, sequence);
    return 0;
}

// Holds the reader on small rings until messages are lost.
int overrun(size_t entries, int messages) {
    LogBuffer::setInitialSize(entries, 1000000);
    xLog("Probe", 2, "devio::Probe::overrun", "start");
    waitForDrain();
    LogBuffer::holdReader(true);
    int lost = 0;
    for (int i = 0; i < messages; ++i)
        if (!xLog("Probe", 3, "devio::Probe::overrun", "seq=%d", i)) ++lost;
    LogBuffer::holdReader(false);
    waitForDrain();
    xLog("Probe", 3, "devio::Probe::overrun", "after");
    std::printf("lost=%d\n", lost);
    return 0;
}

int formats() {
    std::string big(1024, 'x');
    xLog("Probe", 2, "devio::Probe::formats", "%s", big.c_str());
    xLog("Probe", 2, "devio::Probe::formats", "first\nsecond\nthird");
    xLog("Probe", 0, "void devio::Probe::formats(int) const", "devio::Probe formats repeated name");
    xLog("Probe", 1, "devio::Probe::formats", "-hid- tagged warning");
    xLog("Probe", 2, "devio::Probe::formats", "-hid- tagged info");
    xLog("Probe", 2, "devio::Probe::formats", "-bt- other info");
    xLog("Probe", 3, "devio::Probe::formats", "untagged debug");
    xLog("Probe", 4, "devio::Probe::formats", "verbose");
    devio::xAssert(1 + 1 == 3, "1 + 1 == 3", "probe.cpp", 42);
    return 0;
}

// Messages with the conversions the device library logs with, each also
// formatted by vsnprintf and printed as "expect=<text>" for the test. A
// string argument is overwritten as soon as the call returns: the file must
// show what it held during the call.
__attribute__((format(printf, 1, 2))) void expectAndLog(const char* format, ...) {
    char text[2048];
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    std::vsnprintf(text, sizeof text, format, copy);
    va_end(copy);
    std::printf("expect=%s\n", text);
    // xLog has no va_list form; the arguments are given again below.
    va_end(args);
}

int conversions() {
    char scratch[32];
    std::snprintf(scratch, sizeof scratch, "%s", "/dev/hidraw3");
    const unsigned char b[] = {0x10, 0xff, 0x05, 0x1a};
    int local = 0;
#define BOTH(...)                                                   \
    do {                                                            \
        expectAndLog(__VA_ARGS__);                                  \
        xLog("Probe", 2, "devio::Probe::conversions", __VA_ARGS__); \
    } while (false)
    BOTH("conv %s index %d feature 0x%04x returned %d", scratch, 7, 0x1d4b, -1);
    std::memset(scratch, 'Z', sizeof scratch - 1);
    BOTH("conv cmd starts with %02x %02x %02x %02x", b[0], b[1], b[2], b[3]);
    BOTH("conv %u/%u %x %X %08x %05d %03u %c", 30000u, 4000000000u, 0xbeefu, 0xbeefu, 0xc0ffeeu,
         -12, 7u, 'q');
    BOTH("conv %-8s|%8.3s|%.*s|%0*x|%+d|% d|%#x|%#o", "ab", "xyz", 4, "functions", 6, 0xbeef, 5, 5,
         255u, 8u);
    BOTH("conv %lu %zu %lld %llx %hd %hhu", 5ul, size_t{9}, -1234567890123ll, 0xfedcba9876543210ull,
         static_cast<short>(-3), static_cast<unsigned char>(250));
    BOTH("conv %p %p %5.1f %e %%", static_cast<void*>(&local), static_cast<void*>(nullptr), 2.25,
         1e10);
    BOTH("-hid- conv tagged %s %d", "word", 3);
#undef BOTH
    return 0;
}

int disabled() {
    bool result = xLog("Probe", 0, "devio::Probe::disabled", "nothing");
    std::printf("result=%d\nlogThreads=%d\n", result ? 1 : 0, logThreads());
    return 0;
}

int shutdown() {
    xLog("Probe", 2, "devio::Probe::shutdown", "before");
    int logging = logThreads();
    LogBuffer::shutdown();
    xLog("Probe", 2, "devio::Probe::shutdown", "after");
    std::printf("logThreadsBefore=%d\nlogThreadsAfter=%d\n", logging, logThreads());
    // Leave without running static destructors: "after" must already be in
    // the file.
    std::fflush(stdout);
    std::_Exit(0);
}

// A child of a fork logs and exits normally: it must neither hang on the
// parent's log thread nor lose its line.
int forked() {
    xLog("Probe", 2, "devio::Probe::forked", "parent before");
    pid_t child = fork();
    if (child == 0) {
        xLog("Probe", 2, "devio::Probe::forked", "child says hi");
        std::exit(0);
    }
    int status = 0;
    bool finished = false;
    for (int i = 0; i < 4000 && !finished; ++i) {
        finished = waitpid(child, &status, WNOHANG) == child;
        if (!finished) std::this_thread::sleep_for(5ms);
    }
    if (!finished) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    std::printf("childFinished=%d\nchildPid=%d\n", finished ? 1 : 0, static_cast<int>(child));
    xLog("Probe", 2, "devio::Probe::forked", "parent after");
    return 0;
}

// Logs for the first time from a static destructor, after main returned.
struct LogAtExit {
    bool armed = false;
    ~LogAtExit() {
        if (armed) xLog("Probe", 2, "devio::Probe::exitonly", "first line at exit");
    }
} log_at_exit;

}  // namespace

int main(int argc, char** argv) {
    std::string scenario = argc > 1 ? argv[1] : "";
    auto arg = [&](int i, long fallback) { return argc > i ? std::atol(argv[i]) : fallback; };
    if (scenario == "threads")
        return threads(static_cast<int>(arg(2, 8)), static_cast<int>(arg(3, 1000)));
    if (scenario == "growth")
        return growth(static_cast<size_t>(arg(2, 300)), static_cast<int>(arg(3, 4)));
    if (scenario == "overrun")
        return overrun(static_cast<size_t>(arg(2, 100)), static_cast<int>(arg(3, 500)));
    if (scenario == "formats") return formats();
    if (scenario == "conversions") return conversions();
    if (scenario == "disabled") return disabled();
    if (scenario == "shutdown") return shutdown();
    if (scenario == "fork") return forked();
    if (scenario == "exitonly") {
        log_at_exit.armed = true;
        return 0;
    }
    if (scenario == "purge" && argc > 3) {
        devio::XLogPlatformSpecific::purgeOldLogFiles(argv[2], argv[3], "devio");
        return 0;
    }
    if (scenario == "log") return xLog("Probe", 2, "devio::Probe::log", "hello") ? 0 : 1;
    std::fprintf(stderr, "unknown scenario %s\n", scenario.c_str());
    return 2;
}
