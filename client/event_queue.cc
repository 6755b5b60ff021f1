#include "event_queue.h"

#include "debug_log.h"
#include "globals.h"

namespace qv {

std::deque<std::string> lineQueue;
std::mutex queueMutex;
std::atomic<std::size_t> queueLength{0};
std::mutex wakeMutex;
std::condition_variable wakeCondition;
std::atomic<std::uint32_t> requestWord{0};

void enqueueLine(std::string text) {
    {
        std::lock_guard<std::mutex> hold(queueMutex);
        lineQueue.push_back(std::move(text));
        queueLength = lineQueue.size();
    }
    std::size_t length = queueLength;
    trace("fg linebuffer: ", length);
    if (length > maxLineBuf) softRequest();
}

void softRequest() {
    // try_lock: the foreground must never wait for the worker. Losing this
    // race only delays the flush to the next line, or at the very end loses
    // the lines still queued.
    std::unique_lock<std::mutex> hold(wakeMutex, std::try_to_lock);
    if (!hold.owns_lock()) {
        trace("fg failed to lock\n");
        return;
    }
    std::uint32_t idle = 0;
    requestWord.compare_exchange_strong(idle, 1);
    wakeCondition.notify_one();
}

void hardRequest() {
    std::lock_guard<std::mutex> hold(wakeMutex);
    requestWord = 2;
    wakeCondition.notify_one();
}

}  // namespace qv
