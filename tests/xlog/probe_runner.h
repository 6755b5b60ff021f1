#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

// Runs xlog_probe in a fresh process with its own temp folder and settings
// folder, and collects what it left behind.

namespace xlogtest {

struct ProbeResult {
    int exitCode = -1;
    std::string out;  // standard output
    std::string err;  // standard error, the debug channel
    std::vector<std::filesystem::path> logFiles;
    std::vector<std::string> logLines;  // of all log files, in file order

    // The value of a "key=value" line on standard output, or -1.
    long value(const std::string& key) const;
    size_t countLines(const std::string& containing) const;
};

class ProbeRunner {
public:
    ProbeRunner();
    ~ProbeRunner();

    const std::filesystem::path& dir() const { return dir_; }
    std::filesystem::path logFolder() const { return dir_ / "xlog_vantrel"; }

    // Writes the settings file the probe will read.
    void writeSettings(const std::string& text);

    // Runs `path` instead of xlog_probe.
    void useProgram(std::string path) { program_ = std::move(path); }

    // Runs the probe in a mount namespace of its own with `dir` mounted over
    // /run, so that a socket at dir/systemd/journal/socket stands in for the
    // systemd journal. Where the namespace cannot be made (not root), the
    // run ends with exit code `cannotMountRun`.
    void mountOverRun(std::filesystem::path dir) { runDir_ = std::move(dir); }
    static constexpr int cannotMountRun = 77;

    // `env` adds variables (DEVIO_* and the like) to a clean environment.
    ProbeResult run(const std::vector<std::string>& args,
                    const std::map<std::string, std::string>& env = {});

private:
    std::filesystem::path dir_;
    std::string program_ = XLOG_PROBE;
    std::filesystem::path runDir_;
};

}  // namespace xlogtest
