#pragma once

// The rotation of an upload: events file to send file, a send file left
// over by an earlier failure first, and the guard against a full disk.

#include <cstdint>
#include <string>

#include "upload_context.h"

namespace qv {

// Sends what is waiting: a leftover send file first, then the events file.
// Returns the last transfer's result (0 also when there was nothing).
std::uint32_t sendEvents(UploadContext& context, const std::string& headerText,
                         const std::string& eventsPath);

// After a failed upload: deletes the send file when the data folder's file
// system has less than 2 percent of its space free, so that a server that
// can't be reached doesn't also fill the disk.
void guardDisk(const std::string& eventsPath, const std::string& sendPath);

}  // namespace qv
