#include "globals.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
    // A folder that this client makes is made as the install makes it:
    // group-writable whatever the umask, so that every user's client can
    // share it, and setgid, so that new files take its group.
    if (::mkdir(dataDir.c_str(), 0775) != 0) return;
    const int fd = ::open(dataDir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return;
    [[maybe_unused]] const int ignored = ::fchmod(fd, 02775);
    ::close(fd);
}

}  // namespace qv
