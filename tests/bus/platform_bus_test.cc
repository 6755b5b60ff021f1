// The platform bus on simulated machines through the real Linux binding:
// devices plugged, unplugged and replugged while the library runs, removal
// requests closing handles under running readers, registrations that the
// window thread does not answer, resume from a mock of logind on a private
// bus, and the bus's end.

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Base/ErrorRecord.h"
#include "Base/Subscriber.h"
#include "BluezMock.h"
#include "Device/IDevice.h"
#include "Linux/ChangeSources.h"
#include "Manager/CDevio.h"
#include "RunLoopHost.h"
#include "SimHost.h"
#include "TestSupport.h"

namespace simtest {
namespace {

using devio::cdevio;
using devio::IDevice;
using devio::IDeviceManager;
using devio::test::eventually;

constexpr unsigned kReceiversActive = 4;
constexpr unsigned kCordedActive = 5;

// Arrivals and removals in the order the manager tells them.
class Watcher : public devio::Subscriber<IDeviceManager::ArrivalRemoval> {
public:
    struct Event {
        bool arrival;
        std::string path;
        std::shared_ptr<IDevice> device;
    };
    void onDeviceArrival(const std::shared_ptr<IDevice>& d) override { add({true, d->path(), d}); }
    void onDeviceRemoval(const std::shared_ptr<IDevice>& d) override { add({false, d->path(), d}); }
    std::vector<Event> events() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    std::size_t count() { return events().size(); }

private:
    void add(Event e) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(std::move(e));
    }
    std::mutex mutex_;
    std::vector<Event> events_;
};

// The library as a pumping host runs it, started on an empty machine.
struct Library {
    explicit Library(SimMachine& sim) {
        use_machine(sim);
        EXPECT_TRUE(host.start());
        EXPECT_TRUE(cdevio.config_set(kCordedActive, true));
        EXPECT_TRUE(watcher.subscribe(cdevio.manager(), devio::DeliveryDirect));
    }
    ~Library() {
        watcher.unsubscribe(cdevio.manager());
        host.stop();
    }
    devio::RunLoopHost host;
    Watcher watcher;
};

// A device plugged after the start arrives, leaves when unplugged, and
// plugged again (into the same port, on another node) arrives as a new
// object with the same path.
TEST(PlatformBus, PlugUnplugAndReplugReachAPumpingHost) {
    SimMachine sim(mice(2, false));
    Library lib(sim);
    auto& w = lib.watcher;
    ASSERT_TRUE(cdevio.devices().empty());

    ASSERT_EQ(sim.command("plug m0"), "ok");
    ASSERT_TRUE(eventually([&] { return w.count() == 1; }));
    const auto first = w.events()[0];
    EXPECT_TRUE(first.arrival);
    EXPECT_EQ(first.device->pid(), 0xC080);
    EXPECT_EQ(sim.machine().hidrawOf("m0"), 0);

    ASSERT_EQ(sim.command("unplug m0"), "ok");
    ASSERT_TRUE(eventually([&] { return w.count() == 2; }));
    EXPECT_FALSE(w.events()[1].arrival);
    EXPECT_EQ(w.events()[1].path, first.path);
    // The manager tells the removal before it takes the device off its list.
    EXPECT_TRUE(eventually([] { return cdevio.devices().empty(); }));

    // m1 takes the node m0 had; m0 comes back on another.
    ASSERT_EQ(sim.command("plug m1"), "ok");
    ASSERT_EQ(sim.command("plug m0"), "ok");
    ASSERT_TRUE(eventually([&] { return w.count() == 4; }));
    EXPECT_EQ(sim.machine().hidrawOf("m0"), 1);
    const auto back = w.events()[3];
    EXPECT_TRUE(back.arrival);
    EXPECT_EQ(back.path, first.path);
    EXPECT_NE(back.device, first.device);
    EXPECT_NE(w.events()[2].path, first.path);
    EXPECT_TRUE(eventually([] { return cdevio.devices().size() == 2; }));
}

// A removal request closes a device's handle at once under its running
// reader, which lets go without the number being handed to another node
// meanwhile; the device's next write reopens at its path, or fails when
// nothing is there.
TEST(PlatformBus, RemovalRequestClosesTheHandleAndTheNextWriteReopensOrFails) {
    SimMachine sim(R"({"devices": [{"id": "mouse", "pid": "0xC08B"},
                                   {"id": "other", "pid": "0xC08C", "plugged": false}]})");
    auto found = sim.bus()->devices();
    ASSERT_EQ(found.size(), 1u);
    const std::string path = found[0]->path();
    Host mouse(sim, path);
    ASSERT_TRUE(mouse.open());
    const Bytes ping = hex("10 FF 00 1A", 7);
    ASSERT_FALSE(mouse.exchange(ping).empty());

    // The other device is opened while the mouse's reader still polls the
    // handle that the removal closed: it must not get the mouse's number.
    ASSERT_EQ(sim.command("unplug mouse"), "ok");
    ASSERT_EQ(sim.command("plug other"), "ok");
    ASSERT_TRUE(mouse.readFails());
    Host other(sim, sim.path(0));
    ASSERT_TRUE(other.open()) << devio::error_record().err;
    ASSERT_FALSE(other.exchange(ping).empty());
    EXPECT_EQ(mouse.pending(), 0u) << "the mouse's reader read another device";

    EXPECT_FALSE(mouse.write(ping));
    EXPECT_EQ(devio::error_record().err, devio::CreateFileFailed);
    ASSERT_EQ(sim.command("plug mouse"), "ok");
    EXPECT_TRUE(mouse.write(ping)) << devio::error_record().err;
    EXPECT_TRUE(mouse.next().has_value());
}

