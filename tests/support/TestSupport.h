#pragma once

#include <dirent.h>

#include <chrono>
#include <cstddef>
#include <thread>

namespace devio::test {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Polls `done` until it holds or `timeout` passes; true when it held.
template <class Done>
bool eventually(Done&& done, milliseconds timeout = milliseconds(5000)) {
    const auto deadline = Clock::now() + timeout;
    while (!done()) {
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(milliseconds(2));
    }
    return true;
}

inline long long ms_since(Clock::time_point start) {
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
}

// Entries of a folder, without the dot entries: the process's descriptors
// (/proc/self/fd) or threads (/proc/self/task), counted before and after.
inline std::size_t directory_entries(const char* dir) {
    std::size_t n = 0;
    if (DIR* d = ::opendir(dir)) {
        while (const dirent* e = ::readdir(d)) n += e->d_name[0] != '.';
        ::closedir(d);
    }
    return n;
}

}  // namespace devio::test
