#pragma once

// Test support: one simulated device that a program meets at several
// starts. Each start makes a new Device over the same hardware path, so a
// cache file written at one start is read at the next; each stop ends the
// Device as a program's exit does.

#include <string>

#include "DeviceRig.h"

namespace loadtest {

using devtest::Bytes;

// A mouse with a dozen features of assorted versions and flags, running the
// first of two firmware entities.
extern const char* const kDozenFeatures;

class Session : public devtest::DeviceRig {
public:
    explicit Session(const char* machine_json = kDozenFeatures,
                     const devio::ExchangeTiming& timing = {});
    ~Session();

    // A new Device, which reads the cache file when `with_cache`; the
    // recorder starts empty.
    devio::Device& start(bool with_cache = true);
    // Where this device's cache file lives.
    std::string cache_file() const;
    // Reports that reached the hardware since `start` (or the last clear).
    std::vector<Bytes> sent() { return rec.sent(); }

    std::string cache_dir;  // with its trailing separator
};

// The whole file, or "" when there is none.
std::string read_file(const std::string& name);
void write_file(const std::string& name, const std::string& text);

}  // namespace loadtest
