// Paired Bluetooth devices over a simulated machine: the real stack (the
// pairing filter over the combiner over the platform bus, and the manager
// above it where a story needs it) with a Bluetooth monitor that the story
// drives through RadioWorld. The manager's platform bus is the simulated
// machine's, reporting the monitor as a machine with a Bluetooth stack
// does; the manager inserts the pairing filter itself. Every story runs in
// two worlds: the test's own monitor, and the platform bus's real monitor
// over BlueZ played by a mock.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <rapidxml/rapidxml.hpp>
#include <string>
#include <vector>

#include "Base/ErrorRecord.h"
#include "Base/FileReplace.h"
#include "Base/Subscriber.h"
#include "Bus/Combiner/CombinerBus.h"
#include "Bus/Pairing/PairingBus.h"
#include "Bus/Pairing/PairingDevice.h"
#include "Device/IDevice.h"
#include "Features/IFeature.h"
#include "Features/IFeature0000Root.h"
#include "Manager/CDevio.h"
#include "Manager/DeviceManager.h"
#include "RadioWorld.h"
#include "RunLoopHost.h"
#include "TestSupport.h"

namespace pairtest {
namespace {

using devio::Byte;
using devio::IDevice;
using devio::IDeviceManager;
using devio::IHardwareBus;
using devio::IHardwareDevice;
using devio::PairingBus;
using devio::PairingDevice;
using devio::test::eventually;
using simtest::SimMachine;

constexpr unsigned kBluetoothActive = 0, kBleActive = 1, kUseBlevx = 3, kCordedActive = 5;
const std::string kRadio = "/org/bluez/hci0";
const std::string kOtherRadio = "/org/bluez/hci1";
// Every path of a simulated Bluetooth device carries its address, which
// the machine gives it: the key and ":01".
const std::string kMouseKey = "00:1f:20:b3:5b";
const std::string kKeyboardKey = "00:1f:20:b4:0a";

const char* const kDesk = R"({"devices": [
    {"id": "corded", "name": "Sim Mouse", "pid": "0xC08B"},
    {"id": "btmouse", "name": "Sim BT Mouse", "pid": "0xB35B", "bus": "bluetooth",
     "address": "00:1f:20:b3:5b:01"}]})";

// A manager whose platform bus the story's world makes.
class StoryManager : public devio::DeviceManager {
public:
    using MakeBus = std::function<std::shared_ptr<IHardwareBus>(std::weak_ptr<IDeviceManager>)>;
    explicit StoryManager(MakeBus make) : make_(std::move(make)) {}

    int stacks_built() const { return stacks_; }

private:
    std::shared_ptr<IHardwareBus> makePlatformBus() override {
        ++stacks_;
        return make_ ? make_(weak_from_this()) : nullptr;
    }
    MakeBus make_;
    int stacks_ = 0;
};

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/pairing-test-XXXXXX";
        if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp");
        path = std::string(pattern) + "/";
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
    std::string path;
};

std::string read_text(const std::string& file) {
    std::vector<char> text;
    if (!devio::read_file_text(file, text)) return {};
    return text.data();
}

void write_text(const std::string& file, const std::string& text) {
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
}

// The cache's line for one device, attributes in their order.
std::string cache_line(const std::string& path, const std::string& pid, const std::string& name,
                       const std::string& radio, const std::string& interface) {
    return "<device path=\"" + path + "\" pid=\"" + pid + "\" name=\"" + name + "\" radio=\"" +
           radio + "\" interface=\"" + interface + "\"/>";
}

// What a listener heard, in order; any thread may add. The first base of
// a listener, so that it outlives the subscriptions, which end first.
template <class Item>
class Recorder {
public:
    void add(Item item) {
        std::lock_guard<std::mutex> lock(mutex_);
        items_.push_back(std::move(item));
    }
    std::vector<Item> items() {
        std::lock_guard<std::mutex> lock(mutex_);
        return items_;
    }

private:
    std::mutex mutex_;
    std::vector<Item> items_;
};

