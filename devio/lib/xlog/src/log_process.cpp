#include "log_process.h"

#include <chrono>
#include <new>
#include <string>
#include <thread>

#include "log_config.h"
#include "log_platform.h"
#include "log_state.h"
#include "xlog.h"

// The writer side: storing records, the first buffer and the log thread's
// start, the overrun report, and the direct path after shutdown.

namespace devio::xlog {

using namespace std::chrono_literals;

LogState& state() {
    static LogState* const s = new LogState;
    return *s;
}

thread_local bool drainingHere = false;

namespace {

// Set while this thread logs an overrun report, so that the report neither
// reports again nor counts itself as lost.
thread_local bool reportingOverruns = false;

}  // namespace

void reportOverruns() {
    LogState& s = state();
    if (reportingOverruns || s.lost.load(std::memory_order_relaxed) == 0) return;
    int64_t count = s.lost.exchange(0);
    if (count == 0) return;
    reportingOverruns = true;
    bool stored = xLog(bufferTag, 0, "devio::LogBuffer::report_overruns",
                       "xLog overrun detected by reader, lost %d messages around this time",
                       static_cast<int>(count));
    reportingOverruns = false;
    if (!stored) s.lost.fetch_add(count);
}

void wakeReader(LogState& s) {
    if (s.readerWaiting.load(std::memory_order_seq_cst) && s.readerWaiting.exchange(false))
        s.wakeUp.release();
}

namespace {

// The first writer makes the first buffer and starts the log thread. A loser
// of the race drops its own buffer and uses the winner's.
bool installFirstBuffer(LogState& s) {
    std::shared_ptr<LogBuffer> fresh;
    try {
        fresh = std::make_shared<LogBuffer>(s.firstEntries.load(), s.firstBytes.load());
    } catch (const std::bad_alloc&) {
        return false;
    }
    LogBuffer* expected = nullptr;
    if (!s.current.compare_exchange_strong(expected, fresh.get())) return true;
    std::lock_guard lock(s.threadMutex);
    s.buffers.push_back(std::move(fresh));
    if (s.shutdown.load()) return true;
    try {
        s.thread = std::thread(logThreadProc);
        XLogPlatformSpecific::nameLogThread(s.thread);
    } catch (const std::system_error&) {
        // Without a reader the rings would only fill up: write through.
        s.shutdown.store(true);
    }
    return true;
}

// A record written straight to the file waits (a bounded time) until the
// records buffered before shutdown are out.
void awaitDrain(LogState& s) {
    constexpr auto patience = 2000ms;
    auto deadline = std::chrono::steady_clock::now() + patience;
    while (!drainingHere && !s.drainComplete.load()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            // The log thread is stuck (a hung file system, say): order in
            // the file is lost anyway, so nobody waits for it again.
            s.drainComplete.store(true);
            return;
        }
        wakeReader(s);
        std::this_thread::sleep_for(1ms);
    }
}

bool writeDirect(uint64_t time, uint32_t thread, int level, const char* function,
                 std::string_view tag, std::string_view message) {
    if (!logConfig().file) return true;
    awaitDrain(state());
    LogFile& file = *logConfig().file;
    try {
        std::string hyphened = "-" + std::string(tag) + "-";
        file.writeRecord(time, thread, level, hyphened, function, message);
    } catch (const std::bad_alloc&) {
        return false;
    }
    file.flush();
    return true;
}

}  // namespace

// The child of a fork has no log thread, and the locks it inherits may be
// held by threads it does not have: it writes straight to the file, and
// never waits for, or joins, the parent's log thread.
void resetAfterFork() {
    LogState& s = state();
    s.shutdown.store(true);
    s.drainComplete.store(true);
    new (&s.threadMutex) std::mutex;
    // The handle names a thread of the parent; it must be neither joined
    // nor destroyed here, only forgotten.
    new (&s.thread) std::thread;
    logConfig().tags.resetAfterFork();
    if (logConfig().file) logConfig().file->resetAfterFork(XLogPlatformSpecific::processId());
}

