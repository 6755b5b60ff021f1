#include "upload_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "debug_log.h"
#include "shared_file.h"

namespace qv {

namespace {

// How often a replaced events file is reopened before giving up.
constexpr int reopenLimit = 100;
constexpr std::size_t mergeBlockSize = 32768;

struct EventsLock {
    int fd = -1;    // locked descriptor of the events file, or -1
    int error = 0;  // why there is none: ENOENT when there is no events file
};

// Locks the events file that exists now, without creating one.
EventsLock lockExistingEventsFile(const std::string& eventsPath) {
    for (int round = 0; round < reopenLimit; ++round) {
        int fd = openShared(eventsPath, O_RDWR);
        if (fd < 0) return {-1, errno};
        int err = lockRange(fd);
        if (err != 0) {
            ::close(fd);
            return {-1, err};
        }
        if (namesFile(fd, eventsPath)) return {fd, 0};
        unlockRange(fd);
        ::close(fd);
    }
    return {-1, EAGAIN};
}

void unlockEventsFile(EventsLock& lock) {
    if (lock.fd < 0) return;
    unlockRange(lock.fd);
    ::close(lock.fd);
    lock.fd = -1;
}

int renameNoReplace(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return -1;
    // A file system without the flag: a hard link fails just as well when
    // the name is taken.
    if (::link(from.c_str(), to.c_str()) != 0) return -1;
    return ::unlink(from.c_str());
}

bool writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

RenameOutcome renameToSendFile(const std::string& eventsPath, const std::string& sendPath) {
    EventsLock lock = lockExistingEventsFile(eventsPath);
    // Without the lock a writer could still be appending to the file that is
    // about to be sent and deleted: better not to move it at all.
    if (lock.fd < 0) return {-1, lock.error};
    errno = 0;
    int result = renameNoReplace(eventsPath, sendPath);
    int error = result == 0 ? 0 : errno;
    unlockEventsFile(lock);
    return {result, error};
}

void removeSentFile(const std::string& eventsPath, const std::string& sendPath, dev_t device,
                    ino_t inode) {
    EventsLock lock = lockExistingEventsFile(eventsPath);
    struct stat st = {};
    if (::lstat(sendPath.c_str(), &st) == 0 && st.st_dev == device && st.st_ino == inode) {
        ::unlink(sendPath.c_str());
    }
    unlockEventsFile(lock);
}

int mergeBack(const std::string& sendPath, const std::string& eventsPath) {
    int sendFd = openShared(sendPath, O_RDWR | O_APPEND | O_CREAT);
    int eventsFd = -1;
    if (lockNamedFile(eventsFd, eventsPath) != 0) {
        if (eventsFd >= 0) ::close(eventsFd);
        if (sendFd >= 0) ::close(sendFd);
        return -1;
    }
    off_t before = ::lseek(eventsFd, 0, SEEK_END);
    bool complete = sendFd >= 0;
    char block[mergeBlockSize];
    while (complete) {
        ssize_t n = ::read(sendFd, block, sizeof block);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            complete = n == 0;
            break;
        }
        complete = writeAll(eventsFd, block, static_cast<std::size_t>(n));
    }
    // A merge cut short (disk full) is undone and the send file kept whole
    // for the next try. Should the undo fail too, the send file is still
    // kept: a line sent twice is better than a line lost.
    if (!complete && before >= 0 && ::ftruncate(eventsFd, before) != 0) {
        trace("bg merge back incomplete, send file kept");
    }
    unlockRange(eventsFd);
    trace("bg unlock complete");
    ::close(eventsFd);
    if (sendFd >= 0) ::close(sendFd);
    if (complete) ::unlink(sendPath.c_str());
    return 0;
}

}  // namespace qv