// The manager's arrivals and removals, as "arrival B35B".
class Watcher : public Recorder<std::string>,
                public devio::Subscriber<IDeviceManager::ArrivalRemoval> {
public:
    void onDeviceArrival(const std::shared_ptr<IDevice>& d) override { note("arrival", d); }
    void onDeviceRemoval(const std::shared_ptr<IDevice>& d) override { note("removal", d); }

private:
    void note(const char* what, const std::shared_ptr<IDevice>& d) {
        char text[32];
        std::snprintf(text, sizeof text, "%s %X", what, static_cast<unsigned>(d->pid()));
        add(text);
    }
};

// A device's connection events. It stops listening before any part of it
// goes, since deliveries come on other threads.
class LinkLog : public Recorder<std::string>, public devio::Subscriber<IDevice::Connect> {
public:
    explicit LinkLog(std::shared_ptr<IDevice> device) : device_(std::move(device)) {
        listening = subscribe(device_, devio::DeliveryDirect);
    }
    ~LinkLog() override { unsubscribe(device_); }
    void onConnect(const std::shared_ptr<IDevice>&, bool) override { add("connect"); }
    void onDisconnect(const std::shared_ptr<IDevice>&) override { add("disconnect"); }
    std::string last() {
        const auto all = items();
        return all.empty() ? std::string() : all.back();
    }
    bool listening = false;

private:
    const std::shared_ptr<IDevice> device_;
};

// What the radio told of one device. Over BlueZ the radio tells after the
// story's call returns: a story waits for it before it looks at what
// follows.
class RadioLog : public Recorder<std::string>,
                 public devio::Subscriber<devio::IBluetoothDevice::BtFastConnect>,
                 public devio::Subscriber<devio::IBluetoothDevice::BtUnpair> {
public:
    explicit RadioLog(std::shared_ptr<devio::IBluetoothDevice> device)
        : device_(std::move(device)) {
        listening = device_ &&
                    Subscriber<devio::IBluetoothDevice::BtFastConnect>::subscribe(
                        device_, devio::DeliveryDirect) &&
                    Subscriber<devio::IBluetoothDevice::BtUnpair>::subscribe(device_,
                                                                             devio::DeliveryDirect);
    }
    ~RadioLog() override {
        if (!device_) return;
        Subscriber<devio::IBluetoothDevice::BtFastConnect>::unsubscribe(device_);
        Subscriber<devio::IBluetoothDevice::BtUnpair>::unsubscribe(device_);
    }
    void onBtFastConnect(const std::string&) override { add("connect"); }
    void onBtFastDisconnect() override { add("disconnect"); }
    void onBtUnpair(const std::string& radio) override { add("unpair " + radio); }
    bool heard(const std::string& what) {
        return eventually([&] {
            const auto all = items();
            return std::find(all.begin(), all.end(), what) != all.end();
        });
    }
    bool listening = false;

private:
    const std::shared_ptr<devio::IBluetoothDevice> device_;
};

struct WriteCount {
    std::atomic<int> writes{0};
};

// Everything a hardware device reads, and how many writes it told; it
// stops listening as LinkLog does.
class Traffic : public Recorder<std::vector<Byte>>,
                public WriteCount,
                public devio::Subscriber<IHardwareDevice::Read>,
                public devio::Subscriber<IHardwareDevice::Write> {
public:
    explicit Traffic(std::shared_ptr<IHardwareDevice> device) : device_(std::move(device)) {
        listening = devio::Subscriber<IHardwareDevice::Read>::subscribe(device_, 1) &&
                    devio::Subscriber<IHardwareDevice::Write>::subscribe(device_, 1);
    }
    ~Traffic() override {
        devio::Subscriber<IHardwareDevice::Read>::unsubscribe(device_);
        devio::Subscriber<IHardwareDevice::Write>::unsubscribe(device_);
    }
    void onRead(std::vector<Byte> report, bool, unsigned, unsigned) override {
        add(std::move(report));
    }
    void onWrite(std::vector<Byte>, devio::ErrorCode, unsigned) override { ++writes; }
    bool read_one_starting(Byte a, Byte b) {
        for (const auto& r : items()) {
            if (r.size() >= 2 && r[0] == a && r[1] == b) return true;
        }
        return false;
    }
    bool listening = false;

private:
    const std::shared_ptr<IHardwareDevice> device_;
};

