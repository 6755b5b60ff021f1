#pragma once

// Files of the shared data folder: how they are opened and locked.
//
// Every file there is opened with O_NOFOLLOW|O_CLOEXEC, so a symbolic link
// planted in the folder is refused rather than followed. Exclusion between
// clients (and between the two threads of one client) is an open file
// description lock over bytes 0..0x7FFFFFFF: such a lock belongs to the
// descriptor's open file description, so a second open() of the same file in
// the same process is excluded too.
//
// Lock order in the client: events file lock, then the queue mutex. The
// state file's lock is never held together with another lock.

#include <string>

namespace qv {

inline constexpr long lockedRangeLength = 0x7FFFFFFF;

// Attempts of one lockRange() call and the time between their starts.
inline constexpr int lockAttemptsPerCall = 10;
inline constexpr int lockAttemptMs = 1000;

// Mode of a file that a client creates in the folder: every user of the
// folder's group reads and writes it, whatever the creator's umask; other
// users get nothing.
inline constexpr unsigned sharedFileMode = 0660;

// open(2) of `path` with `flags` | O_NOFOLLOW | O_CLOEXEC. With O_CREAT, a
// file that this call creates gets sharedFileMode; a file that exists is
// opened as it is, its mode untouched. Returns the descriptor, or -1 with
// errno set.
int openShared(const std::string& path, int flags);

// Ends the process because `path` cannot be opened (`err` says why). Without
// its shared files a client can neither keep its identity nor its events.
[[noreturn]] void sharedFileFailure(const std::string& path, int err);

// Locks the whole range exclusively. One call waits at most
// lockAttemptsPerCall attempts of lockAttemptMs each (about ten seconds) and
// polls briefly within each attempt, so a free lock is taken at once.
// Returns 0, or the errno of the last failure (EAGAIN when the lock stayed
// busy).
int lockRange(int fd);

// Releases the range. Returns 0 or errno.
int unlockRange(int fd);

// True while `fd` still refers to the file that `path` names (same device
// and inode). False after the path was renamed away, removed or replaced.
bool namesFile(int fd, const std::string& path);

// Opens `path` for appending (creating it), takes its lock and makes sure the
// locked descriptor is still the file at `path`, reopening when someone
// renamed the file meanwhile. Whoever renames the file away (the uploader)
// does so holding this lock, so a writer that returns from here can never
// append to a file that has become a send file.
//
// `fd` is the caller's descriptor for the file, or -1; it may be replaced.
// Returns 0 with the lock held on `fd`, or an errno: on a lock failure `fd`
// stays open and unlocked; on an open failure `fd` is -1.
int lockNamedFile(int& fd, const std::string& path);

}  // namespace qv
