#include "ingest_process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "client_process.h"

namespace qvtest {

namespace fs = std::filesystem;

namespace {

pid_t spawn(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    return pid;
}

}  // namespace

int runToEnd(const std::vector<std::string>& args) {
    const pid_t pid = spawn(args);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return status;
}

IngestServer::IngestServer(const std::string& dir, const IngestOptions& options)
    : dir_(dir), certDir_(dir + "/certs") {
    fs::create_directories(dir_);
    const std::string portFile = dir_ + "/port";
    fs::remove(portFile);
    pid_ =
        spawn({PYTHON3_PATH, INGEST_SERVER_PY, "--cert-dir", certDir_, "--store", dir_ + "/store",
               "--port-file", portFile, "--control", dir_ + "/control.json", "--mode", options.mode,
               "--status", std::to_string(options.status), "--reply", options.reply});
    bool ready = waitFor([&] { return fs::exists(portFile); }, std::chrono::seconds(30));
    if (!ready) throw std::runtime_error("ingest server did not start");
    port_ = std::stoi(readFile(portFile));
}

IngestServer::~IngestServer() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }
}

std::string IngestServer::url() const {
    return "https://127.0.0.1:" + std::to_string(port_) + "/events";
}

void IngestServer::control(const nlohmann::json& behaviour) {
    const std::string path = dir_ + "/control.json";
    writeFile(path + ".tmp", behaviour.dump());
    fs::rename(path + ".tmp", path);
}

std::vector<StoredUpload> IngestServer::uploads() const {
    std::vector<StoredUpload> result;
    const fs::path store = dir_ + "/store";
    if (!fs::exists(store)) return result;
    for (const auto& entry : fs::directory_iterator(store)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind("upload-", 0) != 0 || name.find('.') != std::string::npos) continue;
        StoredUpload upload;
        upload.connection = std::stoi(name.substr(7));
        upload.meta = nlohmann::json::parse(readFile(entry.path() / "meta.json"));
        upload.headerText = readFile(entry.path() / "header.json");
        upload.lines = readLines(entry.path() / "events.txt");
        result.push_back(std::move(upload));
    }
    std::sort(result.begin(), result.end(),
              [](const auto& a, const auto& b) { return a.connection < b.connection; });
    return result;
}

std::string IngestServer::connections() const {
    return readFile(dir_ + "/store/connections.log");
}

void IngestServer::becomeUploadTarget() const {
    ::setenv("VANTSHRD_UPLOAD_URL", url().c_str(), 1);
    ::setenv("VANTSHRD_CA_FILE", caFile().c_str(), 1);
    // Only loopback is ever contacted, and never through a proxy.
    for (const char* name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
        ::unsetenv(name);
    }
}

void makeForeignCertificates(const std::string& dir) {
    if (!exitedCleanly(
            runToEnd({PYTHON3_PATH, INGEST_SERVER_PY, "--cert-dir", dir, "--make-certs"}))) {
        throw std::runtime_error("certificate creation failed");
    }
}

}  // namespace qvtest
