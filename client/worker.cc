#include "worker.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

#include "debug_log.h"
#include "event_queue.h"
#include "globals.h"
#include "shared_file.h"
#include "upload_policy.h"

namespace qv {

namespace {

// Writes the whole queue, one write call per line so that no other client's
// append can tear a line. The lines are taken out under queueMutex and
// written after it is released: the foreground then never waits for the
// disk, only for the swap. A failed write still drops its line: a full disk
// must not make the queue grow for ever.
void drainQueue(int fd) {
    std::deque<std::string> taken;
    {
        std::lock_guard<std::mutex> hold(queueMutex);
        trace("bg lock queue");
        taken.swap(lineQueue);
        queueLength = 0;
    }
    static char newline[] = "\n";
    for (std::string& line : taken) {
        struct iovec parts[2] = {{line.data(), line.size()}, {newline, 1}};
        [[maybe_unused]] ssize_t n = ::writev(fd, parts, 2);
    }
}

}  // namespace

void checkQueue(std::uint32_t request) {
    trace("bg flush to file ", requestWord.load());
    int fd = openShared(eventsPath, O_RDWR | O_APPEND | O_CREAT);
    int openErr = fd < 0 ? errno : 0;
    std::size_t threshold = request != 0 ? 0 : maxLineBuf.load();

    while (queueLength > threshold) {
        // Without an events file there is nowhere to put the queue; the
        // lines would pile up without bound.
        if (fd < 0) sharedFileFailure(eventsPath, openErr);
        int err = lockNamedFile(fd, eventsPath);
        if (fd < 0) sharedFileFailure(eventsPath, err);
        if (err != 0) {
            std::printf("lock error: %d\n", err);
            std::fflush(stdout);
            break;
        }
        drainQueue(fd);
        err = unlockRange(fd);
        if (err != 0) {
            trace("!!!!!!!unlock failed ", err);
        } else {
            trace("bg unlock complete");
        }
    }
    if (fd >= 0) ::close(fd);

    trace("bg upload= ", request);
    if (!noUpload || request == 2) decideUpload(request == 2);
}

std::atomic<bool> workerWaiting{false};

void awaitWorkerWaiting() {
    while (!workerWaiting) std::this_thread::yield();
    // The worker holds wakeMutex from setting the flag until the wait has
    // released it, so once we get the mutex the worker is waiting.
    std::lock_guard<std::mutex> hold(wakeMutex);
}

void wakeWorkerToEnd() {
    std::lock_guard<std::mutex> hold(wakeMutex);
    wakeCondition.notify_one();
}

void workerMain() {
    trace("bg start");
    while (running) {
        trace("bg get mutex");
        std::unique_lock<std::mutex> hold(wakeMutex);
        trace("bg wait_for");
        workerWaiting = true;
        // No predicate: the worker acts on signals, not on the word, and the
        // five seconds only bound how long a cleared `running` goes unseen.
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        std::cv_status woke = wakeCondition.wait_until(hold, deadline);
        hold.unlock();
        trace("bg wakeup");
        if (woke == std::cv_status::timeout) {
            trace("bg wait timeout");
            continue;
        }
        // The foreground's closing wake only hurries the loop head; it
        // carries no request.
        if (!running && requestWord == 0) continue;
        trace("bg checkQueue");
        std::uint32_t request = requestWord.exchange(0);
        checkQueue(request);
        trace("bg return checkQueue");
    }
    if (requestWord == 2) {
        trace("bg requested upload before termination");
        checkQueue(2);
    }
}

}  // namespace qv
