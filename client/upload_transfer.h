#pragma once

// One upload transfer: the send file and the header in one multipart HTTPS
// POST, the reply's settings, and the renewal of the upload id. Worker
// thread only.

#include <cstdint>
#include <string>

#include "upload_context.h"

namespace qv {

// Result of a transfer: 0, a libcurl error code, or this when the send file
// can't be opened.
inline constexpr std::uint32_t sendFileUnreadable = 43;

// What the last transfer of this process came to. Kept for inspection in a
// debugger or a core file; nothing in the client reads it.
struct TransferRecord {
    std::uint32_t lastResult = 0;
    std::uint32_t failuresInRow = 0;  // cleared by a success
    std::string lastEventsPath;
};
extern TransferRecord transferRecord;

// Sends `sendPath` with `headerText`. On a completed exchange, whatever the
// HTTP status, the reply's settings are taken, UploadId is renewed and the
// send file is deleted; on a transport error the send file stays.
std::uint32_t SendFile(UploadContext& context, const std::string& headerText,
                       const std::string& sendPath);

// Prints "curl version <v>" on standard output. For support sessions; a
// normal run never calls it.
void printCurlVersion();

}  // namespace qv
