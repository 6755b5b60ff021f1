#pragma once

// The background worker: sleeps until signalled, drains the queue into the
// events file under the file's lock, then lets the upload decision run.

#include <atomic>
#include <cstdint>

namespace qv {

// The worker thread's body; runs while `running` is set.
void workerMain();

// Set once the worker has entered its first wait.
extern std::atomic<bool> workerWaiting;

// Foreground, at start: returns once the worker is waiting for a signal, so
// that an input that ends at once is not lost to the start of the thread.
void awaitWorkerWaiting();

// Foreground, after clearing `running`: wakes a waiting worker so that it
// leaves at once instead of at the end of its five-second wait. It takes no
// request word, so nothing is flushed because of it.
void wakeWorkerToEnd();

// Writes queued lines to the events file: all of them when `request` is not
// 0, else only once more than maxLineBuf are waiting. Then calls
// decideUpload unless uploads are off (a request of 2 uploads regardless).
void checkQueue(std::uint32_t request);

}  // namespace qv
