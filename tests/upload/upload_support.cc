#include "upload_support.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <sstream>

#include "timestamp.h"

namespace qvtest {

std::string stampAgo(double seconds) {
    auto ticks = static_cast<double>(qv::nowTicks()) - seconds * 1e7;
    return qv::timestampText(static_cast<std::uint64_t>(ticks));
}

void seedStore(const std::string& dataDir, const nlohmann::json& values) {
    std::filesystem::create_directories(dataDir);
    writeFile(dataDir + "/registry.json", values.dump() + "\n");
}

void patchStore(const std::string& dataDir, const nlohmann::json& patch) {
    nlohmann::json store = nlohmann::json::object();
    const std::string text = readFile(dataDir + "/registry.json");
    if (!text.empty()) store = nlohmann::json::parse(text);
    for (const auto& [key, value] : patch.items()) {
        if (value.is_null()) {
            store.erase(key);
        } else {
            store[key] = value;
        }
    }
    seedStore(dataDir, store);
}

std::string eventInput(const std::string& tag, int count, int first) {
    std::string input;
    for (int i = first; i < first + count; ++i) {
        nlohmann::json event = {{"tag", tag}, {"n", i}, {"pad", std::string(40 + i % 97, 'x')}};
        input += event.dump() + "\n";
    }
    return input;
}

std::vector<int> numbersOf(const std::vector<std::string>& lines, const std::string& tag) {
    std::vector<int> numbers;
    for (const auto& line : lines) {
        auto event = nlohmann::json::parse(line);
        if (event.value("tag", "") == tag) numbers.push_back(event["n"].get<int>());
    }
    return numbers;
}

bool traced(const std::string& log, const std::string& text) {
    std::istringstream in(log);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(text, 0) == 0) return true;
    }
    return false;
}

UploadBench::UploadBench(const IngestOptions& options)
    : data(dir.file("data")), log(dir.file("debug.log")), server(dir.file("ingest"), options) {
    server.becomeUploadTarget();
    // The header's device inventory reads a machine without devices, never
    // the real one's hidraw nodes and lock folder.
    const std::string noDevices = dir.file("no-devices");
    std::filesystem::create_directories(noDevices + "/class/hidraw");
    for (const char* name : {"DEVIO_SYSFS_ROOT", "DEVIO_DEV_ROOT", "DEVIO_LOCK_DIR"}) {
        ::setenv(name, noDevices.c_str(), 1);
    }
}

RunResult UploadBench::run(const std::string& input, const std::vector<std::string>& extra) {
    // Each run gets a log of its own, so traces are read per run.
    std::filesystem::remove(log);
    std::vector<std::string> args{"--debugout", log};
    args.insert(args.end(), extra.begin(), extra.end());
    return runClient(data, args, input);
}

}  // namespace qvtest
