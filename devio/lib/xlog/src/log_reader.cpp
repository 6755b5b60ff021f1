#include <chrono>
#include <string>

#include "log_clock.h"
#include "log_config.h"
#include "log_platform.h"
#include "log_state.h"
#include "xlog.h"

// The log thread: drains the buffers oldest first into the file, grows the
// rings when writers outrun it, and sleeps when there is nothing to do.

namespace devio::xlog {

namespace {

using namespace std::chrono_literals;

constexpr size_t maxEntries = 10'000'000;
constexpr size_t maxBytes = size_t{1} << 30;
constexpr auto idleFlushInterval = 10'000ms;

class FileSink : public LogBuffer::Sink {
public:
    void output(const LogBuffer::Record& r) override {
        logConfig().file->writeRecord(r.time, r.thread, r.level, r.tag, r.function, r.message);
    }
};

LogBuffer::ReadResult outputOne(LogState& s, LogBuffer& buffer) {
    FileSink sink;
    LogBuffer::ReadResult result = buffer.readOne(sink);
    if (result == LogBuffer::ReadResult::output) ++s.outputsNotCounted;
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
    LogBuffer::Usage used = current->usage();
    size_t usedEntries = used.entries;
    size_t usedBytes = used.bytes;
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
            xLog(bufferTag, 2, function,
                 "xLog enlarged buffer from %u/%u to %u/%u, currently using %u/%u",
                 static_cast<unsigned>(current->entryCount()),
                 static_cast<unsigned>(current->byteCount()), static_cast<unsigned>(entries),
                 static_cast<unsigned>(bytes), static_cast<unsigned>(usedEntries),
                 static_cast<unsigned>(usedBytes));
            return;
        }
    } catch (const std::bad_alloc&) {
    }
    xLog(bufferTag, 0, function, "xLog logbuffer update failed");
}

bool anyWriters(const LogState& s) {
    for (const auto& buffer : s.buffers)
        if (buffer->hasWriters()) return true;
    return false;
}

// Waits for a writer's wake-up or the idle interval; flushes on the latter.
void waitForWork(LogState& s, std::unique_lock<std::mutex>& lock) {
    // Idle moments are when the clock's rate is measured.
    refineClock();
    logConfig().file->setWallOffset(wallClockOffset());
    s.readerWaiting.store(true, std::memory_order_seq_cst);
    bool claimed = false;
    countOutputs(s);
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

}  // namespace

// Writes one record, oldest buffer first; returns whether it did something
// (or should be called again at once).
bool outputFromOldestBuffer(LogState& s) {
    // Measuring the rings takes the writers' spin flag, pulling it away from
    // them; every few records is soon enough, a third of even the first
    // rings being thousands of records.
    constexpr unsigned growCheckInterval = 8;
    if (s.outputsSinceGrowCheck++ % growCheckInterval == 0) {
        countOutputs(s);
        growIfNeeded(s);
    }
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
             "xLog deleting old log buffer containing %u/%u",
             static_cast<unsigned>(oldest.entryCount()), static_cast<unsigned>(oldest.byteCount()));
        s.buffers.pop_front();
    }
    if (s.buffers.empty()) return false;
    return outputOne(s, *s.buffers.back()) != LogBuffer::ReadResult::empty;
}

bool drained(LogState& s) {
    countOutputs(s);
    return s.unread.load() == 0 && !anyWriters(s);
}

// Takes the records written since the last call off `unread`: once per
// record would pull its cache line away from the writers every time.
void countOutputs(LogState& s) {
    if (s.outputsNotCounted == 0) return;
    s.unread.fetch_sub(s.outputsNotCounted);
    s.outputsNotCounted = 0;
}

void logThreadProc() {
    XLogPlatformSpecific::lowerThreadPriority();
    refineClock();
    drainingHere = true;
    LogState& s = state();
    std::unique_lock lock(s.threadMutex);
    for (;;) {
        if (s.shutdown.load() && drained(s)) break;
        if (s.holdReader.load() && !s.shutdown.load()) {
            lock.unlock();
            std::this_thread::sleep_for(2ms);
            lock.lock();
            s.outputsSinceGrowCheck = 0;
            continue;
        }
        if (outputFromOldestBuffer(s)) continue;
        waitForWork(s, lock);
        // Writers may have filled much of the rings while this thread was
        // away: look first.
        s.outputsSinceGrowCheck = 0;
    }
    s.drainComplete.store(true);
    lock.unlock();
    xLog(bufferTag, 2, "devio::LogBuffer::logthreadproc", "log thread exiting");
}

}  // namespace devio::xlog
