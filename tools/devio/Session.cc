#include "Session.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "Base/ErrorRecord.h"
#include "Manager/CDevio.h"

namespace devio_tool {

namespace {

// The library's configuration items.
constexpr unsigned kBluetooth = 0;
constexpr unsigned kBle = 1;
constexpr unsigned kReceivers = 4;
constexpr unsigned kCorded = 5;

void setDefault(const char* name, const char* value) {
    ::setenv(name, value, 0);
}

}  // namespace

void prepareLogging(const Options& options) {
    if (!options.verbose) return;
    // Standard output of the library is the tool's standard error (see main),
    // so bit 0 puts the log in the terminal without mixing it with results.
    setDefault("DEVIO_LOGGINGOUTPUT", "7");
    setDefault("DEVIO_LOGGINGLEVEL", "3");
    setDefault("DEVIO_LOGTAGLEVEL", "3");
    // Any filter at all lifts the default that hides every tagged line.
    setDefault("DEVIO_LOGTAGS", "+api");
}

std::string cacheDirectory(const Options& options) {
    if (!options.cache_dir.empty()) return options.cache_dir;
    if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg && xdg[0] == '/') {
        return std::string(xdg) + "/devio";
    }
    if (const char* home = std::getenv("HOME"); home && home[0] != '\0') {
        return std::string(home) + "/.cache/devio";
    }
    return "";
}

void configureLibrary(const Options& options) {
    devio::cdevio.config_set(kCorded, true);
    devio::cdevio.config_set(kReceivers, true);
    devio::cdevio.config_set(kBluetooth, options.bluetooth);
    devio::cdevio.config_set(kBle, options.ble);
    // A cache folder that cannot be made only costs a cold start.
    if (const std::string dir = cacheDirectory(options); !dir.empty()) {
        std::error_code ec;
        // Made private, as the cache describes the user's devices; a folder
        // the user named and that exists keeps its mode.
        if (std::filesystem::create_directories(dir, ec)) ::chmod(dir.c_str(), S_IRWXU);
        if (std::filesystem::is_directory(dir, ec)) {
            try {
                devio::cdevio.persistent_data_directory(dir);
            } catch (...) {
                // A damaged cache file: the devices are asked afresh, and
                // the next write replaces it.
            }
        }
    }
}

bool presentDevices(std::vector<std::shared_ptr<devio::IDevice>>& devices) {
    devio::error_record() = devio::ErrorRecord{};
    devices = devio::cdevio.devices();
    return !devices.empty() || devio::error_record().err == devio::Success;
}

}  // namespace devio_tool
