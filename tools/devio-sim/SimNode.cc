#include "SimNode.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace devio_sim {

namespace {
// Larger than any report a collection of ours takes, so that an oversized
// write is seen whole and refused rather than cut.
constexpr std::size_t kMaxReport = 256;
constexpr int kBacklog = 16;
}  // namespace

SimNode::SimNode(EventLoop& loop, std::string socket_path, std::vector<Collection> collections,
                 Endpoint& endpoint)
    : loop_(loop),
      path_(std::move(socket_path)),
      collections_(std::move(collections)),
      endpoint_(endpoint) {}

SimNode::~SimNode() {
    close();
}

bool SimNode::open(std::string& why) {
    sockaddr_un addr{};
    if (path_.size() >= sizeof addr.sun_path) {
        why = "node path too long for a socket: " + path_;
        return false;
    }
    listen_fd_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
    ::unlink(path_.c_str());
    if (listen_fd_ < 0 ||
        ::bind(listen_fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listen_fd_, kBacklog) != 0) {
        why = "cannot listen on " + path_ + ": " + std::strerror(errno);
        close();
        return false;
    }
    loop_.watch(listen_fd_, POLLIN, [this](short) { acceptPending(); });
    return true;
}

void SimNode::close() {
    hangup();
    if (listen_fd_ >= 0) {
        loop_.unwatch(listen_fd_);
        ::close(listen_fd_);
        listen_fd_ = -1;
        ::unlink(path_.c_str());
    }
}

void SimNode::hangup() {
    acceptPending();
    for (int fd : std::set<int>(connections_)) drop(fd);
}

void SimNode::drop(int fd) {
    loop_.unwatch(fd);
    ::close(fd);
    connections_.erase(fd);
}

void SimNode::applyWriteMode(int fd) {
    switch (write_mode_) {
        case WriteMode::Normal:
            loop_.setEvents(fd, POLLIN);
            break;
        // Shutting our reading side makes the host's sends fail with EPIPE.
        // Our side then reads as ended, so it stops asking to read; the
        // host's hang-up is still reported without asking for it.
        case WriteMode::Fail:
            ::shutdown(fd, SHUT_RD);
            loop_.setEvents(fd, 0);
            break;
        case WriteMode::Stall:
            loop_.setEvents(fd, 0);
            break;
    }
}

void SimNode::setWriteMode(WriteMode mode) {
    write_mode_ = mode;
    acceptPending();
    for (int fd : connections_) applyWriteMode(fd);
}

// A host whose connect has returned has the node open, whether or not this
// thread has got round to accepting it: everything sent from then on must
// reach it. So every send and hang-up first takes in the waiting hosts.
void SimNode::acceptPending() {
    if (listen_fd_ < 0) return;
    for (int fd;
         (fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;) {
        connections_.insert(fd);
        loop_.watch(fd, POLLIN, [this, fd](short revents) {
            if (revents & POLLIN) {
                readFrom(fd);
            } else if (revents & (POLLHUP | POLLERR | POLLNVAL)) {
                drop(fd);
            }
        });
        applyWriteMode(fd);
    }
}

void SimNode::readFrom(int fd) {
    Report report(kMaxReport);
    const ssize_t n = ::recv(fd, report.data(), report.size(), MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (n <= 0) {
        drop(fd);
        return;
    }
    report.resize(static_cast<std::size_t>(n));
    // Like a HID device, take only the output reports that a collection
    // declares, and no longer than declared.
    const bool declared = std::any_of(
        collections_.begin(), collections_.end(),
        [&](const Collection& c) { return c.report_id == report[0] && report.size() <= c.size; });
    if (declared) endpoint_.onHostReport(report, *this);
}

Report SimNode::fit(const Report& report, const std::vector<Collection>& collections) {
    const Collection* pick = nullptr;
    for (const Collection& c : collections) {
        if (c.report_id == report[0] && c.size >= report.size()) pick = &c;
    }
    for (const Collection& c : collections) {
        if (pick != nullptr && pick->report_id == report[0]) break;
        if (c.size >= report.size() && (pick == nullptr || c.size < pick->size)) pick = &c;
    }
    // Nothing is large enough: the largest report carries what it can.
    if (pick == nullptr) {
        pick = &*std::max_element(
            collections.begin(), collections.end(),
            [](const Collection& a, const Collection& b) { return a.size < b.size; });
    }
    Report out;
    out.reserve(pick->size);
    out.push_back(pick->report_id);
    for (std::size_t i = 1; i < pick->size; ++i) out.push_back(byteAt(report, i));
    return out;
}

void SimNode::broadcast(const Report& report) {
    acceptPending();
    for (int fd : std::set<int>(connections_)) {
        const ssize_t n = ::send(fd, report.data(), report.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        // A host that does not read loses reports, as with a full hidraw
        // queue; a host that has gone is dropped.
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) drop(fd);
    }
}

void SimNode::send(const Report& report, int delay_ms) {
    if (report.empty() || collections_.empty()) return;
    const Report fitted = fit(report, collections_);
    if (delay_ms <= 0) {
        broadcast(fitted);
        return;
    }
    loop_.after(delay_ms, [weak = weak_from_this(), fitted] {
        if (auto self = weak.lock()) self->broadcast(fitted);
    });
}

}  // namespace devio_sim
