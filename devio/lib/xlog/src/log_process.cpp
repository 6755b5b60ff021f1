#include "log_process.h"

#include <chrono>
#include <deque>
#include <mutex>
#include <semaphore>
#include <string>
#include <thread>

#include "log_buffer.h"
#include "log_config.h"
#include "log_platform.h"
#include "xlog.h"

// Threads: logBufferWrite runs on any logging thread, lock-free apart from
// the buffer's spin flags. The log thread (logThreadProc) is the only reader
// of the rings and the only one to grow them; it holds `threadMutex` except
// while it waits. `buffers` is filled by the first writer under
// `threadMutex` before the log thread starts, then belongs to the log thread,
// and after it has been joined to shutdown().
//
// Retiring a buffer: a writer enters a buffer, then checks that it is still
// current; the reader swaps `current`, and retires the old buffer only when
// no writer is inside and it is empty. Both sides use sequentially
// consistent operations, so a writer either sees the swap and moves on, or
// is seen by the reader.

namespace devio::xlog {

namespace {

using namespace std::chrono_literals;

constexpr size_t maxEntries = 10'000'000;
constexpr size_t maxBytes = size_t{1} << 30;
constexpr auto idleFlushInterval = 10'000ms;
const char* const bufferTag = "LogBuffer";

struct LogState {
    std::atomic<int64_t> unread{0};
    std::atomic<int64_t> lost{0};
    std::atomic<bool> shutdown{false};
    std::atomic<LogBuffer*> current{nullptr};
    std::deque<std::shared_ptr<LogBuffer>> buffers;  // oldest first; the current one last

    std::mutex threadMutex;
    std::thread thread;
    // The reader announces that it is about to sleep; the one writer that
    // claims the announcement releases the semaphore. A writer's wake-up
    // thus needs no lock and is never lost.
    std::atomic<bool> readerWaiting{false};
    std::binary_semaphore wakeUp{0};

    // Set once everything buffered before shutdown is in the file. Until
    // then direct writes wait, so that the file stays in order.
    std::atomic<bool> drainComplete{false};

