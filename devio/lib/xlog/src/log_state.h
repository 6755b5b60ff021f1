#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <semaphore>
#include <thread>

#include "log_buffer.h"

// The process-wide state between logging threads and the log thread, shared
// by the writer side (log_process.cpp) and the log thread (log_reader.cpp).
//
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

inline constexpr const char* bufferTag = "LogBuffer";

// Words that the log thread writes often live on cache lines of their own,
// away from those that every writer reads on every call.
struct LogState {
    // Read by every writer.
    std::atomic<bool> shutdown{false};
    std::atomic<LogBuffer*> current{nullptr};

    // Counted up by writers; counted down by the log thread in batches.
    alignas(64) std::atomic<int64_t> unread{0};
    alignas(64) std::atomic<int64_t> lost{0};

    // The log thread's own.
    alignas(64) std::deque<std::shared_ptr<LogBuffer>> buffers;  // oldest first; current last
    unsigned outputsSinceGrowCheck = 0;
    int64_t outputsNotCounted = 0;  // written, not yet taken off `unread`

    std::mutex threadMutex;
    std::thread thread;
    // The reader announces that it is about to sleep; the one writer that
    // claims the announcement releases the semaphore. A writer's wake-up
    // thus needs no lock and is never lost.
    alignas(64) std::atomic<bool> readerWaiting{false};
    std::binary_semaphore wakeUp{0};

    // Set once everything buffered before shutdown is in the file. Until
    // then direct writes wait, so that the file stays in order.
    std::atomic<bool> drainComplete{false};

    std::atomic<bool> holdReader{false};
    std::atomic<size_t> firstEntries{LogBuffer::initialEntries};
    std::atomic<size_t> firstBytes{LogBuffer::initialBytes};
};

// One object for the process, never destroyed.
LogState& state();

// Set on the thread that drains the buffers (the log thread, or shutdown
// when there is none); its own messages may not wait for the drain.
extern thread_local bool drainingHere;

// Logs the count of lost messages, if any, and clears it.
void reportOverruns();

// Wakes the log thread if it sleeps; never blocks.
void wakeReader(LogState& s);

// The log thread's steps, also used by shutdown when there is no log thread.
bool outputFromOldestBuffer(LogState& s);
void countOutputs(LogState& s);
bool drained(LogState& s);
void logThreadProc();

}  // namespace devio::xlog
