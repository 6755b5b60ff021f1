#include "Linux/HidNode.h"

#include <fcntl.h>
#include <linux/hidraw.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace devio::linux_hid {

namespace {

// Errors with which a read or write tells that the device is no more:
// hidraw answers EIO once its device has gone, sockets report the peer.
bool isGoneError(int e) {
    return e == ENODEV || e == EIO || e == ECONNRESET || e == EPIPE || e == ENOTCONN ||
           e == ESHUTDOWN;
}

// What usbhid gives for a report that did not get through this time, where
// the device itself is still there:
// EPIPE     the endpoint stalled: the device refused the transfer;
// EPROTO    a low-level transfer error on the bus (bit stuffing, babble);
// EILSEQ    a CRC error on the bus;
// ETIMEDOUT the SET_REPORT control transfer of a device without an
//           interrupt-out endpoint timed out.
// On a socket node EPIPE is the peer gone instead, so this applies to
// hidraw writes only.
bool isTransientWriteError(int e) {
    return e == EPIPE || e == EPROTO || e == EILSEQ || e == ETIMEDOUT;
}

int connectSocket(const std::string& path, int& sys_error) {
    sockaddr_un addr{};
    if (path.size() >= sizeof addr.sun_path) {
        sys_error = ENAMETOOLONG;
        return -1;
    }
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        sys_error = errno;
        return -1;
    }
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    // Connect while blocking (a local connect does not wait for the peer to
    // accept), then switch to non-blocking like a hidraw node.
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 ||
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK) != 0) {
        sys_error = errno;
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

int openNode(const std::string& path, int& sys_error) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        sys_error = errno;
        return -1;
    }
    if (S_ISSOCK(st.st_mode)) return connectSocket(path, sys_error);
    const int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) sys_error = errno;
    return fd;
}

NodeRead readNode(int fd, int stop_fd, std::span<std::uint8_t> buffer, std::size_t& got,
                  int& sys_error) {
    got = 0;
    for (;;) {
        pollfd fds[2] = {{stop_fd, POLLIN, 0}, {fd, POLLIN, 0}};
        const int n = ::poll(fds, 2, -1);
        if (n < 0) {
            if (errno == EINTR) continue;
            sys_error = errno;
            return NodeRead::Failed;
        }
        if (fds[0].revents & POLLIN) return NodeRead::Stopped;
        if (fds[1].revents & POLLNVAL) {
            sys_error = EBADF;
            return NodeRead::Gone;
        }
        if (fds[1].revents == 0) continue;
        // Read even on a hangup: a socket may still hold reports sent before its
        // peer closed, and the read gives the reason of a hidraw hangup.
        const ssize_t r = ::read(fd, buffer.data(), buffer.size());
        if (r > 0) {
            got = static_cast<std::size_t>(r);
            std::memset(buffer.data() + got, 0, buffer.size() - got);
            return NodeRead::Report;
        }
        if (r == 0) {
            // End of stream: a socket peer that closed. hidraw never returns 0
            // for a non-empty buffer.
            sys_error = ENODEV;
            return NodeRead::Gone;
        }
        if (errno == EAGAIN || errno == EINTR) continue;
        sys_error = errno;
        return isGoneError(errno) ? NodeRead::Gone : NodeRead::Failed;
    }
}

NodeWrite writeNode(int fd, std::span<const std::uint8_t> report, std::uint32_t timeout_ms,
                    int& sys_error) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        // MSG_NOSIGNAL keeps a closed peer from raising SIGPIPE; hidraw is no
        // socket, so it gets a plain write.
        ssize_t w = ::send(fd, report.data(), report.size(), MSG_NOSIGNAL);
        bool hidraw = false;
        if (w < 0 && errno == ENOTSOCK) {
            hidraw = true;
            w = ::write(fd, report.data(), report.size());
        }
        if (w >= 0) {
            if (static_cast<std::size_t>(w) == report.size()) return NodeWrite::Done;
            sys_error = EIO;  // a report goes whole or not at all
            return NodeWrite::Failed;
        }
        if (errno == EINTR) continue;
        if (errno != EAGAIN) {
            sys_error = errno;
            return hidraw && isTransientWriteError(errno) ? NodeWrite::GeneralFailure
                                                          : NodeWrite::Failed;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            sys_error = 0;
            return NodeWrite::TimedOut;
        }
        pollfd p{fd, POLLOUT, 0};
        const int n = ::poll(&p, 1, static_cast<int>(left));
        if (n < 0 && errno != EINTR) {
            sys_error = errno;
            return NodeWrite::Failed;
        }
        if (n > 0 && (p.revents & (POLLERR | POLLHUP | POLLNVAL)) && !(p.revents & POLLOUT)) {
            sys_error = (p.revents & POLLNVAL) ? EBADF : ENODEV;
            return NodeWrite::Failed;
        }
    }
}

bool queryRawInfo(int fd, std::uint32_t& bus, std::uint16_t& vendor, std::uint16_t& product,
                  int& sys_error) {
    hidraw_devinfo info{};
    if (::ioctl(fd, HIDIOCGRAWINFO, &info) != 0) {
        sys_error = errno;
        return false;
    }
    bus = info.bustype;
    vendor = static_cast<std::uint16_t>(info.vendor);
    product = static_cast<std::uint16_t>(info.product);
    return true;
}

bool queryDescriptor(int fd, std::vector<std::uint8_t>& out, int& sys_error) {
    int size = 0;
    if (::ioctl(fd, HIDIOCGRDESCSIZE, &size) != 0) {
        sys_error = errno;
        return false;
    }
    hidraw_report_descriptor desc{};
    desc.size =
        static_cast<std::uint32_t>(size < 0                         ? 0
                                   : size > HID_MAX_DESCRIPTOR_SIZE ? HID_MAX_DESCRIPTOR_SIZE
                                                                    : size);
    if (::ioctl(fd, HIDIOCGRDESC, &desc) != 0) {
        sys_error = errno;
        return false;
    }
    out.assign(desc.value, desc.value + desc.size);
    return true;
}

int makeStopEvent(int& sys_error) {
    const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) sys_error = errno;
    return fd;
}

bool signalStopEvent(int fd) {
    const std::uint64_t one = 1;
    return ::write(fd, &one, sizeof one) == static_cast<ssize_t>(sizeof one);
}

bool resetStopEvent(int fd) {
    std::uint64_t value = 0;
    // EAGAIN means it was not signalled, which is what reset wants anyway.
    return ::read(fd, &value, sizeof value) == static_cast<ssize_t>(sizeof value) ||
           errno == EAGAIN;
}

}  // namespace devio::linux_hid
