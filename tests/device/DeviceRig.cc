#include "DeviceRig.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "Manager/CDevio.h"

namespace devtest {

const char* const kMouseMachine = R"({"devices": [{"id": "mouse", "name": "Test Mouse",
    "pid": "0xC08B", "cookie": "0x0000"}]})";

void Recorder::attach(const std::shared_ptr<devio::IDevice>& device) {
    ASSERT_TRUE(devio::Subscriber<devio::IDevice::WriteReport>::subscribe(device, 1));
    ASSERT_TRUE(devio::Subscriber<devio::IDevice::Report>::subscribe(device, 1));
}

void Recorder::detach(const std::shared_ptr<devio::IDevice>& device) {
    devio::Subscriber<devio::IDevice::WriteReport>::unsubscribe(device);
    devio::Subscriber<devio::IDevice::Report>::unsubscribe(device);
}

void Recorder::onWriteReport(const std::vector<devio::Byte>& report, devio::ErrorCode err,
                             unsigned value) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back({true, report, err, value, devio::IDevice::ReportIgnored, Clock::now()});
    cv_.notify_all();
}

void Recorder::onReport(const std::vector<devio::Byte>& report, unsigned, unsigned,
                        devio::IDevice::ReportType type) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back({false, report, devio::Success, 0, type, Clock::now()});
    cv_.notify_all();
}

std::vector<Recorder::Event> Recorder::events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

std::vector<Bytes> Recorder::sent() {
    std::vector<Bytes> out;
    for (const Event& e : events()) {
        if (e.is_write && !e.report.empty() && e.err == devio::Success) out.push_back(e.report);
    }
    return out;
}

std::vector<devio::ErrorCode> Recorder::failures() {
    std::vector<devio::ErrorCode> out;
    for (const Event& e : events()) {
        if (e.is_write && e.report.empty()) out.push_back(e.err);
    }
    return out;
}

bool Recorder::wait_reports(devio::IDevice::ReportType type, std::size_t n,
                            std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] {
        std::size_t seen = 0;
        for (const Event& e : events_) seen += !e.is_write && e.type == type;
        return seen >= n;
    });
}

void Recorder::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.clear();
}

void RecordingFeature::onFeatureReport(int function, const std::vector<devio::Byte>& params) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back({static_cast<unsigned>(function), 0, params, true});
}

void RecordingFeature::onUnexpectedResponse(unsigned function, unsigned swid,
                                            const std::vector<devio::Byte>& params) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back({function, swid, params, false});
}

std::vector<RecordingFeature::Call> RecordingFeature::calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
}

void BehindReceiver::onRead(std::vector<devio::Byte> report, bool rewrite, unsigned sys,
                            unsigned size) {
    devio::Producer<devio::IHardwareDevice::Read>::produce(
        [report, rewrite, sys, size](devio::IHardwareDevice::Read* s) {
            s->onRead(report, rewrite, sys, size);
        },
        devio::event_names::BraidDeviceRead.onRead);
}

void BehindReceiver::link(bool up) {
    auto self = std::static_pointer_cast<devio::IHardwareDevice>(shared_from_this());
    devio::Producer<devio::IHardwareDevice::Connect>::produce(
        [self, up](devio::IHardwareDevice::Connect* s) {
            if (up) {
                s->onConnect(self);
            } else {
                s->onDisconnect(self);
            }
        },
        up ? "BraidDevice::Connect::onConnect" : "BraidDevice::Connect::onDisconnect");
}

bool BehindReceiver::on_subscribe(devio::IHardwareDevice::Read* /*subscriber*/) {
    return devio::Subscriber<devio::IHardwareDevice::Read>::subscribe(inner_, 1);
}

namespace {
// Devices of one product share a machine-wide lock, as they must; but the
// test processes that ctest runs side by side each simulate their own
// machine, so each gets its own lock directory. A child process started
// from a test inherits it, and so shares the lock as a second program would.
void use_own_lock_directory() {
    static const bool done = [] {
        const char* base = std::getenv("DEVIO_LOCK_DIR");
        if (base == nullptr) base = std::getenv("TMPDIR");
        const std::string dir =
            std::string(base != nullptr ? base : "/tmp") + "/locks-" + std::to_string(::getpid());
        ::mkdir(dir.c_str(), 0700);
        ::setenv("DEVIO_LOCK_DIR", dir.c_str(), 1);
        return true;
    }();
    (void)done;
}
}  // namespace

DeviceRig::DeviceRig(bool feature_based, bool behind_receiver, const char* description,
                     const devio::ExchangeTiming& timing)
    : machine(description), feature_based_(feature_based), timing_(timing) {
    use_own_lock_directory();
    // The bus makes the device, as at arrival: its path is then the one
    // that the bus recognises when asked whether the device still exists.
    auto found = machine.bus()->devices();
    if (found.size() != 1) throw std::runtime_error("expected one simulated device");
    hw = std::dynamic_pointer_cast<devio::Win32Device>(found[0]);
    if (behind_receiver) slot = std::make_shared<BehindReceiver>(hw);
    restart();
}

DeviceRig::~DeviceRig() {
    stop();
}

devio::Device& DeviceRig::restart() {
    stop();
    dev = slot ? std::make_shared<devio::Device>(slot, timing_)
               : std::make_shared<devio::Device>(hw, timing_);
    dev->initDevice(devio::cdevio.manager());
    if (feature_based_) {
        feature = std::make_shared<RecordingFeature>(0x0020, kCookieIndex, dev);
        dev->store_feature(kCookieIndex, feature);
    }
    rec.clear();
    rec.attach(dev);
    // What the manager's subscription does at arrival: the read path starts,
    // so that notifications flow before the first command.
    hw->open();
    dev->connected();
    return *dev;
}

void DeviceRig::stop() {
    if (!dev) return;
    dev->uninitDevice();
    rec.detach(dev);
    dev.reset();
}

void DeviceRig::sim(const std::string& line) {
    const std::string answer = machine.command(line);
    ASSERT_EQ(answer.rfind("ok", 0), 0u) << line << ": " << answer;
}

Bytes get_feature_0020() {
    return {0x10, 0xFF, 0x00, 0x00, 0x00, 0x20, 0x00};
}

Bytes ping_report(std::uint8_t echo, unsigned swid) {
    return {0x10, 0xFF, 0x00, static_cast<std::uint8_t>(0x10 | swid), 0x00, 0x00, echo};
}

long long ms_since(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

}  // namespace devtest
