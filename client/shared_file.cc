#include "shared_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace qv {

namespace {

int setLock(int fd, short type) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = lockedRangeLength;
    if (::fcntl(fd, F_OFD_SETLK, &lock) == 0) return 0;
    return errno;
}

// How often a replaced file is reopened, or a file that comes and goes is
// retried, before giving up: only a peer that renames, creates or removes
// the file in a tight loop could make this run out.
constexpr int reopenLimit = 100;

}  // namespace

int openShared(const std::string& path, int flags) {
    flags |= O_NOFOLLOW | O_CLOEXEC;
    if ((flags & O_CREAT) == 0) return ::open(path.c_str(), flags);
    const int existing = flags & ~(O_CREAT | O_EXCL);
    for (int round = 0; round < reopenLimit; ++round) {
        // Usually the file is there, and is opened as it is: it belongs to
        // whoever made it. A symbolic link fails here with ELOOP.
        int fd = ::open(path.c_str(), existing);
        if (fd >= 0 || errno != ENOENT) return fd;
        // Created exclusively, the file is surely ours to set the mode of.
        fd = ::open(path.c_str(), existing | O_CREAT | O_EXCL, sharedFileMode);
        if (fd >= 0) {
            // The umask has narrowed the mode given to open(); the other
            // users of the group need to write this file too. Should this
            // fail, the file still serves us, and the others find out at
            // their own open.
            [[maybe_unused]] int ignored = ::fchmod(fd, sharedFileMode);
            return fd;
        }
        if (errno != EEXIST) return -1;
        // Another client made it (or planted a link) just now: open that.
    }
    return -1;
}

void sharedFileFailure(const std::string& path, int err) {
    std::fprintf(stderr, "qvclient: cannot open %s: %s\n", path.c_str(), std::strerror(err));
    std::abort();
}

int lockRange(int fd) {
    // Each attempt lasts up to lockAttemptMs, polling with a short, growing
    // pause: locks in this folder are held for a few system calls, so a
    // waiter usually gets in within microseconds, while a holder that is
    // stuck costs the caller a bounded ten seconds.
    using Clock = std::chrono::steady_clock;
    int err = 0;
    for (int attempt = 0; attempt < lockAttemptsPerCall; ++attempt) {
        auto end = Clock::now() + std::chrono::milliseconds(lockAttemptMs);
        auto pauseFor = std::chrono::microseconds(20);
        for (;;) {
            err = setLock(fd, F_WRLCK);
            if (err == 0) return 0;
            if (err != EAGAIN && err != EACCES && err != EINTR) return err;
            if (Clock::now() >= end) break;
            std::this_thread::sleep_for(pauseFor);
            if (pauseFor < std::chrono::milliseconds(2)) pauseFor *= 2;
        }
    }
    return err;
}

int unlockRange(int fd) {
    return setLock(fd, F_UNLCK);
}

bool namesFile(int fd, const std::string& path) {
    struct stat byFd = {};
    struct stat byPath = {};
    if (::fstat(fd, &byFd) != 0 || ::lstat(path.c_str(), &byPath) != 0) return false;
    return byFd.st_dev == byPath.st_dev && byFd.st_ino == byPath.st_ino;
}

int lockNamedFile(int& fd, const std::string& path) {
    for (int round = 0; round < reopenLimit; ++round) {
        if (fd < 0) {
            fd = openShared(path, O_RDWR | O_APPEND | O_CREAT);
            if (fd < 0) return errno;
        }
        int err = lockRange(fd);
        if (err != 0) return err;
        if (namesFile(fd, path)) return 0;
        // Renamed away (an upload took it) while we waited: whatever we
        // write belongs in the file that now has the name.
        unlockRange(fd);
        ::close(fd);
        fd = -1;
    }
    return EAGAIN;
}

}  // namespace qv
