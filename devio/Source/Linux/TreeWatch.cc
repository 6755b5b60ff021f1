// Device changes of a simulated machine, read from the file system.

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "Linux/ChangeSources.h"

namespace devio::linux_hid {

namespace {

bool isNodeName(const char* name) {
    return std::strncmp(name, "hidraw", 6) == 0 && name[6] != '\0';
}

class TreeWatch : public IChangeSource {
public:
    explicit TreeWatch(int fd) : fd_(fd) {}
    ~TreeWatch() override { ::close(fd_); }

    int fd() const override { return fd_; }
    short events() const override { return POLLIN; }

    void drain(std::vector<NodeEvent>& out) override {
        alignas(inotify_event) char buf[16 * (sizeof(inotify_event) + NAME_MAX + 1)];
        for (;;) {
            const ssize_t n = ::read(fd_, buf, sizeof buf);
            if (n <= 0) return;  // EAGAIN: all read
            for (ssize_t at = 0; at < n;) {
                const auto* ev = reinterpret_cast<const inotify_event*>(buf + at);
                at += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
                if (ev->mask & IN_Q_OVERFLOW) {
                    out.push_back({NodeEvent::Lost, {}, {}});
                    continue;
                }
                if (ev->len == 0 || !isNodeName(ev->name)) continue;
                if (ev->mask & (IN_CREATE | IN_MOVED_TO)) {
                    out.push_back({NodeEvent::Added, ev->name, {}});
                } else if (ev->mask & (IN_DELETE | IN_MOVED_FROM)) {
                    out.push_back({NodeEvent::Removed, ev->name, {}});
                }
            }
        }
    }

private:
    int fd_;
};

}  // namespace

std::unique_ptr<IChangeSource> openTreeWatch(const std::string& sysfs_root, int& sys_error) {
    const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) {
        sys_error = errno;
        return nullptr;
    }
    const std::string dir = sysfs_root + "/class/hidraw";
    if (::inotify_add_watch(fd, dir.c_str(), IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM) <
        0) {
        sys_error = errno;
        ::close(fd);
        return nullptr;
    }
    return std::make_unique<TreeWatch>(fd);
}

}  // namespace devio::linux_hid