// The devices the pairing filter plugs.
class Plugs : public Recorder<std::shared_ptr<IHardwareDevice>>,
              public devio::Subscriber<IHardwareBus::PlugUnplug> {
public:
    void onPlug(const std::shared_ptr<IHardwareDevice>& d) override { add(d); }
};

std::shared_ptr<IDevice> with_pid(const std::vector<std::shared_ptr<IDevice>>& list, int pid) {
    for (const auto& d : list) {
        if (d->pid() == pid) return d;
    }
    return nullptr;
}

// A command and its answer, through the whole stack.
bool ping(const std::shared_ptr<IDevice>& device) {
    auto root = std::dynamic_pointer_cast<devio::IFeature0000Root>(device->feature_by_id(0));
    return root && root->Ping(0x5A);
}

std::shared_ptr<PairingDevice> pairing_device(const std::shared_ptr<IDevice>& device) {
    auto bus = std::dynamic_pointer_cast<PairingBus>(device->bus());
    if (!bus) return nullptr;
    for (const auto& hw : bus->devices()) {
        if (hw->path() == device->path()) return std::dynamic_pointer_cast<PairingDevice>(hw);
    }
    return nullptr;
}

// One story's machine, radio, data directory and host, which a story
// starts to pump once it listens. The mouse is paired and switched on.
struct Story {
    explicit Story(World kind) : radio(make_world(kind)), world(*radio) {
        if (!world.trouble().empty()) throw std::runtime_error(world.trouble());
        world.add_radio(kRadio);
        world.pair(kMouseKey, 2, kRadio, "Sim BT Mouse");
        world.connect(kMouseKey);
    }
    ~Story() { end_managers(); }

    // A new manager; the story keeps it, so that it goes only when nothing
    // is delivered to it any more.
    std::shared_ptr<StoryManager> manager(bool with_directory = true) {
        auto m = std::make_shared<StoryManager>(
            [this](std::weak_ptr<IDeviceManager> owner) { return world.platform(sim, owner); });
        EXPECT_TRUE(m->config_set(kBluetoothActive, true));
        EXPECT_TRUE(m->config_set(kCordedActive, true));
        if (with_directory) m->persistent_data_directory(dir.path);
        managers.push_back(m);
        return m;
    }
    // Stops the host, then lets the managers go, as a process that ends.
    void end_managers() {
        host.stop();
        managers.clear();
    }
    // The manager started with the watcher listening and the host pumping.
    std::shared_ptr<StoryManager> started(Watcher& watcher) {
        auto m = manager();
        EXPECT_TRUE(watcher.subscribe(m, devio::DeliveryDirect));
        EXPECT_TRUE(host.start());
        return m;
    }
    std::string cache() { return read_text(dir.path + "paired.xml"); }
    bool idle() { return host.wait_idle(std::chrono::milliseconds(5000)); }

    SimMachine sim{kDesk};
    std::shared_ptr<RadioWorld> radio;
    RadioWorld& world;
    TempDir dir;
    devio::RunLoopHost host;
    std::vector<std::shared_ptr<StoryManager>> managers;
};

// The stories of one world.
class Pairing : public ::testing::TestWithParam<World> {};

std::string name_of(const ::testing::TestParamInfo<World>& info) {
    return world_name(info.param);
}

// A story that starts with the manager running and the mouse listed.
class PairedMouse : public Pairing {
protected:
    void SetUp() override {
        manager = s.started(watcher);
        mouse = with_pid(manager->devices(), 0xB35B);
        ASSERT_TRUE(mouse);
    }
    void TearDown() override {
        watcher.unsubscribe(manager);
        s.end_managers();
    }

