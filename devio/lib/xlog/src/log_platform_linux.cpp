#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <pthread.h>
#include <stdio_ext.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

// The journal's call records the caller's source file and line unless told
// not to: ours would only ever name this file.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include "log_platform.h"
#include "xlog.h"

namespace devio {

namespace {

// The longest temp folder the file name still fits behind.
constexpr size_t maxTempPathLength = 289;
constexpr size_t maxProcessNameLength = 19;
// How far below normal work the log thread runs, in nice steps: two, as two
// priority levels below normal. Lower still and a busy machine starves it
// during a burst, before it has grown the rings, and messages are lost.
constexpr int logThreadNiceIncrement = 2;

}  // namespace

std::string XLogPlatformSpecific::logFolder() {
    std::string temp = "/tmp/";
    if (const char* dir = std::getenv("TMPDIR"); dir != nullptr && *dir == '/') {
        temp = dir;
        if (temp.back() != '/') temp += '/';
    }
    if (temp.size() > maxTempPathLength) {
        xLog("xLog", 0, "devio::XLogPlatformSpecific::logFolder",
             "Could not get path for log files");
        return {};
    }
    std::string folder = temp + "xlog_vantrel/";
    mkdir(folder.c_str(), 0700);
    // The temp folder is shared between users: only a real directory of our
    // own is trusted with our logs.
    struct stat st {};
    if (lstat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid())
        return {};
    return folder;
}

std::string XLogPlatformSpecific::executablePath() {
    std::vector<char> buffer(4096);
    ssize_t n = readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
    if (n <= 0) return {};
    return std::string(buffer.data(), static_cast<size_t>(n));
}

std::string XLogPlatformSpecific::processName(std::string_view executablePath) {
    size_t slash = executablePath.rfind('/');
    std::string_view file =
        slash == std::string_view::npos ? executablePath : executablePath.substr(slash + 1);
    file = file.substr(0, file.find('.'));
    std::string name;
    for (char c : file) {
        bool letterOrDigit =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        if (letterOrDigit && name.size() < maxProcessNameLength) name += c;
    }
    return name;
}

uint32_t XLogPlatformSpecific::processId() {
    return static_cast<uint32_t>(getpid());
}

uint32_t XLogPlatformSpecific::threadId() {
    // Filled on first use rather than by an initialiser, which would cost a
    // guard test on every log call.
    thread_local uint32_t id = 0;
    if (id == 0) id = static_cast<uint32_t>(syscall(SYS_gettid));
    return id;
}

namespace {
std::atomic<bool> debugToStandardError{false};
}  // namespace

void XLogPlatformSpecific::chooseDebugChannel(const std::string& channel) {
    debugToStandardError.store(channel == "stderr", std::memory_order_relaxed);
}

void XLogPlatformSpecific::debugOutput(std::string_view tag, const char* line, size_t length) {
    if (debugToStandardError.load(std::memory_order_relaxed)) {
        std::fwrite(line, 1, length, stderr);
        return;
    }
    // The journal: kept, but shown only to whoever asks for debug
    // priority. Without a journal the call fails, and the line goes nowhere.
    if (length > 0 && line[length - 1] == '\n') --length;
    sd_journal_send("MESSAGE=%.*s", static_cast<int>(length), line, "PRIORITY=%d", LOG_DEBUG,
                    "DEVIO_TAG=%.*s", static_cast<int>(tag.size()), tag.data(), nullptr);
}

void XLogPlatformSpecific::nameLogThread(std::thread& thread) {
    pthread_setname_np(thread.native_handle(), "xlog");
}

void XLogPlatformSpecific::lowerThreadPriority() {
    // On Linux the nice value is per thread when addressed by thread id.
    id_t tid = static_cast<id_t>(syscall(SYS_gettid));
    errno = 0;
    int current = getpriority(PRIO_PROCESS, tid);
    if (errno == 0) setpriority(PRIO_PROCESS, tid, current + logThreadNiceIncrement);
}

bool XLogPlatformSpecific::debuggerPresent() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("TracerPid:", 0) == 0) return std::atoi(line.c_str() + 10) != 0;
    return false;
}

void XLogPlatformSpecific::debugBreak() {
    std::raise(SIGTRAP);
}

std::FILE* XLogPlatformSpecific::openLogFile(const std::string& path) {
    // The folder may sit in a shared temp directory: never follow a link
    // planted where our file should be.
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return nullptr;
    std::FILE* file = fdopen(fd, "a");
    if (file == nullptr) close(fd);
    return file;
}

void XLogPlatformSpecific::discardUnwritten(std::FILE* file) {
    __fpurge(file);
}

void XLogPlatformSpecific::atForkChild(void (*handler)()) {
    pthread_atfork(nullptr, nullptr, handler);
}

void XLogPlatformSpecific::purgeOldLogFiles(const std::string& folder,
                                            const std::string& processName,
                                            const std::string& nameSpace) {
    static const char* const function = "devio::XLogPlatformSpecific::purgeOldLogFiles";
    constexpr int64_t nanosecondsPerDay = 86400LL * 1000 * 1000 * 1000;
    std::string pattern = "xlog_*_" + processName + "_" + nameSpace + ".dblog";

    struct Found {
        std::string path;
        int64_t time;
    };
    std::vector<Found> files;
    int64_t newest = INT64_MIN;
    if (DIR* dir = opendir(folder.c_str())) {
        while (dirent* entry = readdir(dir)) {
            if (fnmatch(pattern.c_str(), entry->d_name, FNM_PERIOD) != 0) continue;
            std::string path = folder + entry->d_name;
            struct stat st {};
            if (lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
            int64_t time =
                static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
            files.push_back({path, time});
            if (time > newest) newest = time;
        }
        closedir(dir);
    }
    for (const Found& file : files) {
        // Age counts from the newest file, not from the clock, so a machine
        // that logs rarely keeps its last week of logs.
        int days = static_cast<int>((newest - file.time) / nanosecondsPerDay);
        if (days < 7) {
            xLog("xLog", 4, function, "Keeping %d day old log file %s", days, file.path.c_str());
        } else if (unlink(file.path.c_str()) != 0) {
            xLog("xLog", 1, function, "DeleteFile failed on %s, err=%d", file.path.c_str(), errno);
        } else {
            xLog("xLog", 4, function, "Purging %d day old log file %s", days, file.path.c_str());
        }
    }
}

}  // namespace devio
