#include "SimTree.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace hidtest {

Peer::Peer(const std::string& socket_path) {
    listen_fd_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof addr.sun_path)
        throw std::runtime_error("socket path too long");
    std::memcpy(addr.sun_path, socket_path.c_str(), socket_path.size() + 1);
    if (listen_fd_ < 0 ||
        ::bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listen_fd_, 8) != 0) {
        throw std::runtime_error("cannot serve " + socket_path);
    }
    wake_fd_ = ::eventfd(0, EFD_CLOEXEC);
    thread_ = std::thread([this] { serve(); });
}

Peer::~Peer() {
    const std::uint64_t one = 1;
    (void)!::write(wake_fd_, &one, sizeof one);
    thread_.join();
    closeConnections();
    ::close(listen_fd_);
    ::close(wake_fd_);
}

void Peer::serve() {
    for (;;) {
        std::vector<pollfd> fds = {{wake_fd_, POLLIN, 0}, {listen_fd_, POLLIN, 0}};
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (reading_) {
                for (int c : conns_) fds.push_back({c, POLLIN, 0});
            }
        }
        // A short poll, so that stopReading and closeConnections take hold soon.
        if (::poll(fds.data(), fds.size(), 20) < 0) continue;
        if (fds[0].revents) return;
        if (fds[1].revents & POLLIN) {
            const int c = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (c >= 0) {
                std::lock_guard<std::mutex> lock(mutex_);
                conns_.push_back(c);
            }
        }
        for (std::size_t i = 2; i < fds.size(); ++i) {
            if (!(fds[i].revents & (POLLIN | POLLHUP)) || !reading_) continue;
            std::uint8_t buf[512];
            const ssize_t n = ::recv(fds[i].fd, buf, sizeof buf, MSG_DONTWAIT);
            std::lock_guard<std::mutex> lock(mutex_);
            if (n > 0) {
                received_.emplace_back(buf, buf + n);
            } else if (n == 0) {
                // The device side closed this connection.
                const auto it = std::find(conns_.begin(), conns_.end(), fds[i].fd);
                if (it != conns_.end()) {
                    ::close(*it);
                    conns_.erase(it);
                }
            }
        }
    }
}

void Peer::send(const std::vector<std::uint8_t>& report) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int c : conns_)
        (void)!::send(c, report.data(), report.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

void Peer::closeConnections() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int c : conns_) ::close(c);
    conns_.clear();
}

std::vector<std::vector<std::uint8_t>> Peer::received() {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
}

std::size_t Peer::connections() {
    std::lock_guard<std::mutex> lock(mutex_);
    return conns_.size();
}

SimTree::SimTree() {
    char tmpl[] = "/tmp/hidTree.XXXXXX";  // mixed case: paths are lower-cased above the binding
    if (::mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp");
    dir_ = tmpl;
    sys_ = dir_ + "/Sys";
    dev_ = dir_ + "/Dev";
    fs::create_directories(sys_ + "/class/hidraw");
    fs::create_directories(dev_);
}

SimTree::~SimTree() {
    peers_.clear();
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

std::string SimTree::devicePath(unsigned n) const {
    std::string p = dev_ + "/hidraw" + std::to_string(n);
    std::transform(p.begin(), p.end(), p.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return p;
}

std::string SimTree::locatedPath() const {
    std::string p = dev_ + "/hidraw@usb-0000:00:14.0-1/input2";
    std::transform(p.begin(), p.end(), p.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return p;
}

Peer& SimTree::addNode(unsigned n, const NodeSpec& node) {
    const std::string num = std::to_string(n);
    const std::string usb = sys_ + "/devices/pci0000:00/usb" + num + "/" + num + "-1";
    const std::string hid = usb + "/" + num + "-1:1.2/0003:2E5A:C5" + num + ".000" + num;
    fs::create_directories(hid + "/hidraw/hidraw" + num);
    if (!node.uevent.empty()) std::ofstream(hid + "/uevent") << node.uevent;
    if (node.has_descriptor) {
        std::ofstream(hid + "/report_descriptor", std::ios::binary)
            .write(reinterpret_cast<const char*>(node.descriptor.data()),
                   static_cast<std::streamsize>(node.descriptor.size()));
    }
    if (!node.product.empty()) std::ofstream(usb + "/product") << node.product << "\n";
    std::ofstream(usb + "/bcdDevice") << "1203\n";
    std::ofstream(usb + "/idVendor") << "2e5a\n";
    fs::create_directory_symlink("../../../0003:2E5A:C5" + num + ".000" + num,
                                 hid + "/hidraw/hidraw" + num + "/device");
    fs::create_directory_symlink(hid + "/hidraw/hidraw" + num, sys_ + "/class/hidraw/hidraw" + num);
    peers_.push_back(std::make_unique<Peer>(dev_ + "/hidraw" + num));
    if (!node.socket) ::unlink((dev_ + "/hidraw" + num).c_str());
    return *peers_.back();
}

void SimTree::removeNodeFiles(unsigned n) {
    std::error_code ec;
    fs::remove(sys_ + "/class/hidraw/hidraw" + std::to_string(n), ec);
    fs::remove(dev_ + "/hidraw" + std::to_string(n), ec);
}

}  // namespace hidtest