    Story s{GetParam()};
    Watcher watcher;
    std::shared_ptr<StoryManager> manager;
    std::shared_ptr<IDevice> mouse;
};

TEST_P(PairedMouse, SwitchedOffAndOnStaysOneDevice) {
    const auto listed = manager->devices();
    ASSERT_EQ(listed.size(), 2u);
    const auto corded = with_pid(listed, 0xC08B);
    ASSERT_TRUE(corded);
    ASSERT_NE(mouse->path().find(kMouseKey), std::string::npos) << mouse->path();
    EXPECT_EQ(mouse->bustype(), 2);
    EXPECT_EQ(mouse->busport(), 0);
    EXPECT_TRUE(std::dynamic_pointer_cast<PairingBus>(mouse->bus())) << "no pairing filter";
    LinkLog link(mouse);
    ASSERT_TRUE(link.listening);
    ASSERT_TRUE(eventually([&] { return mouse->connected(); }));
    EXPECT_TRUE(ping(mouse)) << devio::error_record().err;

    // The Bluetooth mouse is remembered, the corded one never.
    EXPECT_NE(
        s.cache().find(cache_line(mouse->path(), "B35B", "Sim BT Mouse", kRadio, "bluetooth")),
        std::string::npos)
        << s.cache();
    EXPECT_EQ(s.cache().find(corded->path()), std::string::npos) << s.cache();

    // Switched off: the radio tells first, and a write fails at once while
    // the data path is still there, producing nothing.
    const auto hw = pairing_device(mouse);
    ASSERT_TRUE(hw);
    Traffic traffic(hw);
    ASSERT_TRUE(traffic.listening);
    RadioLog radio(hw->btdev());
    ASSERT_TRUE(radio.listening);
    s.world.disconnect(kMouseKey);
    ASSERT_TRUE(radio.heard("disconnect"));
    devio::set_error(devio::Success);
    EXPECT_FALSE(hw->write(std::vector<Byte>(7, 0x10), false));
    EXPECT_EQ(devio::error_record().err, devio::NotConnected);
    EXPECT_EQ(traffic.writes, 0);
    s.sim.command("unplug btmouse");
    EXPECT_TRUE(eventually([&] { return link.last() == "disconnect"; }));
    EXPECT_TRUE(eventually([&] { return !manager->devices().empty(); }));
    ASSERT_TRUE(s.idle());
    EXPECT_FALSE(mouse->connected());
    auto now = manager->devices();
    EXPECT_EQ(now.size(), 2u);
    EXPECT_EQ(with_pid(now, 0xB35B), mouse);

    // Switched on: the same device connects again and answers.
    s.sim.command("plug btmouse");
    s.world.connect(kMouseKey);
    EXPECT_TRUE(eventually([&] { return link.last() == "connect" && mouse->connected(); }));
    EXPECT_TRUE(ping(mouse)) << devio::error_record().err;
    EXPECT_EQ(with_pid(manager->devices(), 0xB35B), mouse);
    // The start's arrivals came before the watcher joined: nothing since.
    EXPECT_TRUE(watcher.items().empty());
}

TEST_P(PairedMouse, UnpairingRemovesTheDeviceAndDropsItFromTheCache) {
    const std::string line = cache_line(mouse->path(), "B35B", "Sim BT Mouse", kRadio, "bluetooth");
    ASSERT_NE(s.cache().find(line), std::string::npos) << s.cache();

    // A second radio that it isn't paired to forgets it: it stays, and
    // stays cached.
    const auto hw = pairing_device(mouse);
    ASSERT_TRUE(hw);
    RadioLog radio(hw->btdev());
    ASSERT_TRUE(radio.listening);
    s.world.add_radio(kOtherRadio);
    s.world.unpair(kMouseKey, kOtherRadio);
    ASSERT_TRUE(radio.heard("unpair " + kOtherRadio));
    ASSERT_TRUE(s.idle());
    EXPECT_TRUE(watcher.items().empty());
    EXPECT_EQ(manager->devices().size(), 2u);
    EXPECT_NE(s.cache().find(line), std::string::npos) << s.cache();

    s.world.unpair(kMouseKey, kRadio);
    EXPECT_TRUE(eventually([&] { return !watcher.items().empty(); }));
    EXPECT_EQ(watcher.items(), std::vector<std::string>{"removal B35B"});
    EXPECT_TRUE(eventually([&] { return s.cache().find(mouse->path()) == std::string::npos; }))
        << s.cache();
    EXPECT_NE(s.cache().find("<devices"), std::string::npos) << s.cache();
    EXPECT_EQ(manager->devices().size(), 1u);
}

