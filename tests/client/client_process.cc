#include "client_process.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

extern char** environ;

namespace qvtest {

ScopedEnv::ScopedEnv(const char* name, const std::string& value) : name_(name) {
    const char* old = std::getenv(name);
    had_ = old != nullptr;
    if (had_) old_ = old;
    ::setenv(name, value.c_str(), 1);
}

ScopedEnv::~ScopedEnv() {
    if (had_) {
        ::setenv(name_.c_str(), old_.c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

TempDir::TempDir() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/qvclient-test-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = name.data();
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

ClientProcess::ClientProcess(const std::string& dataDir, const std::vector<std::string>& args,
                             const std::optional<RunAs>& as) {
    int inPipe[2];
    int outPipe[2];
    if (::pipe2(inPipe, O_CLOEXEC) != 0 || ::pipe2(outPipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    // Everything the child needs is built before fork: only async-signal-safe
    // calls may follow it in a threaded parent.
    std::vector<std::string> argStore{QVCLIENT_PATH};
    argStore.insert(argStore.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argStore) argv.push_back(a.data());
    argv.push_back(nullptr);
    // The client may decide to upload; a closed loopback port makes that fail
    // at once and keeps every test off the network.
    std::vector<std::string> envStore{"VANTSHRD_DIR=" + dataDir};
    bool hasUrl = false;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string entry(*e);
        hasUrl = hasUrl || entry.rfind("VANTSHRD_UPLOAD_URL=", 0) == 0;
        if (entry.rfind("VANTSHRD_DIR=", 0) != 0) envStore.push_back(std::move(entry));
    }
    if (!hasUrl) envStore.emplace_back("VANTSHRD_UPLOAD_URL=https://127.0.0.1:1/events");
    std::vector<char*> envp;
    for (auto& e : envStore) envp.push_back(e.data());
    envp.push_back(nullptr);

    // A client that has ended must show up as a failed write, not kill us.
    ::signal(SIGPIPE, SIG_IGN);
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        ::dup2(inPipe[0], STDIN_FILENO);
        ::dup2(outPipe[1], STDOUT_FILENO);
        if (as) {
            ::umask(as->umask);
            // Groups first: once the user id is gone, so is the right to
            // change them.
            if (::setgroups(1, &as->gid) != 0 || ::setresgid(as->gid, as->gid, as->gid) != 0 ||
                ::setresuid(as->uid, as->uid, as->uid) != 0) {
                ::_exit(126);
            }
        }
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    ::close(inPipe[0]);
    ::close(outPipe[1]);
    in_ = inPipe[1];
    out_ = outPipe[0];
}

ClientProcess::~ClientProcess() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    if (in_ >= 0) ::close(in_);
    if (out_ >= 0) ::close(out_);
}

bool ClientProcess::trySend(const std::string& text) {
    const char* p = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = ::write(in_, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        left -= static_cast<size_t>(n);
    }
    return true;
}

void ClientProcess::send(const std::string& text) {
    ASSERT_TRUE(trySend(text)) << "client stopped reading its input";
}

void ClientProcess::closeInput() {
    if (in_ >= 0) ::close(in_);
    in_ = -1;
}

int ClientProcess::wait(std::chrono::seconds limit) {
    closeInput();
    // Collect the output while waiting, so a chatty client cannot block on a
    // full pipe.
    auto end = std::chrono::steady_clock::now() + limit;
    ::fcntl(out_, F_SETFL, O_NONBLOCK);
    int status = 0;
    for (;;) {
        char chunk[4096];
        ssize_t n;
        while ((n = ::read(out_, chunk, sizeof chunk)) > 0) output_.append(chunk, n);
        pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_) break;
        if (std::chrono::steady_clock::now() > end) {
            ADD_FAILURE() << "client did not end within " << limit.count() << " s";
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    char chunk[4096];
    ssize_t n;
    while ((n = ::read(out_, chunk, sizeof chunk)) > 0) output_.append(chunk, n);
    pid_ = -1;
    return status;
}

RunResult runClient(const std::string& dataDir, const std::vector<std::string>& args,
                    const std::string& input, const std::optional<RunAs>& as) {
    ClientProcess client(dataDir, args, as);
    // A client may end before it has read everything (".EOF", "--version"):
    // its input then fails to take the rest, which is no error here.
    client.trySend(input);
    RunResult result;
    result.status = client.wait();
    result.output = client.output();
    return result;
}

bool exitedCleanly(int status) {
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool aborted(int status) {
    return WIFSIGNALED(status);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

std::vector<int> range(int first, int count) {
    std::vector<int> numbers;
    for (int n = first; n < first + count; ++n) numbers.push_back(n);
    return numbers;
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::vector<std::string> readLines(const std::string& path) {
    std::vector<std::string> lines;
    std::istringstream in(readFile(path));
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

std::vector<std::string> heldLines(const std::string& dataDir) {
    std::vector<std::string> lines = readLines(dataDir + "/qvevents.json.send");
    for (auto& line : readLines(dataDir + "/qvevents.json")) lines.push_back(std::move(line));
    return lines;
}

size_t countLines(const std::string& path) {
    std::string text = readFile(path);
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

namespace {

bool idleNow(const std::string& debugLog, size_t events) {
    std::string text = readFile(debugLog);
    // Every queued event traces "fg linebuffer: "; its soft request follows
    // within microseconds, which the second look below leaves time for.
    size_t queued = 0;
    for (size_t at = text.find("\nfg linebuffer: "); at != std::string::npos;
         at = text.find("\nfg linebuffer: ", at + 1)) {
        ++queued;
    }
    if (queued < events) return false;
    size_t last = text.rfind("\nbg ");
    return last != std::string::npos && text.compare(last, 13, "\nbg wait_for\n") == 0;
}

}  // namespace

bool waitWorkerIdle(const std::string& debugLog, size_t events, std::chrono::milliseconds limit) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (idleNow(debugLog, events)) {
            // Still idle a moment later: not just passing through the wait.
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
            if (idleNow(debugLog, events)) return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

bool matchesShape(const std::string& text, const std::string& shape) {
    if (text.size() != shape.size()) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        bool digit = c >= '0' && c <= '9';
        bool ok = shape[i] == 'h'   ? digit || (c >= 'a' && c <= 'f')
                  : shape[i] == 'd' ? digit
                  : shape[i] == 'b' ? digit || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                                          c == '+' || c == '/'
                                    : c == shape[i];
        if (!ok) return false;
    }
    return true;
}

std::string storedValue(const std::string& dataDir, const std::string& key) {
    try {
        auto store = nlohmann::json::parse(readFile(dataDir + "/registry.json"));
        auto it = store.find(key);
        return it != store.end() && it->is_string() ? it->get<std::string>() : "";
    } catch (const std::exception&) {
        return "";
    }
}

}  // namespace qvtest
