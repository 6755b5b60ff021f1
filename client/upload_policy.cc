#include "upload_policy.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>

#include "debug_log.h"
#include "globals.h"
#include "shared_file.h"
#include "state_store.h"
#include "timestamp.h"
#include "upload_context.h"
#include "upload_header.h"

namespace qv {

namespace {

// The events file's size, without its lock: a decision doesn't need the
// last line to the byte. Beyond 32 bits it counts as 4 GiB - 1. A client
// that cannot open the events file ends here as it would at its next flush.
std::uint32_t eventsFileSize() {
    int fd = openShared(eventsPath, O_RDWR | O_APPEND | O_CREAT);
    if (fd < 0) sharedFileFailure(eventsPath, errno);
    off_t end = ::lseek(fd, 0, SEEK_END);
    ::close(fd);
    if (end < 0) return 0;
    return static_cast<std::uint32_t>(
        std::min<off_t>(end, std::numeric_limits<std::uint32_t>::max()));
}

// Puts back the LastUpload that this decision replaced, so that only an
// upload moves it. A stamp of the last two seconds is another client's and
// stays.
void restoreLastUpload(double elapsed, const std::string& previous) {
    if (elapsed > sameMomentSeconds) setSetting("LastUpload", previous);
}

// The pause rule. True when the machine is held.
bool pauseHolds(double now) {
    const std::string lastPause = readOnly("LastPause");
    if (lastPause.empty()) {
        unpause();
        return true;
    }
    // Stored time minus now, not the other way round: a pause never wears
    // off with age. It ends through ".UNPAUSE", or here only when the stored
    // stamp lies maxPauseSeconds or more in this client's future.
    const double d = readTimestamp(lastPause) - now;
    if (static_cast<double>(maxPauseSeconds.load()) > d) return true;
    setSetting("PauseCount", "0");
    return false;
}

}  // namespace

void decideUpload(bool force) {
    const double now = readTimestamp(nowTimestamp());
    const std::uint32_t floor = static_cast<std::uint32_t>(lastUploadFloorSeconds);
    if (maxLastUploadSeconds.load() < floor) maxLastUploadSeconds = floor;
    const double maxLast = maxLastUploadSeconds.load();

    if (!force && isPaused() && pauseHolds(now)) return;

    const std::uint32_t size = eventsFileSize();

    const std::string seen = readOnly("LastUpload");
    if (!force && !seen.empty() && now - readTimestamp(seen) <= minUploadSpacingSeconds) return;

    // Read and restamp in one transaction of the store: a second client
    // that decides just after this sees the new stamp.
    std::string previous;
    updateState("LastUpload", true, [&](const std::string& old) {
        previous = old;
        return nowTimestamp();
    });
    const double elapsed = previous.empty() ? maxLast + 1 : now - readTimestamp(previous);

    if (force) {
        trace("forcing after ", elapsed, " seconds\n");
    } else if (size >= minUploadSize.load()) {
        trace("SIZE qualifies for upload\n");
        if (elapsed < minUploadSpacingSeconds) {
            restoreLastUpload(elapsed, previous);
            return;
        }
    } else if (maxLast > elapsed) {
        restoreLastUpload(elapsed, previous);
        trace("too small, too early (", elapsed, "sec) to upload\n");
        return;
    } else {
        trace("TIME qualifies for upload\n");
    }

    trace("!!! UPLOAD !!!!\n");
    UploadContext context;
    context.eventsPath = eventsPath;
    const std::uint64_t start = nowTicks();
    CollectSystemData(context);
    trace("CollectSystemData took ", ticksToMs(start, nowTicks()), "ms\n");
}

}  // namespace qv
