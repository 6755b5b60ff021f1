#pragma once

// When to upload. Runs on the worker after every signalled flush; decides
// from the events file's size, the machine-wide LastUpload stamp and the
// machine-wide pause count, all shared with the other clients through the
// state store.

namespace qv {

// Lower bound of maxLastUploadSeconds, applied at every decision.
inline constexpr double lastUploadFloorSeconds = 120.0;
// Decisions closer than this to the last upload do nothing.
inline constexpr double minUploadSpacingSeconds = 60.0;
// A LastUpload stamp younger than this is taken to be another client's.
inline constexpr double sameMomentSeconds = 2.0;

// Decides whether to upload now, and uploads. `force` (".OFF") skips the
// pause, size and time rules, though it still stamps LastUpload.
void decideUpload(bool force);

}  // namespace qv
