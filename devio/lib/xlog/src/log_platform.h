#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// What the log facility asks of the machine. One implementation per platform
// (log_platform_linux.cpp). All functions may be called from any thread.

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

    // The debug channel: one whole line at a time.
    static void debugOutput(const char* line, size_t length);

    // Lowers the calling thread's scheduling priority below normal work.
    static void lowerThreadPriority();

    // Whether a debugger is attached to the process.
    static bool debuggerPresent();

    // Deletes this program's log files in `folder` that are 7 or more whole
    // days older than the newest of them. Logs what it does.
    static void purgeOldLogFiles(const std::string& folder, const std::string& processName,
                                 const std::string& nameSpace);
};

}  // namespace devio