// Blocks the window thread where it takes its next message.
class HeldWindow : public devio::IDeviceChangeSystem {
public:
    explicit HeldWindow(std::shared_ptr<devio::IDeviceChangeSystem> inner)
        : inner_(std::move(inner)) {}
    void hold(bool on) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            held_ = on;
        }
        cv_.notify_all();
        // Wakes the thread from its wait so that it comes here.
        if (on) inner_->post_message(0, 0, 0);
    }
    bool create_window(devio::WindowProcedure p, std::uint32_t& e) override {
        return inner_->create_window(std::move(p), e);
    }
    int get_message(devio::WindowMessage& out) override {
        const int r = inner_->get_message(out);
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait(lock, [this] { return !held_; });
        return r;
    }
    std::intptr_t dispatch_message(const devio::WindowMessage& m) override {
        return inner_->dispatch_message(m);
    }
    std::intptr_t default_window_procedure(const devio::WindowMessage& m) override {
        return inner_->default_window_procedure(m);
    }
    void post_quit_message(int code) override { inner_->post_quit_message(code); }
    bool post_message(unsigned m, std::uintptr_t w, std::intptr_t l) override {
        return inner_->post_message(m, w, l);
    }
    bool send_message_timeout(unsigned m, std::uintptr_t w, std::intptr_t l, std::uint32_t t,
                              std::intptr_t& r) override {
        return inner_->send_message_timeout(m, w, l, t, r);
    }
    std::uintptr_t register_handle_notification(devio::PlatformHandle h,
                                                std::uint32_t& e) override {
        return inner_->register_handle_notification(h, e);
    }
    std::uintptr_t register_interface_notification(const std::string& c,
                                                   std::uint32_t& e) override {
        return inner_->register_interface_notification(c, e);
    }
    bool unregister_notification(std::uintptr_t n, std::uint32_t& e) override {
        return inner_->unregister_notification(n, e);
    }

private:
    std::shared_ptr<devio::IDeviceChangeSystem> inner_;
    std::mutex mutex_;
    std::condition_variable cv_;
    bool held_ = false;
};

