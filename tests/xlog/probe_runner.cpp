#include "probe_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace xlogtest {

namespace fs = std::filesystem;

namespace {

std::string readAll(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

int counter = 0;

}  // namespace

long ProbeResult::value(const std::string& key) const {
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);)
        if (line.rfind(key + "=", 0) == 0) return std::stol(line.substr(key.size() + 1));
    return -1;
}

size_t ProbeResult::countLines(const std::string& containing) const {
    return static_cast<size_t>(std::count_if(
        logLines.begin(), logLines.end(),
        [&](const std::string& line) { return line.find(containing) != std::string::npos; }));
}

ProbeRunner::ProbeRunner() {
    dir_ = fs::temp_directory_path() /
           ("xlog_probe_" + std::to_string(getpid()) + "_" + std::to_string(++counter));
    fs::remove_all(dir_);
    fs::create_directories(dir_ / "config" / "vantrel");
}

ProbeRunner::~ProbeRunner() {
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
}

void ProbeRunner::writeSettings(const std::string& text) {
    std::ofstream(dir_ / "config" / "vantrel" / "devio.conf") << text;
}

ProbeResult ProbeRunner::run(const std::vector<std::string>& args,
                             const std::map<std::string, std::string>& env) {
    std::vector<std::string> environment;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string entry(*e);
        bool ours = entry.rfind("DEVIO_", 0) == 0 || entry.rfind("TMPDIR=", 0) == 0 ||
                    entry.rfind("XDG_CONFIG_HOME=", 0) == 0;
        if (!ours) environment.push_back(entry);
    }
    if (env.count("TMPDIR") == 0) environment.push_back("TMPDIR=" + dir_.string());
    environment.push_back("XDG_CONFIG_HOME=" + (dir_ / "config").string());
    for (const auto& [name, value] : env) environment.push_back(name + "=" + value);

    std::vector<std::string> argv{program_};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> argp, envp;
    for (auto& a : argv) argp.push_back(a.data());
    argp.push_back(nullptr);
    for (auto& e : environment) envp.push_back(e.data());
    envp.push_back(nullptr);

    fs::path outPath = dir_ / "stdout.txt";
    fs::path errPath = dir_ / "stderr.txt";
    pid_t pid = 0;
    if (runDir_.empty()) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0600);
        posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0600);
        int rc = posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) throw std::runtime_error("cannot start the probe");
    } else {
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        pid = fork();
        if (pid == 0) {
            // The bind mount is seen by this child alone.
            if (unshare(CLONE_NEWNS) != 0 ||
                mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                mount(runDir_.c_str(), "/run", nullptr, MS_BIND, nullptr) != 0)
                _exit(cannotMountRun);
            dup2(out, 1);
            dup2(err, 2);
            execve(argp[0], argp.data(), envp.data());
            _exit(127);
        }
        close(out);
        close(err);
        if (pid < 0) throw std::runtime_error("cannot start the probe");
    }
    // A probe that hangs fails its test instead of holding up the suite.
    constexpr auto patience = std::chrono::seconds(120);
    auto deadline = std::chrono::steady_clock::now() + patience;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "the probe did not finish; killing it";
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }

    ProbeResult result;
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = readAll(outPath);
    result.err = readAll(errPath);
    for (const char* report :
         {"ThreadSanitizer", "AddressSanitizer", "LeakSanitizer", "runtime error:"})
        if (result.err.find(report) != std::string::npos)
            ADD_FAILURE() << "the probe reported:\n" << result.err;
    if (fs::exists(logFolder())) {
        for (const auto& entry : fs::directory_iterator(logFolder()))
            result.logFiles.push_back(entry.path());
        std::sort(result.logFiles.begin(), result.logFiles.end());
        for (const auto& file : result.logFiles) {
            std::ifstream in(file);
            for (std::string line; std::getline(in, line);) result.logLines.push_back(line);
        }
    }
    return result;
}

}  // namespace xlogtest