    std::atomic<bool> holdReader{false};
    std::atomic<size_t> firstEntries{LogBuffer::initialEntries};
    std::atomic<size_t> firstBytes{LogBuffer::initialBytes};
};

LogState& state() {
    static LogState* const s = new LogState;
    return *s;
}

// Set on the thread that drains the buffers (the log thread, or shutdown
// when there is none); its own messages may not wait for the drain.
thread_local bool drainingHere = false;

// Set while this thread logs an overrun report, so that the report neither
// reports again nor counts itself as lost.
thread_local bool reportingOverruns = false;

void reportOverruns() {
    LogState& s = state();
    if (reportingOverruns || s.lost.load(std::memory_order_relaxed) == 0) return;
    int64_t count = s.lost.exchange(0);
    if (count == 0) return;
    reportingOverruns = true;
    bool stored = xLog(bufferTag, 0, "devio::LogBuffer::report_overruns",
                       "xLog overrun detected by reader, lost %d messages around this time", static_cast<int>(count));
    reportingOverruns = false;
    if (!stored) s.lost.fetch_add(count);
}

void wakeReader(LogState& s) {
    if (s.readerWaiting.load(std::memory_order_seq_cst) && s.readerWaiting.exchange(false)) s.wakeUp.release();
}

class FileSink : public LogBuffer::Sink {
public:
    void output(const LogBuffer::Record& r) override {
        logConfig().file->writeRecord(r.time, r.thread, r.level, r.tag, r.function, r.message);
    }
};

LogBuffer::ReadResult outputOne(LogState& s, LogBuffer& buffer) {
    FileSink sink;
    LogBuffer::ReadResult result = buffer.readOne(sink);
    if (result == LogBuffer::ReadResult::output) s.unread.fetch_sub(1);
    // A writer is between taking its slot and finishing it; let it run.
    if (result == LogBuffer::ReadResult::pending) std::this_thread::yield();
    return result;
}

size_t grown(size_t size, bool belowThird, size_t ceiling) {
    size_t next = size * (belowThird ? 2 : 3);
    return next > ceiling ? (size > ceiling ? size : ceiling) : next;
}

// Called by the reader: once a third of either ring is in use, the writers
// are outrunning it, and a larger buffer takes over.
void growIfNeeded(LogState& s) {
    LogBuffer* current = s.current.load();
    if (current == nullptr) return;
    size_t usedEntries = current->usedEntries();
    size_t usedBytes = current->usedBytes();
    size_t entryThird = current->entryCount() - current->entryCount() * 2 / 3;
    size_t byteThird = current->byteCount() - current->byteCount() * 2 / 3;
    if (usedEntries < entryThird && usedBytes < byteThird) return;
    reportOverruns();
    size_t entries = grown(current->entryCount(), usedEntries < entryThird, maxEntries);
    size_t bytes = grown(current->byteCount(), usedBytes < byteThird, maxBytes);
    if (entries <= current->entryCount() && bytes <= current->byteCount()) return;
    const char* function = "devio::LogBuffer::output_from_oldest_buffer";
    try {
        auto fresh = std::make_shared<LogBuffer>(entries, bytes);
        LogBuffer* expected = current;
        if (s.current.compare_exchange_strong(expected, fresh.get())) {
            s.buffers.push_back(std::move(fresh));
            xLog(bufferTag, 2, function, "xLog enlarged buffer from %u/%u to %u/%u, currently using %u/%u",
                 static_cast<unsigned>(current->entryCount()), static_cast<unsigned>(current->byteCount()),
                 static_cast<unsigned>(entries), static_cast<unsigned>(bytes),
                 static_cast<unsigned>(usedEntries), static_cast<unsigned>(usedBytes));
            return;
        }
    } catch (const std::bad_alloc&) {
    }
    xLog(bufferTag, 0, function, "xLog logbuffer update failed");
}

// Writes one record, oldest buffer first; returns whether it did something
// (or should be called again at once).
bool outputFromOldestBuffer(LogState& s) {
    growIfNeeded(s);
    while (s.buffers.size() > 1) {
        LogBuffer& oldest = *s.buffers.front();
        if (outputOne(s, oldest) != LogBuffer::ReadResult::empty) return true;
        if (oldest.hasWriters()) {
            std::this_thread::yield();
            return true;
        }
        // Empty, and no writer inside; one that enters now sees the swap.
        if (outputOne(s, oldest) != LogBuffer::ReadResult::empty) return true;
        xLog(bufferTag, 2, "devio::LogBuffer::output_from_oldest_buffer",
             "xLog deleting old log buffer containing %u/%u", static_cast<unsigned>(oldest.entryCount()),
             static_cast<unsigned>(oldest.byteCount()));
        s.buffers.pop_front();
    }
    if (s.buffers.empty()) return false;
    return outputOne(s, *s.buffers.back()) != LogBuffer::ReadResult::empty;
}

bool anyWriters(const LogState& s) {
    for (const auto& buffer : s.buffers)
        if (buffer->hasWriters()) return true;
    return false;
}

bool drained(const LogState& s) { return s.unread.load() == 0 && !anyWriters(s); }

// Waits for a writer's wake-up or the idle interval; flushes on the latter.
void waitForWork(LogState& s, std::unique_lock<std::mutex>& lock) {
    s.readerWaiting.store(true, std::memory_order_seq_cst);
    bool claimed = false;
    if (s.unread.load(std::memory_order_seq_cst) == 0 && !s.shutdown.load()) {
        lock.unlock();
        claimed = s.wakeUp.try_acquire_for(idleFlushInterval);
        lock.lock();
    }
    if (claimed) return;
    // Take the announcement back; if a writer got to it first, its release
    // is on the way and must be consumed.
    if (!s.readerWaiting.exchange(false)) {
        s.wakeUp.acquire();
        return;
    }
    if (s.unread.load() == 0) logConfig().file->flush();
}

void logThreadProc() {
    XLogPlatformSpecific::lowerThreadPriority();
    drainingHere = true;
    LogState& s = state();
    std::unique_lock lock(s.threadMutex);
    for (;;) {
        if (s.shutdown.load() && drained(s)) break;
        if (s.holdReader.load() && !s.shutdown.load()) {
            lock.unlock();
            std::this_thread::sleep_for(2ms);
            lock.lock();
            continue;
        }
        if (outputFromOldestBuffer(s)) continue;
        waitForWork(s, lock);
    }
    s.drainComplete.store(true);
    lock.unlock();
    xLog(bufferTag, 2, "devio::LogBuffer::logthreadproc", "log thread exiting");
}

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
    while (!drainingHere && !s.drainComplete.load() && std::chrono::steady_clock::now() < deadline) {
        wakeReader(s);
        std::this_thread::sleep_for(1ms);
    }
}

bool writeDirect(uint64_t time, uint32_t thread, int level, const char* function, std::string_view tag,
                 std::string_view message) {
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

// Logging stops buffering when the process ends, after every other static
// object that might still log has had its chance.
struct ShutdownAtExit {
    ~ShutdownAtExit() {
        if (isStarted()) LogBuffer::shutdown();
    }
} shutdownAtExit;

}  // namespace

bool logBufferWrite(uint64_t time, uint32_t thread, int level, const char* function, std::string_view tag,
                    std::string_view message) {
    LogState& s = state();
    for (;;) {
        if (s.shutdown.load()) return writeDirect(time, thread, level, function, tag, message);
        LogBuffer* buffer = s.current.load();
        if (buffer == nullptr) {
            if (!installFirstBuffer(s)) break;
            continue;
        }
        buffer->enter();
        if (s.shutdown.load() || s.current.load() != buffer) {
            buffer->leave();
            continue;
        }
        bool stored = buffer->write(time, thread, level, tag, function, message, reportOverruns);
        if (stored) s.unread.fetch_add(1);
        buffer->leave();
        if (!stored) break;
        wakeReader(s);
        return true;
    }
    if (!reportingOverruns) s.lost.fetch_add(1);
    return false;
}

bool isShutDown() { return state().shutdown.load(std::memory_order_relaxed); }

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
    xlog::logConfig().tags.releaseSeen();
    xLog(xlog::bufferTag, 4, function, "logging is now direct to file, all tags enabled");
    if (xlog::logConfig().file) xlog::logConfig().file->flush();
    std::fflush(stdout);
}

void LogBuffer::setInitialSize(size_t entries, size_t bytes) {
    state().firstEntries.store(entries);
    state().firstBytes.store(bytes);
}

void LogBuffer::holdReader(bool hold) { state().holdReader.store(hold); }

int64_t LogBuffer::unreadCount() { return state().unread.load(); }

}  // namespace devio