class HeldBus : public SimBus {
public:
    using SimBus::SimBus;
    std::shared_ptr<devio::IDeviceChangeSystem> makeDeviceChangeSystem(
        const std::shared_ptr<devio::IWin32System>& system) override {
        window = std::make_shared<HeldWindow>(SimBus::makeDeviceChangeSystem(system));
        return window;
    }
    std::shared_ptr<HeldWindow> window;
};

// A registration that the window thread does not serve gives up after
// 5000 ms, and the device's open fails with the reason; once the thread
// runs again, so does the next open.
TEST(PlatformBus, UnansweredRegistrationFailsAfterFiveSeconds) {
    SimMachine sim(R"({"devices": [{"id": "mouse", "pid": "0xC08B"}]})");
    auto bus = std::make_shared<HeldBus>(sim.machine().sysfsRoot(), sim.machine().devRoot());
    std::shared_ptr<devio::IWin32System> system;
    bus->lazyStart(&system);
    auto device = std::make_shared<devio::Win32Device>(bus, system, sim.path(0), 0);

    bus->window->hold(true);
    testing::internal::CaptureStderr();
    const auto start = devio::test::Clock::now();
    EXPECT_FALSE(device->open());
    const auto waited = devio::test::ms_since(start);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_GE(waited, 4900);
    EXPECT_LT(waited, 9000);
    EXPECT_NE(log.find("-hid- SendMessageTimeout failed or timed out"), std::string::npos);
    EXPECT_NE(log.find("Win32Device::open exit (false, could not register device notification)"),
              std::string::npos);

    bus->window->hold(false);
    EXPECT_TRUE(device->open()) << devio::error_record().err;
    device->close();
}

// Counts the failed reads of the devices it reads.
class ReadFailures : public devio::Subscriber<devio::IHardwareDevice::Read> {
public:
    void onRead(std::vector<devio::Byte> report, bool, unsigned, unsigned) override {
        failures += report.empty();
    }
    std::atomic<int> failures{0};
};

// The bus's end joins its thread, and the thread lets go of every
// registration and tracked handle, also of devices still reading.
TEST(PlatformBus, EndOfTheBusLeavesNoThreadOrDescriptor) {
    SimMachine sim(R"({"devices": [{"id": "a", "pid": "0xC08B"}, {"id": "b", "pid": "0xC08C"}]})");
    const std::size_t fds = devio::test::directory_entries("/proc/self/fd");
    const std::size_t tasks = devio::test::directory_entries("/proc/self/task");
    {
        auto bus = std::make_shared<SimBus>(sim.machine().sysfsRoot(), sim.machine().devRoot());
        auto found = bus->devices();
        ASSERT_EQ(found.size(), 2u);
        ReadFailures reads;
        for (const auto& d : found) {
            ASSERT_TRUE(d->open());
            ASSERT_TRUE(reads.subscribe(d, devio::DeliveryDirect));
        }
        EXPECT_GE(devio::test::directory_entries("/proc/self/task"), tasks + 3)
            << "the bus's and two readers";
        bus.reset();
        // Their handles went with the bus: each reader's read failed once.
        EXPECT_TRUE(eventually([&] { return reads.failures == 2; }));
        for (const auto& d : found) reads.unsubscribe(d);
    }
    EXPECT_TRUE(
        eventually([&] { return devio::test::directory_entries("/proc/self/task") == tasks; }));
    EXPECT_EQ(devio::test::directory_entries("/proc/self/fd"), fds);
}

