#pragma once

// The events file and the send file beside it, and the moves between them.
//
// Other clients append to the events file under its lock, and a writer
// checks after taking the lock that its descriptor still names the events
// file. So every move that takes the events file away or touches the send
// file is done here holding that same lock: a line is either appended
// before the rename, and sent, or after it, into a new events file. Worker
// thread only.

#include <sys/types.h>

#include <string>

namespace qv {

struct RenameOutcome {
    int result;  // 0, or -1 when the events file wasn't moved
    int error;   // errno of the failure, or 0
};

// Renames the events file to the send file under the events file's lock.
// Unlike a plain rename(2) it never replaces an existing send file: one
// that is there is someone's unsent or unfinished upload.
RenameOutcome renameToSendFile(const std::string& eventsPath, const std::string& sendPath);

// Deletes the send file after it was sent, provided the name still refers
// to the file that was sent (`device`, `inode`): a send file made meanwhile
// from newer events is left for its own upload.
void removeSentFile(const std::string& eventsPath, const std::string& sendPath, dev_t device,
                    ino_t inode);

// Appends the send file's content to the events file (behind the newest
// events) under the events file's lock, then deletes the send file.
// Returns 0, or -1 when the lock could not be had; the send file then stays.
int mergeBack(const std::string& sendPath, const std::string& eventsPath);

}  // namespace qv
