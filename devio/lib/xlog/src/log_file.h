#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

// The per-process log file and its line format. Written by the log thread,
// and after shutdown by any logging thread; every write takes `mutex_`, so
// the lines of one record stay together.

namespace devio::xlog {

// The first column of a file line: `micros` in seconds, as "%f" prints
// them.
void formatSeconds(uint64_t micros, char* out, size_t size);

class LogFile {
public:
    // `startMicros` is the monotonic clock at the start of logging, and
    // `startWallMicros` the wall clock at the same moment; a record's time
    // is printed relative to the first and as a date from the second, until
    // setWallOffset says otherwise.
    LogFile(uint64_t startMicros, uint64_t startWallMicros, uint32_t processId,
            std::string processName, std::string nameSpace);
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    // Opens (appending) or creates the file; false if that fails.
    bool open(const std::string& path);
    bool isOpen() const { return file_ != nullptr; }

    // Writes one record: a line for each line of `message`, each with the
    // same prefix. `tag` is printed as given (with its hyphens); `function`
    // is the caller's full name, cut for printing. Returns at once without
    // a file.
    void writeRecord(uint64_t timeMicros, uint32_t threadId, int level, std::string_view tag,
                     std::string_view function, std::string_view message);

    void flush();

    // The wall clock less the monotonic clock from now on, in microseconds:
    // it moves by the time suspended, and when the clock is set.
    void setWallOffset(int64_t offsetMicros);

    // In the child of a fork: the lock may have been held by a thread that
    // does not exist here, and the process id is the child's.
    void resetAfterFork(uint32_t processId);

    // Longest line written, newline included; longer ones are cut to end in
    // "...".
    static constexpr size_t maxLine = 1024;

private:
    void formatDate(uint64_t timeMicros, char* out, size_t size);

    std::mutex mutex_;
    FILE* file_ = nullptr;
    const uint64_t startMicros_;
    std::atomic<int64_t> wallOffset_;
    uint32_t processId_;
    const std::string processName_;
    const std::string nameSpace_;
    // localtime_r per line is costly; lines of the same second share it.
    int64_t cachedSecond_ = -1;
    char cachedDate_[32] = {};
};

}  // namespace devio::xlog
