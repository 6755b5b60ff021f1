// devio-sim: builds a simulated machine in a directory and serves it until
// told to stop, taking run-time commands on standard input and on a control
// socket in that directory.

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

#include "Control.h"
#include "DescriptionJson.h"
#include "Machine.h"

namespace {

using devio_sim::Machine;

constexpr const char* kUsage =
    "usage: devio-sim serve MACHINE.json DIR   build the machine in DIR and serve it\n"
    "       devio-sim ctl DIR COMMAND...        send one command to a serving machine\n";

std::string controlPath(const std::string& dir) {
    return dir + "/control";
}

int listenControl(const std::string& path) {
    sockaddr_un addr{};
    if (path.size() >= sizeof addr.sun_path) return -1;
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    ::unlink(path.c_str());
    if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(fd, 8) != 0) {
        if (fd >= 0) ::close(fd);
        return -1;
    }
    return fd;
}

// Each answer ends with an empty line, so that a client knows where it ends.
void answer(int fd, Machine& machine, const std::string& line, bool& quit) {
    std::string reply;
    if (line == "quit") {
        quit = true;
        reply = "ok";
    } else {
        reply = devio_sim::execute(machine, line);
    }
    reply += "\n\n";
    [[maybe_unused]] const auto n = ::write(fd, reply.data(), reply.size());
}

int serve(const std::string& machine_file, const std::string& dir) {
    // A control client that has gone must not end the tool.
    ::signal(SIGPIPE, SIG_IGN);
    // Signals are taken by the main loop, so they are blocked before the
    // serving thread starts, which inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    std::ifstream in(machine_file);
    std::stringstream text;
    text << in.rdbuf();
    if (!in) {
        std::cerr << "devio-sim: cannot read " << machine_file << "\n";
        return 1;
    }
    devio_sim::MachineDescription description;
    try {
        description = devio_sim::parseMachine(text.str());
    } catch (const std::exception& e) {
        std::cerr << "devio-sim: " << machine_file << ": " << e.what() << "\n";
        return 1;
    }
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    const std::string root = std::filesystem::absolute(dir, ec).lexically_normal().string();
    Machine machine(std::move(description), root);
    if (std::string e = machine.start(); !e.empty()) {
        std::cerr << "devio-sim: " << e << "\n";
        return 1;
    }
    const int signal_fd = ::signalfd(-1, &signals, SFD_CLOEXEC);
    const int control_fd = listenControl(controlPath(root));
    if (control_fd < 0) {
        std::cerr << "devio-sim: cannot listen on " << controlPath(root) << "\n";
        return 1;
    }
    std::cout << "export DEVIO_SYSFS_ROOT=" << machine.sysfsRoot() << "\n"
              << "export DEVIO_DEV_ROOT=" << machine.devRoot() << "\n"
              << "# control: " << controlPath(root) << "\n"
              << machine.list() << std::flush;

    std::map<int, std::string> clients;  // control connections and what they sent so far
    std::string stdin_pending;
    bool stdin_open = true, quit = false;
    // Answers every whole line received so far, on `reply_fd`.
    const auto serveLines = [&](std::string& pending, int reply_fd) {
        for (std::size_t nl; !quit && (nl = pending.find('\n')) != std::string::npos;) {
            const std::string line = pending.substr(0, nl);
            pending.erase(0, nl + 1);
            answer(reply_fd, machine, line, quit);
        }
    };
    while (!quit) {
        std::vector<pollfd> fds{{signal_fd, POLLIN, 0}, {control_fd, POLLIN, 0}};
        if (stdin_open) fds.push_back({STDIN_FILENO, POLLIN, 0});
        for (const auto& c : clients) fds.push_back({c.first, POLLIN, 0});
        if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) break;
        if (fds[0].revents & POLLIN) break;
        if (fds[1].revents & POLLIN) {
            const int c = ::accept4(control_fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (c >= 0) clients[c];
        }
        for (std::size_t i = 2; i < fds.size() && !quit; ++i) {
            if (fds[i].revents == 0) continue;
            const int fd = fds[i].fd;
            char buf[1024];
            const ssize_t n = ::read(fd, buf, sizeof buf);
            if (n <= 0) {
                // Without a terminal the tool keeps serving: stop it with a
                // signal or "quit" on the control socket.
                if (fd == STDIN_FILENO) {
                    stdin_open = false;
                } else {
                    ::close(fd);
                    clients.erase(fd);
                }
                continue;
            }
            std::string& pending = fd == STDIN_FILENO ? stdin_pending : clients[fd];
            pending.append(buf, static_cast<std::size_t>(n));
            serveLines(pending, fd == STDIN_FILENO ? STDOUT_FILENO : fd);
        }
    }
    for (const auto& c : clients) ::close(c.first);
    ::close(control_fd);
    ::unlink(controlPath(root).c_str());
    return 0;
}

int control(const std::string& dir, const std::string& line) {
    sockaddr_un addr{};
    const std::string path = controlPath(dir);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        std::cerr << "devio-sim: no machine serves " << dir << "\n";
        return 1;
    }
    const std::string request = line + "\n";
    [[maybe_unused]] const auto w = ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    std::string reply;
    char buf[1024];
    while (reply.size() < 2 || reply.compare(reply.size() - 2, 2, "\n\n") != 0) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0) break;
        reply.append(buf, static_cast<std::size_t>(n));
    }
    ::close(fd);
    while (!reply.empty() && reply.back() == '\n') reply.pop_back();
    std::cout << reply << "\n";
    return reply.compare(0, 2, "ok") == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string verb = argc > 1 ? argv[1] : "";
    if (verb == "serve" && argc == 4) return serve(argv[2], argv[3]);
    if (verb == "ctl" && argc >= 4) {
        std::string line;
        for (int i = 3; i < argc; ++i) line += std::string(i > 3 ? " " : "") + argv[i];
        return control(argv[2], line);
    }
    std::cerr << kUsage;
    return 2;
}