// A private system bus with a mock of logind: PrepareForSleep(false) reaches
// the manager as onPowerChange(false): a receiver reads its paired devices
// again, since pairings may have changed while the machine slept, and each
// device confirms the configuration it may have lost.
TEST(PlatformBus, ResumeFromLogindReachesTheManagerAndTheReceivers) {
    bttest::PrivateSystemBus bus;
    ASSERT_TRUE(bus.ok()) << "no private system bus (dbus-daemon)";
    const pid_t mock = ::fork();
    if (mock == 0) {
        ::execl("/usr/bin/python3", "python3", "-m", "dbusmock", "--system", "--template", "logind",
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    const std::string busctl = "busctl --address=" + bus.address();
    const std::string emit = busctl +
                             " call org.freedesktop.login1 /org/freedesktop/login1 "
                             "org.freedesktop.DBus.Mock EmitSignal sssav "
                             "org.freedesktop.login1.Manager PrepareForSleep b 1 b ";
    ASSERT_TRUE(eventually(
        [&] {
            return std::system(
                       (busctl + " status org.freedesktop.login1 >/dev/null 2>&1").c_str()) == 0;
        },
        std::chrono::milliseconds(20000)))
        << "the logind mock did not come up";

    SimMachine sim(R"({"receivers": [{"id": "dongle", "pid": "0xA105",
        "devices": [{"id": "kb", "qid": "0x4B21", "slot": 1}]}]})");
    const std::string enumeration = "===> Starting receiver enumeration...";
    const std::string confirmation = "Device::confirm_configuration(pid = 0x4b21) begin";
    const auto count = [](const std::string& text, const std::string& what) {
        std::size_t n = 0;
        for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
        return n;
    };
    std::string log;
    const auto read_log = [&] {
        log += testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
    };
    testing::internal::CaptureStderr();
    {
        ASSERT_TRUE(cdevio.config_set(kReceiversActive, true));
        Library lib(sim);
        EXPECT_TRUE(eventually([&] { return cdevio.devices().size() == 2; }));
        read_log();
        const std::size_t before = count(log, enumeration);
        const std::size_t confirmed = count(log, confirmation);
        EXPECT_GE(before, 1u);
        EXPECT_EQ(std::system((emit + "true").c_str()), 0);
        EXPECT_EQ(std::system((emit + "false").c_str()), 0);
        // The log is the only witness of the manager's resume handling.
        EXPECT_TRUE(eventually([&] {
            read_log();
            return log.find("DeviceManager::onPowerChange(standBy=0)") != std::string::npos &&
                   count(log, enumeration) > before && count(log, confirmation) > confirmed;
        }));
        EXPECT_EQ(cdevio.devices().size(), 2u);
        for (const auto& e : lib.watcher.events()) EXPECT_TRUE(e.arrival) << e.path;
    }
    log += testing::internal::GetCapturedStderr();
    ::kill(mock, SIGTERM);
    ::waitpid(mock, nullptr, 0);
    EXPECT_NE(log.find("PBT_APMRESUMEAUTOMATIC"), std::string::npos);
    // Going to sleep is not told.
    EXPECT_EQ(log.find("DeviceManager::onPowerChange(standBy=1)"), std::string::npos);
    EXPECT_EQ(log.find("no resume events"), std::string::npos);
}

// The real machine's source: where a udev monitor can be opened, a bus on
// /sys starts with it and enumerates.
TEST(PlatformBus, UdevMonitorWhereTheMachineAllowsIt) {
    int err = 0;
    auto monitor = devio::linux_hid::openUdevMonitor(err);
    if (!monitor) GTEST_SKIP() << "no udev monitor here: " << std::strerror(err);
    ::setenv("DEVIO_DEVICECHANGE", "udev", 1);
    auto bus = std::make_shared<SimBus>("/sys", "/dev");
    testing::internal::CaptureStderr();
    devio::set_error(devio::InternalError);
    const auto found = bus->devices();
    const std::string log = testing::internal::GetCapturedStderr();
    ::unsetenv("DEVIO_DEVICECHANGE");
    EXPECT_TRUE(!found.empty() || devio::error_record().err == devio::Success);
    EXPECT_EQ(log.find("RegisterDeviceNotification_worker failed"), std::string::npos) << log;
}

}  // namespace
}  // namespace simtest