TEST_P(PairedMouse, RadioThatGoesHidesItsDevicesUntilItComesBack) {
    s.world.remove_radio(kRadio);
    EXPECT_TRUE(eventually([&] { return !watcher.items().empty(); }));
    EXPECT_EQ(watcher.items(), std::vector<std::string>{"removal B35B"});
    EXPECT_EQ(manager->devices().size(), 1u);
    // Still paired: the pairing stays remembered.
    EXPECT_NE(s.cache().find(mouse->path()), std::string::npos) << s.cache();

    s.world.add_radio(kRadio);
    EXPECT_TRUE(eventually([&] { return watcher.items().size() == 2; }));
    EXPECT_EQ(watcher.items().back(), "arrival B35B");
    const auto back = with_pid(manager->devices(), 0xB35B);
    ASSERT_TRUE(back);
    EXPECT_TRUE(eventually([&] { return back->connected(); }));
    EXPECT_TRUE(ping(back)) << devio::error_record().err;

    // The radio goes and comes back while the device's data path does the
    // same: its records go and come back with it, which is no unpairing,
    // and its events meet the data path's arrivals.
    constexpr int kRounds = 5;
    for (int i = 0; i < kRounds; ++i) {
        s.sim.command("unplug btmouse");
        s.world.remove_radio(kRadio);
        ASSERT_TRUE(eventually([&] { return manager->devices().size() == 1; })) << i;
        s.sim.command("plug btmouse");
        s.world.add_radio(kRadio);
        ASSERT_TRUE(eventually([&] {
            const auto now = with_pid(manager->devices(), 0xB35B);
            return now && now->connected();
        })) << i;
    }
    ASSERT_TRUE(s.idle());
    EXPECT_EQ(watcher.items().size(), 2u + 2 * kRounds);
    EXPECT_NE(s.cache().find(back->path()), std::string::npos) << s.cache();
    EXPECT_TRUE(ping(with_pid(manager->devices(), 0xB35B))) << devio::error_record().err;
}

