#pragma once

// The in-memory queue between the reader and the worker, and the two ways
// the foreground wakes the worker.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

namespace qv {

extern std::deque<std::string> lineQueue;  // guarded by queueMutex
extern std::mutex queueMutex;
// lineQueue's length, kept beside it so that it can be read without the mutex.
extern std::atomic<std::size_t> queueLength;

extern std::mutex wakeMutex;  // never held together with another lock
extern std::condition_variable wakeCondition;

// 0 nothing asked, 1 flush then decide on upload, 2 flush then force upload.
extern std::atomic<std::uint32_t> requestWord;

// Foreground: appends one finished event line and asks for a flush once the
// queue is longer than maxLineBuf. May throw std::bad_alloc.
void enqueueLine(std::string text);

// Soft request: never blocks. If the worker holds wakeMutex just now the
// request is dropped with the trace "fg failed to lock"; otherwise the word
// goes from 0 to 1 (a 1 or 2 stays) and the worker is signalled.
void softRequest();

// Hard request: waits for wakeMutex, sets the word to 2 and signals.
void hardRequest();

}  // namespace qv
