// A small program for the process-level tests of the log facility: each
// scenario logs from a fresh process, so that startup, the log thread and
// shutdown at exit are the real ones. Results the test cannot see in the log
// file are printed on standard output as "key=value" lines.

#include <dirent.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "log_buffer.h"
#include "xlog.h"

namespace {

using namespace std::chrono_literals;
using devio::LogBuffer;
using devio::xLog;

int threadCount() {
    int count = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir))
            if (entry->d_name[0] != '.') ++count;
        closedir(dir);
    }
    return count;
}

bool waitForDrain() {
    for (int i = 0; i < 6000 && LogBuffer::unreadCount() != 0; ++i) std::this_thread::sleep_for(5ms);
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

int disabled() {
    bool result = xLog("Probe", 0, "devio::Probe::disabled", "nothing");
    std::printf("result=%d\nthreads=%d\n", result ? 1 : 0, threadCount());
    return 0;
}

int shutdown() {
    xLog("Probe", 2, "devio::Probe::shutdown", "before");
    int before = threadCount();
    LogBuffer::shutdown();
    xLog("Probe", 2, "devio::Probe::shutdown", "after");
    std::printf("threadsBefore=%d\nthreadsAfter=%d\n", before, threadCount());
    // Leave without running static destructors: "after" must already be in
    // the file.
    std::fflush(stdout);
    std::_Exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    std::string scenario = argc > 1 ? argv[1] : "";
    auto arg = [&](int i, long fallback) { return argc > i ? std::atol(argv[i]) : fallback; };
    if (scenario == "threads") return threads(static_cast<int>(arg(2, 8)), static_cast<int>(arg(3, 1000)));
    if (scenario == "growth") return growth(static_cast<size_t>(arg(2, 300)), static_cast<int>(arg(3, 4)));
    if (scenario == "overrun") return overrun(static_cast<size_t>(arg(2, 100)), static_cast<int>(arg(3, 500)));
    if (scenario == "formats") return formats();
    if (scenario == "disabled") return disabled();
    if (scenario == "shutdown") return shutdown();
    if (scenario == "log") return xLog("Probe", 2, "devio::Probe::log", "hello") ? 0 : 1;
    std::fprintf(stderr, "unknown scenario %s\n", scenario.c_str());
    return 2;
}