TEST_P(Pairing, RestartFindsTheCachedDeviceWhileItIsOffAndDropsEntriesWithoutARecord) {
    Story s(GetParam());
    ASSERT_TRUE(s.host.start());
    std::string path;
    {
        auto first = s.manager();
        const auto mouse = with_pid(first->devices(), 0xB35B);
        ASSERT_TRUE(mouse);
        path = mouse->path();
    }
    ASSERT_TRUE(s.idle());
    s.end_managers();
    s.world.disconnect(kMouseKey);
    s.sim.command("unplug btmouse");
    // An entry whose device the radio no longer knows.
    std::string text = s.cache();
    const std::string ghost =
        cache_line(s.sim.machine().devRoot() + "/hidraw@bt-00:1a:7d:da:71:13-00:1f:20:99:99:01",
                   "B999", "Ghost", kRadio, "bluetooth");
    const auto end = text.find("</devices>");
    ASSERT_NE(end, std::string::npos) << text;
    text.insert(end, ghost + "\n");
    write_text(s.dir.path + "paired.xml", text);

    // The cached device arrives through the run loop: the host pumps again
    // once the watcher listens.
    auto second = s.manager();
    Watcher watcher;
    ASSERT_TRUE(watcher.subscribe(second, devio::DeliveryDirect));
    ASSERT_TRUE(s.host.start());
    EXPECT_TRUE(eventually([&] { return second->devices().size() == 2; }));
    const auto mouse = with_pid(second->devices(), 0xB35B);
    ASSERT_TRUE(mouse);
    EXPECT_EQ(mouse->path(), path);
    EXPECT_EQ(mouse->name(), "Sim BT Mouse");
    EXPECT_FALSE(mouse->connected());
    EXPECT_EQ(s.cache().find("Ghost"), std::string::npos) << s.cache();
    EXPECT_NE(s.cache().find(cache_line(path, "B35B", "Sim BT Mouse", kRadio, "bluetooth")),
              std::string::npos)
        << s.cache();

    // Switched on, the known device connects; nothing new arrives. The
    // radio tells first: without its data path the device is not connected
    // yet, and it connects when the data path comes.
    LinkLog link(mouse);
    ASSERT_TRUE(link.listening);
    const auto hw = pairing_device(mouse);
    ASSERT_TRUE(hw);
    RadioLog radio(hw->btdev());
    ASSERT_TRUE(radio.listening);
    s.world.connect(kMouseKey);
    ASSERT_TRUE(radio.heard("connect"));
    ASSERT_TRUE(s.idle());
    EXPECT_FALSE(mouse->connected());
    EXPECT_TRUE(link.items().empty());
    s.sim.command("plug btmouse");
    EXPECT_TRUE(eventually([&] { return link.last() == "connect" && mouse->connected(); }));
    EXPECT_EQ(link.items(), std::vector<std::string>{"connect"});
    EXPECT_TRUE(ping(mouse)) << devio::error_record().err;
    EXPECT_EQ(watcher.items(), std::vector<std::string>{"arrival B35B"});
    watcher.unsubscribe(second);
}

TEST_P(Pairing, DamagedCacheFileThrowsWhenNamedAndTheNextWriteReplacesIt) {
    Story s(GetParam());
    write_text(s.dir.path + "paired.xml", "<devices><device path=\"/dev/hidraw@bt-");
    ASSERT_TRUE(s.host.start());
    // Named before the start, the file throws out of the first devices();
    // the stack is in place all the same, and the next call builds no other.
    auto early = s.manager();
    EXPECT_THROW(early->devices(), rapidxml::parse_error);
    EXPECT_EQ(early->devices().size(), 2u);
    EXPECT_EQ(early->stacks_built(), 1);
    auto manager = s.manager(false);
    const auto mouse = with_pid(manager->devices(), 0xB35B);
    ASSERT_TRUE(mouse);
    EXPECT_THROW(manager->persistent_data_directory(s.dir.path), rapidxml::parse_error);
    // The bus works on; its next change writes the whole file anew.
    s.world.disconnect(kMouseKey);
    s.sim.command("unplug btmouse");
    EXPECT_TRUE(eventually([&] {
        return s.cache().find(cache_line(mouse->path(), "B35B", "Sim BT Mouse", kRadio,
                                         "bluetooth")) != std::string::npos;
    })) << s.cache();
    EXPECT_EQ(manager->devices().size(), 2u);
}

