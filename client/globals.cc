#include "globals.h"

#include <sys/stat.h>

#include <cstdlib>

namespace qv {

std::string dataDir;
std::string eventsPath;
std::string statePath;
std::string userName;
std::string userHash;

std::atomic<bool> noUpload{false};
std::atomic<bool> running{false};
std::atomic<std::uint32_t> pausedByMe{0};

std::atomic<std::uint32_t> maxLineBuf{20};
std::atomic<std::uint32_t> maxPauseSeconds{7200};
std::atomic<std::uint32_t> maxLastUploadSeconds{259200};
std::atomic<std::uint32_t> minUploadSize{1048576};
std::atomic<std::uint32_t> timeoutShutdownSeconds{600};
std::atomic<std::uint32_t> timeoutShutdownTicks{30};

void setDataDir(const std::string& dir) {
    dataDir = dir;
    if (dataDir.empty() || dataDir.back() != '/') dataDir += '/';
    eventsPath = dataDir + eventsFileName;
    statePath = dataDir + stateFileName;
}

void initPaths() {
    const char* env = std::getenv("VANTSHRD_DIR");
    setDataDir(env != nullptr && *env != '\0' ? env : defaultDataDir);
    makeDataDir();
}

void makeDataDir() {
    // Group-writable so that every user's client can share the folder; the
    // recommended install makes it setgid, which new files then inherit.
    ::mkdir(dataDir.c_str(), 0775);
}

}  // namespace qv
