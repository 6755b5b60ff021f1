#pragma once

namespace qv {

// Decides after a flush whether to upload now, and uploads.
void decideUpload(bool force);

}  // namespace qv
