#include "upload_rotation.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "debug_log.h"
#include "upload_files.h"
#include "upload_transfer.h"

namespace qv {

namespace {

bool exists(const std::string& path, struct stat& st) {
    return ::stat(path.c_str(), &st) == 0;
}

std::string folderOf(const std::string& path) {
    auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

std::uint32_t sendEvents(UploadContext& context, const std::string& headerText,
                         const std::string& eventsPath) {
    const std::string sendPath = eventsPath + ".send";
    std::uint32_t result = 0;
    struct stat st = {};
    if (!exists(sendPath, st)) {
        if (!exists(eventsPath, st)) {
            trace("no event file present\n");
            return 0;
        }
        if (st.st_size < 1) {
            trace("events file is zero\n");
            return 0;
        }
        RenameOutcome renamed = renameToSendFile(eventsPath, sendPath);
        trace("send file created by rename ", sendPath, " returned ", renamed.result, ",",
              renamed.error);
        result = SendFile(context, headerText, sendPath);
        trace("sent normal send file ", sendPath, " returned ", result);
    } else {
        trace("send file exists already ", sendPath);
        result = SendFile(context, headerText, sendPath);
        if (result == 0) {
            trace("sent first of 2\n");
            renameToSendFile(eventsPath, sendPath);
            result = SendFile(context, headerText, sendPath);
            if (result == 0) trace("sent second of 2\n");
        } else {
            // The old events go back behind the newest ones, so the next try
            // has a single file to send.
            mergeBack(sendPath, eventsPath);
        }
    }
    if (result != 0) guardDisk(eventsPath, sendPath);
    return result;
}

void guardDisk(const std::string& eventsPath, const std::string& sendPath) {
    // An unanswered question about the disk counts as a full disk.
    unsigned long long freeBlocks = 0;
    unsigned long long totalBlocks = 1;
    struct statvfs vfs = {};
    if (::statvfs(folderOf(eventsPath).c_str(), &vfs) == 0) {
        // A file system that reports no size at all can't be judged full.
        if (vfs.f_blocks == 0) return;
        freeBlocks = vfs.f_bavail;
        totalBlocks = vfs.f_blocks;
    }
    if (freeBlocks * 100 / totalBlocks < 2) ::unlink(sendPath.c_str());
}

}  // namespace qv
