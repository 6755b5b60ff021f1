#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>

#include "Base/NamedMutex.h"
#include "xlog.h"

namespace devio {

// One per name and process: threads exclude each other through `threads`,
// processes through flock on the lock file. flock belongs to the open file
// description, so it is taken once, by the outermost lock of the process,
// and the kernel drops it when the process dies.
struct NamedMutex::Shared {
    std::recursive_mutex threads;
    int fd = -1;
    int depth = 0;  // guarded by `threads`

    ~Shared() {
        if (fd >= 0) ::close(fd);
    }
};

namespace {

std::mutex registryMutex;
std::map<std::string, std::weak_ptr<NamedMutex::Shared>>& registry() {
    static auto* r = new std::map<std::string, std::weak_ptr<NamedMutex::Shared>>();
    return *r;
}

// The name becomes a file name: anything but letters, digits, '.', '-' and
// '_' is replaced, so no name can climb out of the lock directory.
std::string lockFileName(const std::string& name) {
    std::string out = "devio-";
    for (char c : name) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_';
        out += ok ? c : '_';
    }
    return out + ".lock";
}

int openLockFile(const std::string& name) {
    const std::string path = NamedMutex::lockDirectory() + "/" + lockFileName(name);
    // Read access is enough for flock, so a file made by another user of the
    // machine can still be shared.
    int fd = ::open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    return fd;
}

}  // namespace

std::string NamedMutex::lockDirectory() {
    if (const char* dir = std::getenv("DEVIO_LOCK_DIR"); dir != nullptr && *dir != '\0') return dir;
    if (::access("/run/lock", W_OK) == 0) return "/run/lock";
    return "/tmp";
}

NamedMutex::NamedMutex(const std::string& name, bool take) : take_(take) {
    if (name.empty()) return;
    init(name);
    if (take_) lock();
}

NamedMutex::~NamedMutex() {
    if (take_) unlock();
    if (hMutex_) {
        xLog("Untagged", 3, "NamedMutex::~NamedMutex", "closed handle 0x%08x (hMutex)",
             static_cast<unsigned>(hMutex_->fd));
        hMutex_.reset();
    }
}

void NamedMutex::init(const std::string& name) {
    xLog("Untagged", 3, "NamedMutex::init", "Mutex name: %s", name.c_str());
    std::lock_guard<std::mutex> guard(registryMutex);
    std::weak_ptr<Shared>& slot = registry()[name];
    hMutex_ = slot.lock();
    if (hMutex_) return;
    const int fd = openLockFile(name);
    if (fd < 0) {
        // Without a lock file the threads of this process are still kept apart;
        // other processes are not, and the log says so.
        xLog("Untagged", 0, "NamedMutex::init", "lock file for %s could not be opened, errno=%d",
             name.c_str(), errno);
    }
    hMutex_ = std::make_shared<Shared>();
    hMutex_->fd = fd;
    slot = hMutex_;
}

void NamedMutex::lock() {
    xAssert(hMutex_ != nullptr, "hMutex_ != NULL", "devio\\Source\\NamedMutex", __LINE__);
    if (!hMutex_) return;
    hMutex_->threads.lock();
    if (hMutex_->depth++ == 0 && hMutex_->fd >= 0) {
        while (::flock(hMutex_->fd, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
}

void NamedMutex::unlock() {
    xAssert(hMutex_ != nullptr, "hMutex_ != NULL", "devio\\Source\\NamedMutex", __LINE__);
    if (!hMutex_ || hMutex_->depth == 0) return;
    if (--hMutex_->depth == 0 && hMutex_->fd >= 0) ::flock(hMutex_->fd, LOCK_UN);
    hMutex_->threads.unlock();
}

}  // namespace devio
