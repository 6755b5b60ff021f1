#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "log_file.h"
#include "tag_filter.h"

// The process-wide settings of the log facility, filled in by xLogStartup.
// The level words are read by every logging thread without a lock (relaxed
// atomics); `tags` and `file` are set up before `started` is published.

namespace devio::xlog {

struct LogConfig {
    std::atomic<bool> enabled{true};
    std::atomic<int> logginglevel{1};
    std::atomic<int> loggingoutput{6};
    std::atomic<int> logTagLevel{3};
    static constexpr int fileLevel = 4;  // highest level that may reach the file
    TagFilter tags;
    std::unique_ptr<LogFile> file;  // exists after startup even when no file could be opened
    uint64_t startMicros = 0;
};

// One object for the process, never destroyed, so that logging keeps working
// while static objects are destroyed at exit.
LogConfig& logConfig();

// Runs xLogStartup once; other threads wait for it; a log call made by the
// startup itself goes through.
// Set once xLogStartup has run.
extern std::atomic<bool> started;
void startOnce();
inline void ensureStarted() {
    if (!started.load(std::memory_order_acquire)) startOnce();
}
bool isStarted();

}  // namespace devio::xlog

namespace devio {
// Reads the settings, opens the file, writes the header lines and purges old
// files. Runs once, from the first xLog.
void xLogStartup();
}  // namespace devio
