#pragma once

// Test support: a Device over the real Linux binding (Win32Device on a socket
// node of a simulated machine), with a recorder of everything the device
// tells its subscribers.

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Device/Device.h"
#include "Features/Feature.h"
#include "SimHost.h"

namespace devtest {

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// One corded mouse with the default feature table: 0x0001 at index 1 ...
// 0x0020 at index 5.
extern const char* const kMouseMachine;
inline constexpr std::uint8_t kCookieIndex = 5;

// The engine's timing for tests about its logic rather than its values: a
// lost answer costs half a second, still far above any answer's round trip
// on a loaded machine; the backoff before a retry's ping doubles from 1 ms,
// without jitter; the number of passes is the product's.
inline constexpr devio::ExchangeTiming kQuickExchanges{
    .response_timeout_ms = 500, .ping_delay_ms = 1, .ping_jitter_ms = 0};

// What a Device reports, in order, with the time it was seen.
class Recorder : public devio::Subscriber<devio::IDevice::WriteReport>,
                 public devio::Subscriber<devio::IDevice::Report> {
public:
    struct Event {
        bool is_write;                    // onWriteReport, else onReport
        Bytes report;                     // empty for a failed exchange
        devio::ErrorCode err;             // writes
        unsigned value;                   // writes
        devio::IDevice::ReportType type;  // reads
        Clock::time_point at;
    };

    void attach(const std::shared_ptr<devio::IDevice>& device);
    void detach(const std::shared_ptr<devio::IDevice>& device);
    void onWriteReport(const std::vector<devio::Byte>& report, devio::ErrorCode err,
                       unsigned value) override;
    void onReport(const std::vector<devio::Byte>& report, unsigned sys_error, unsigned size,
                  devio::IDevice::ReportType type) override;

    std::vector<Event> events();
    // Writes that reached the hardware (non-empty reports).
    std::vector<Bytes> sent();
    // Error codes of failed exchanges, in order.
    std::vector<devio::ErrorCode> failures();
    // Waits until `n` reports of `type` were seen.
    bool wait_reports(devio::IDevice::ReportType type, std::size_t n,
                      std::chrono::milliseconds timeout = 3000ms);
    void clear();

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<Event> events_;
};

// A feature object that only records what the device hands its hooks.
class RecordingFeature : public devio::Feature {
public:
    using devio::Feature::Feature;
    struct Call {
        unsigned function, swid;
        Bytes params;
        bool notification;
    };
    std::vector<Call> calls();

protected:
    void onFeatureReport(int function, const std::vector<devio::Byte>& params) override;
    void onUnexpectedResponse(unsigned function, unsigned swid,
                              const std::vector<devio::Byte>& params) override;

private:
    std::mutex mutex_;
    std::vector<Call> calls_;
};

// The simulated mouse as a device behind a receiver (bus type 1) would
// present it: the only way to give the corded binding's device that bus type
// until receivers carry paired devices. Forwards everything else.
class BehindReceiver : public devio::IHardwareDevice,
                       public devio::Producer<devio::IHardwareDevice::Read>,
                       public devio::Producer<devio::IHardwareDevice::Write>,
                       public devio::Producer<devio::IHardwareDevice::Connect>,
                       public devio::Subscriber<devio::IHardwareDevice::Read>,
                       public std::enable_shared_from_this<BehindReceiver> {
public:
    explicit BehindReceiver(std::shared_ptr<devio::IHardwareDevice> inner)
        : inner_(std::move(inner)) {}
    bool connected() override { return inner_->connected(); }
    bool open() override { return inner_->open(); }
    void close() override { inner_->close(); }
    bool write(std::vector<devio::Byte> report, bool blocking) override {
        return inner_->write(std::move(report), blocking);
    }
    std::shared_ptr<devio::IHardwareBus> bus() override { return inner_->bus(); }
    std::string path() override { return inner_->path(); }
    int pid() override { return inner_->pid(); }
    std::string name() override { return inner_->name(); }
    int bustype() override { return 1; }
    bool verify_connection_following_timeout() override {
        return inner_->verify_connection_following_timeout();
    }
    void onRead(std::vector<devio::Byte> report, bool rewrite, unsigned sys,
                unsigned size) override;
    // The receiver tells that the device's link came up or went down.
    void link(bool up);

protected:
    using devio::Producer<devio::IHardwareDevice::Write>::on_subscribe;
    using devio::Producer<devio::IHardwareDevice::Connect>::on_subscribe;
    bool on_subscribe(devio::IHardwareDevice::Read* subscriber) override;

private:
    std::shared_ptr<devio::IHardwareDevice> inner_;
};

// A simulated mouse with one Device over it, on the product's timing unless
// told otherwise. A restart ends the Device as a program's exit does and
// makes a new one over the same hardware, as the program's next start would.
class DeviceRig {
public:
    explicit DeviceRig(bool feature_based = true, bool behind_receiver = false,
                       const char* machine = kMouseMachine,
                       const devio::ExchangeTiming& timing = {});
    ~DeviceRig();

    devio::Device& restart();
    void stop();
    // "fault mouse ..." and friends; fails the test on an error answer.
    void sim(const std::string& line);

    simtest::SimMachine machine;
    std::shared_ptr<devio::Win32Device> hw;
    std::shared_ptr<BehindReceiver> slot;
    std::shared_ptr<devio::Device> dev;
    std::shared_ptr<RecordingFeature> feature;
    Recorder rec;

private:
    bool feature_based_;
    devio::ExchangeTiming timing_;
};

// Root function 0 for feature id 0x0020: a constant query.
Bytes get_feature_0020();
// A root ping with `echo`; its answer must echo parameter 2.
Bytes ping_report(std::uint8_t echo, unsigned swid = 0);

// Milliseconds since `start`.
long long ms_since(Clock::time_point start);

}  // namespace devtest
