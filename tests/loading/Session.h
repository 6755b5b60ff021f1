#pragma once

// Test support: one simulated device that a program meets at several
// starts. Each start makes a new Device over the same hardware path, so a
// cache file written at one start is read at the next; each stop ends the
// Device as a program's exit does.

#include <memory>
#include <string>

#include "Device.h"
#include "DeviceRig.h"
#include "SimHost.h"

namespace loadtest {

using devtest::Bytes;

// A mouse with a dozen features of assorted versions and flags, running the
// first of two firmware entities.
extern const char* const kDozenFeatures;

class Session {
public:
    explicit Session(const char* machine_json = kDozenFeatures);
    ~Session();

    // A new Device over the hardware, which reads the cache file when
    // `with_cache`; the recorder starts empty.
    devio::Device& start(bool with_cache = true);
    // Drops the Device; a dirty cache is written as it goes.
    void stop();
    // A control command to the simulator; fails the test on an error answer.
    void sim(const std::string& line);

    // Where this device's cache file lives.
    std::string cache_file() const;
    // Reports that reached the hardware since `start` (or the last clear).
    std::vector<Bytes> sent() { return rec->sent(); }

    simtest::SimMachine machine;
    std::shared_ptr<devio::Win32Device> hw;
    std::shared_ptr<devio::Device> dev;
    std::unique_ptr<devtest::Recorder> rec;
    std::string cache_dir;  // with its trailing separator
};

// The whole file, or "" when there is none.
std::string read_file(const std::string& name);
void write_file(const std::string& name, const std::string& text);

}  // namespace loadtest
