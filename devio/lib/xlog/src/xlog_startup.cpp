#include <chrono>
#include <ctime>
#include <mutex>

#include "log_clock.h"
#include "log_config.h"
#include "log_platform.h"
#include "log_process.h"
#include "log_settings.h"
#include "xlog.h"

namespace devio::xlog {

namespace {

std::mutex startMutex;
thread_local bool startingHere = false;

const char* const nameSpace = "devio";
const char* const startupTag = "xLog";
const char* const startupFunction = "devio::xLogStartup";

}  // namespace

LogConfig& logConfig() {
    static LogConfig* const config = new LogConfig;
    return *config;
}

std::atomic<bool> started{false};

void startOnce() {
    if (startingHere) return;
    std::lock_guard lock(startMutex);
    if (started.load(std::memory_order_relaxed)) return;
    startingHere = true;
    xLogStartup();
    startingHere = false;
    started.store(true, std::memory_order_release);
}

bool isStarted() {
    return started.load(std::memory_order_acquire);
}

}  // namespace devio::xlog

namespace devio {

using xlog::logConfig;

namespace {

void writeHeader(const std::string& processName, const std::string& exePath, int64_t now) {
    xlog::LogConfig& config = logConfig();
    xLog(xlog::startupTag, 2, xlog::startupFunction, "----------------------------------------");
    char when[128];
    std::tm local{};
    XLogPlatformSpecific::localTime(now, local);
    // The locale's own date and time form is wanted here, whatever its year.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-y2k"
    std::strftime(when, sizeof when, "%c %Z", &local);
#pragma GCC diagnostic pop
    xLog(xlog::startupTag, 2, xlog::startupFunction, "%s", when);

    // This one line shows the settings in effect wherever the output goes.
    int level = config.logginglevel.load();
    int tagLevel = config.logTagLevel.load();
    config.logginglevel.store(2);
    config.logTagLevel.store(2);
    xLog(xlog::startupTag, 2, xlog::startupFunction,
         "procname=%s namespace=%s logginglevel=%d loggingoutput=%d", processName.c_str(),
         xlog::nameSpace, level, config.loggingoutput.load());
    config.logginglevel.store(level);
    config.logTagLevel.store(tagLevel);

    if (exePath.size() != processName.size())
        xLog(xlog::startupTag, 2, xlog::startupFunction, "exe=%s", exePath.c_str());
    xLog(xlog::startupTag, 2, xlog::startupFunction, "tags=%s", config.tags.describe().c_str());
}

}  // namespace

void xLogStartup() {
    xlog::LogSettings settings = xlog::readLogSettings();
    xlog::LogConfig& config = logConfig();
    if (settings.logging == 0) {
        config.enabled.store(false);
        return;
    }
    XLogPlatformSpecific::chooseDebugChannel(settings.debugchannel);
    config.logginglevel.store(settings.logginglevel);
    config.loggingoutput.store(settings.loggingoutput);
    config.logTagLevel.store(settings.logTagLevel);
    if (settings.LogTags) config.tags.configure(*settings.LogTags);

    uint64_t wallMicros = xlog::wallClockMicros();
    config.startMicros = xlog::monotonicMicros();
    xlog::setWallClockOffset(static_cast<int64_t>(wallMicros - config.startMicros));
    auto wallSeconds = static_cast<int64_t>(wallMicros / 1000000);
    std::string exePath = XLogPlatformSpecific::executablePath();
    std::string processName = XLogPlatformSpecific::processName(exePath);
    config.file = std::make_unique<xlog::LogFile>(config.startMicros, wallMicros,
                                                  XLogPlatformSpecific::processId(), processName,
                                                  xlog::nameSpace);

    bool toFile = (settings.loggingoutput & 4) != 0;
    std::string folder;
    if (toFile) {
        folder = XLogPlatformSpecific::logFolder();
        char stamp[32];
        std::tm local{};
        XLogPlatformSpecific::localTime(wallSeconds, local);
        std::strftime(stamp, sizeof stamp, "%Y%m%d_%H%M%S", &local);
        char name[256];
        std::snprintf(name, sizeof name, "xlog_%s_%u_%s_%s.dblog", stamp,
                      XLogPlatformSpecific::processId(), processName.c_str(), xlog::nameSpace);
        std::string path = folder + name;
        if (folder.empty() || !config.file->open(path)) {
            xLog(xlog::startupTag, 0, xlog::startupFunction, "Could not create log file %s",
                 path.c_str());
            folder.clear();
        }
    }
    XLogPlatformSpecific::atForkChild(xlog::resetAfterFork);
    writeHeader(processName, exePath, wallSeconds);
    if (!folder.empty())
        XLogPlatformSpecific::purgeOldLogFiles(folder, processName, xlog::nameSpace);
}

}  // namespace devio
