#pragma once

// The upload header: the machine and device sections, then the client's own
// keys, then the transfer. Worker thread only.

#include <string>

#include "upload_context.h"

namespace qv {

// Fills context.header and hands it with the events to the transport. Its
// result isn't looked at: a failed upload shows in the files it leaves.
void CollectSystemData(UploadContext& context);

// The token input: UploadId, ClientId and the first 18 characters of the
// timestamp (up to the tens of the seconds), 90 characters in all.
std::string authTokenInput(const std::string& uploadId, const std::string& clientId,
                           const std::string& timestamp);

}  // namespace qv