namespace {

// Constant-initialised, so that a hold taken by another object's static
// initialiser always counts.
constinit std::atomic<int> shutdownHolds{0};
constinit std::atomic<bool> exiting{false};
constinit std::atomic<bool> exitHookRan{false};
constinit std::atomic<bool> endedAtExit{false};
constinit std::atomic<bool> neverBuffered{false};

// Writing straight to the file from here on, with nothing buffered before.
void writeThroughFromNowOn(LogState& s) {
    neverBuffered.store(true);
    s.drainComplete.store(true);
    s.shutdown.store(true);
}

void endBufferingAtExit() {
    if (endedAtExit.exchange(true)) return;
    if (!isStarted())
        writeThroughFromNowOn(state());
    else if (!neverBuffered.load())
        LogBuffer::shutdown();
}

// Logging stops buffering when the process ends, after every other static
// object that might still log has had its chance, and after every holder.
struct ShutdownAtExit {
    ~ShutdownAtExit() {
        exiting.store(true);
        exitHookRan.store(true);
        if (shutdownHolds.load() == 0) endBufferingAtExit();
    }
} shutdownAtExit;

}  // namespace

bool logBufferWrite(uint64_t time, uint32_t thread, int level, const char* function,
                    std::string_view tag, std::string_view message) {
    LogState& s = state();
    for (;;) {
        if (s.shutdown.load()) return writeDirect(time, thread, level, function, tag, message);
        LogBuffer* buffer = s.current.load();
        if (buffer == nullptr) {
            // A log thread started now could be cut off by the end of the
            // process before it has written anything.
            if (exiting.load()) {
                writeThroughFromNowOn(s);
                continue;
            }
            if (!installFirstBuffer(s)) break;
            continue;
        }
        buffer->enter();
        if (s.shutdown.load() || s.current.load() != buffer) {
            buffer->leave();
            continue;
        }
        // The overrun report runs before the record only when there is
        // something to report; another writer's loss meanwhile is reported
        // by the next record.
        bool overrun = !reportingOverruns && s.lost.load(std::memory_order_relaxed) != 0;
        bool stored = buffer->write(time, thread, level, tag, function, message,
                                    overrun ? reportOverruns : nullptr);
        if (stored) s.unread.fetch_add(1);
        buffer->leave();
        if (!stored) break;
        wakeReader(s);
        return true;
    }
    if (!reportingOverruns) s.lost.fetch_add(1);
    return false;
}

bool isShutDown() {
    return state().shutdown.load(std::memory_order_relaxed);
}

}  // namespace devio::xlog

namespace devio {

using xlog::state;

void LogBuffer::shutdown() {
    const char* function = "devio::LogBuffer::shutdown";
    xlog::LogState& s = state();
    if (s.shutdown.exchange(true)) {
        xLog(xlog::bufferTag, 4, function, "already shut down");
        return;
    }
    s.holdReader.store(false);
    std::thread thread;
    {
        std::lock_guard lock(s.threadMutex);
        thread = std::move(s.thread);
    }
    // Without a log thread (none started, or it could not be) this thread
    // drains what was stored.
    if (!thread.joinable()) {
        std::lock_guard lock(s.threadMutex);
        xlog::drainingHere = true;
        while (!xlog::drained(s))
            if (!xlog::outputFromOldestBuffer(s)) std::this_thread::yield();
        xlog::drainingHere = false;
        s.drainComplete.store(true);
    }
    // These lines are for whoever reads the file: the console, which has no
    // tag filter from now on, would show them at every exit.
    xLog(xlog::bufferTag, 4, function, "_shutdown set to true");
    xLog(xlog::bufferTag, 4, function, "notifying logging thread of shutdown");
    xlog::wakeReader(s);
    if (thread.joinable()) {
        xLog(xlog::bufferTag, 4, function, "joining log thread");
        thread.join();
    }
    xlog::reportOverruns();
    xLog(xlog::bufferTag, 4, function, "freeing tag info");
    xlog::logConfig().tags.release();
    xLog(xlog::bufferTag, 4, function, "logging is now direct to file, all tags enabled");
    if (xlog::logConfig().file) xlog::logConfig().file->flush();
    std::fflush(stdout);
}

void LogBuffer::holdShutdown() {
    xlog::shutdownHolds.fetch_add(1);
}

void LogBuffer::releaseShutdown() {
    if (xlog::shutdownHolds.fetch_sub(1) == 1 && xlog::exitHookRan.load())
        xlog::endBufferingAtExit();
}

void LogBuffer::exitBegins() {
    xlog::exiting.store(true);
}

void LogBuffer::setInitialSize(size_t entries, size_t bytes) {
    state().firstEntries.store(entries);
    state().firstBytes.store(bytes);
}

void LogBuffer::holdReader(bool hold) {
    state().holdReader.store(hold);
}

int64_t LogBuffer::unreadCount() {
    return state().unread.load();
}

}  // namespace devio
