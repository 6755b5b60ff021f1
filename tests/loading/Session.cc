#include "Session.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "Device/FeatureCacheFile.h"

namespace loadtest {

const char* const kDozenFeatures = R"({"devices": [{"id": "mouse", "name": "Test Mouse",
    "pid": "0xC08B",
    "features": ["0x0001", {"id": "0x0003", "version": 2}, {"id": "0x0005", "version": 1},
        "0x0007", "0x0020", {"id": "0x1000", "version": 1, "hidden": true}, "0x1D4B",
        {"id": "0x1F1F", "obsolete": true}, {"id": "0x1814", "version": 3, "engineering": true},
        {"id": "0x2100", "version": 1}, {"id": "0x2201", "hidden": true, "engineering": true},
        {"id": "0x1B04", "version": 5, "obsolete": true, "hidden": true}],
    "entities": [{"type": 0, "prefix": "MPM", "version": "0x1203", "build": "0x0041", "rdnf": 1},
        {"type": 1, "prefix": "BOT", "version": "0x0102", "build": "0x0007", "rdnf": 0}],
    "entity_info": {"unit_id": "0x1234ABCD"}}]})";

Session::Session(const char* machine_json, const devio::ExchangeTiming& timing)
    : DeviceRig(false, false, machine_json, timing) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/feature-cache-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
    cache_dir = pattern + "/";
}

Session::~Session() {
    stop();
    std::error_code ec;
    std::filesystem::remove_all(cache_dir, ec);
}

devio::Device& Session::start(bool with_cache) {
    restart();
    if (with_cache) dev->persistent_data_directory(cache_dir);
    return *dev;
}

std::string Session::cache_file() const {
    return devio::feature_cache::file_name(cache_dir, static_cast<unsigned>(hw->pid()), hw->path());
}

std::string read_file(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void write_file(const std::string& name, const std::string& text) {
    std::ofstream out(name, std::ios::binary | std::ios::trunc);
    out << text;
}

}  // namespace loadtest
