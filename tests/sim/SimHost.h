#pragma once

// Test support: a simulated machine in a temporary directory, reached the way
// the product reaches hardware, through Win32Device and the hidraw binding.

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Base/Subscriber.h"
#include "Linux/LinuxSystem.h"
#include "Machine.h"
#include "Windows/Win32Bus.h"
#include "Windows/Win32Device.h"

namespace simtest {

using Bytes = std::vector<std::uint8_t>;
using namespace std::chrono_literals;

// A Win32Bus whose platform is the simulated machine.
class SimBus : public devio::Win32Bus {
public:
    SimBus(std::string sys, std::string dev) : sys_(std::move(sys)), dev_(std::move(dev)) {}
    std::shared_ptr<devio::IWin32System> makeWin32System() override {
        return std::make_shared<devio::LinuxSystem>(sys_, dev_);
    }

private:
    std::string sys_, dev_;
};

// A simulated machine built from JSON text in its own temporary directory,
// removed again with the object.
class SimMachine {
public:
    explicit SimMachine(const std::string& json);
    ~SimMachine();

    devio_sim::Machine& machine() { return *machine_; }
    std::string command(const std::string& line);
    std::shared_ptr<SimBus> bus() const { return bus_; }
    // The interface path of a node, with the collection suffix of a node
    // that carries several collections ("#col1" ...).
    std::string path(int hidraw, const std::string& suffix = "") const;

private:
    std::string dir_;
    std::unique_ptr<devio_sim::Machine> machine_;
    std::shared_ptr<SimBus> bus_;
};

// One open interface as the host sees it: writes go through Win32Device,
// reads are queued by its read thread and taken by the test.
class Host : public devio::Subscriber<devio::IHardwareDevice::Read> {
public:
    Host(SimMachine& sim, const std::string& path);
    ~Host() override;

    bool open();
    // Writes without waiting for anything; false carries the error record.
    bool write(const Bytes& report);
    // The next report read, or nothing within `timeout`.
    std::optional<Bytes> next(std::chrono::milliseconds timeout = 3000ms);
    // Writes `request` and returns the next report read (empty if none).
    Bytes exchange(const Bytes& request);
    // Reports read so far and not taken; waits `settle` first.
    std::size_t pending(std::chrono::milliseconds settle = 100ms);
    // Whether the read path has failed (the node hung up), within `timeout`.
    bool readFails(std::chrono::milliseconds timeout = 3000ms);

    void onRead(std::vector<devio::Byte> report, bool, unsigned sys_error, unsigned) override;

private:
    std::shared_ptr<devio::Win32Device> device_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<Bytes> reads_;       // guarded by mutex_
    unsigned last_read_error_ = 0;  // guarded by mutex_
};

// Reports are written out in full in the tests, short ones 7 bytes and
// long ones 20, as the wire carries them, from text: hex pairs, and
// 'quoted' text for its ASCII bytes, e.g. "11 FF 02 1A 00 'MPM' 12";
// padded with zeros to `size` when that is given.
Bytes hex(const std::string& text, std::size_t size = 0);

// Points the library's platform bus at the machine, as the demo does.
void use_machine(SimMachine& sim);

// A machine of `count` corded mice, product ids 0xC080 upwards, each on a
// node (and in a port) of its own, plugged in or not.
std::string mice(int count, bool plugged);

}  // namespace simtest
