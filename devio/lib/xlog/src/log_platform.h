#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>
#include <thread>

// What the log facility asks of the machine. One implementation per platform,
// picked by the build (log_platform_linux.cpp, log_clock_linux.cpp); nothing
// above the seam calls the platform itself. All functions may be called from
// any thread.

namespace devio {

class XLogPlatformSpecific {
public:
    // The folder for log files, with a trailing separator, created if
    // missing. Empty if it cannot be made or is not ours.
    static std::string logFolder();

    // Full path of the running executable; empty if unknown.
    static std::string executablePath();

    // The executable's file name cut at its first '.', letters and digits
    // only, at most 19 characters.
    static std::string processName(std::string_view executablePath);

    static uint32_t processId();
    static uint32_t threadId();

    // The debug channel, quiet unless someone listens: one whole console
    // line at a time, with the message's tag. `channel` is the setting
    // that picks it, given once before the first line.
    static void chooseDebugChannel(const std::string& channel);
    static void debugOutput(std::string_view tag, const char* line, size_t length);

    // Names the log thread "xlog", so that it can be told apart in top and in
    // a debugger.
    static void nameLogThread(std::thread& thread);

    // Lowers the calling thread's scheduling priority below normal work.
    static void lowerThreadPriority();

    // Whether a debugger is attached to the process.
    static bool debuggerPresent();
    // Stops in the attached debugger.
    static void debugBreak();

    // Opens `path` for appending, creating it readable and writable by the
    // user only; never follows a link planted where the file should be.
    // Null if that fails.
    static std::FILE* openLogFile(const std::string& path);

    // Drops what `file`'s stream buffer holds and has not written yet.
    static void discardUnwritten(std::FILE* file);

    // Has `handler` run in the child process after every fork.
    static void atForkChild(void (*handler)());

    // Clocks (log_clock_linux.cpp). The monotonic clock, which does not
    // count a suspend, in nanoseconds.
    static uint64_t monotonicNanos();
    // The wall clock, in microseconds since the Unix epoch.
    static uint64_t wallClockMicros();
    // `seconds` since the Unix epoch as local calendar time.
    static void localTime(int64_t seconds, std::tm& out);

    // The processor's time stamp counter: a cheap count of ticks at one
    // rate. Whether it runs at one constant rate on every core and through
    // idle states, as the processor reports it; false where there is none.
    static bool counterRunsSteadily();
    // Whether the kernel itself keeps time by the counter now: it stops
    // doing so when it finds the counter unreliable.
    static bool kernelKeepsTimeByCounter();
    // The counter; 0 where there is none.
    static uint64_t readCounter();

    // Deletes this program's log files in `folder` that are 7 or more whole
    // days older than the newest of them. Logs what it does.
    static void purgeOldLogFiles(const std::string& folder, const std::string& processName,
                                 const std::string& nameSpace);
};

}  // namespace devio