// A BLE keyboard with a HID interface on the machine and a vendor GATT
// interface beside it, on a GATT transport of the test's own in both
// worlds, under the path the platform's transport gives it; the monitor
// finds the device behind either path. The interface that is not the data
// path is present from the start, so it is kept loose until the data path
// arrives.
void loose_monitor_story(World kind, bool use_blevx) {
    SCOPED_TRACE(use_blevx ? "use_blevx on" : "use_blevx off");
    SimMachine sim(use_blevx ? R"({"devices": [{"id": "kb", "name": "Sim BLE Keyboard",
                                  "pid": "0xB40A", "bus": "bluetooth",
                                  "address": "00:1f:20:b4:0a:01"}]})"
                             : R"({"devices": [{"id": "kb", "name": "Sim BLE Keyboard",
                                  "pid": "0xB40A", "bus": "bluetooth",
                                  "address": "00:1f:20:b4:0a:01", "plugged": false}]})");
    auto radio = make_world(kind);
    RadioWorld& world = *radio;
    ASSERT_EQ(world.trouble(), "");
    world.add_radio(kRadio);
    world.pair(kKeyboardKey, 3, kRadio, "Sim BLE Keyboard");
    world.connect(kKeyboardKey);
    TempDir dir;
    devio::RunLoopHost host;
    ASSERT_TRUE(host.start());

    // The configuration comes from a manager that never starts a stack.
    auto config = std::make_shared<StoryManager>(nullptr);
    ASSERT_TRUE(config->config_set(kUseBlevx, use_blevx));
    ASSERT_TRUE(config->config_set(kBleActive, true));
    auto gatt_bus = std::make_shared<FakeGattBus>();
    auto gatt = std::make_shared<FakeGattDevice>(world.gatt_path(kKeyboardKey), 0xB40A);
    if (!use_blevx) gatt_bus->plug(gatt);
    auto platform = world.platform(sim, config, gatt_bus);
    auto pairing = std::make_shared<PairingBus>(
        std::make_shared<devio::CombinerBus>(platform, std::weak_ptr<IDeviceManager>()), config);
    Plugs plugs;
    ASSERT_TRUE(plugs.subscribe(pairing, devio::DeliveryDirect));
    EXPECT_TRUE(pairing->devices().empty()) << "a monitor is no device of its own";
    pairing->persistent_data_directory(dir.path);

    // The data path arrives.
    if (use_blevx) {
        gatt_bus->plug(gatt);
    } else {
        sim.command("plug kb");
    }
    ASSERT_TRUE(eventually([&] { return plugs.items().size() == 1; }));
    const auto keyboard = std::dynamic_pointer_cast<PairingDevice>(plugs.items()[0]);
    ASSERT_TRUE(keyboard);
    EXPECT_TRUE(keyboard->has_monitor());
    EXPECT_EQ(keyboard->bustype(), 3);
    EXPECT_EQ(keyboard->busport(), use_blevx ? 2 : 1);
    EXPECT_EQ(keyboard->path() == gatt->path(), use_blevx);
    const std::string interface = use_blevx ? "blevx" : "blevxp";
    // The plug is told before the file is written.
    EXPECT_TRUE(eventually([&] {
        return read_text(dir.path + "paired.xml").find("interface=\"" + interface + "\"") !=
               std::string::npos;
    })) << read_text(dir.path + "paired.xml");

    // Reads of both interfaces reach the device; writes go to the data path
    // only.
    Traffic traffic(keyboard);
    ASSERT_TRUE(traffic.listening);
    EXPECT_TRUE(keyboard->connected()) << "the poll did not catch up with the radio";
    ASSERT_TRUE(keyboard->open()) << devio::error_record().err;
    gatt->read({0x11, 0x01, 0x04, 0x00});
    sim.command("battery kb 50");
    EXPECT_TRUE(eventually([&] { return traffic.read_one_starting(0x11, 0x01); }));
    EXPECT_TRUE(eventually([&] {
        return traffic.read_one_starting(0x10, 0xFF) || traffic.read_one_starting(0x11, 0xFF);
    }));
    ASSERT_TRUE(keyboard->write(std::vector<Byte>{0x10, 0xFF, 0x00, 0x1A, 0, 0, 0}, false))
        << devio::error_record().err;
    EXPECT_EQ(gatt->writes(), use_blevx ? 1u : 0u);
    plugs.unsubscribe(pairing);
    host.stop();
}

TEST_P(Pairing, LooseMonitorIsAttachedWhenItsDataPathArrives) {
    loose_monitor_story(GetParam(), false);
    loose_monitor_story(GetParam(), true);
}

INSTANTIATE_TEST_SUITE_P(Worlds, PairedMouse, ::testing::Values(World::Fake, World::Bluez),
                         name_of);
INSTANTIATE_TEST_SUITE_P(Worlds, Pairing, ::testing::Values(World::Fake, World::Bluez), name_of);

}  // namespace
}  // namespace pairtest
