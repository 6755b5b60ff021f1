#include "RadioWorld.h"

#include <cstdio>
#include <stdexcept>

#include "BluezRadio.h"

namespace pairtest {

using devio::IBluetoothBus;
using devio::IBluetoothDevice;

namespace {
// The address text of a monitor, from the kernel's "00:1f:20:b3:5b:01".
std::string address_text(const std::string& uniq) {
    unsigned b[6] = {};
    if (std::sscanf(uniq.c_str(), "%x:%x:%x:%x:%x:%x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]) !=
        6)
        return uniq;
    char text[32];
    std::snprintf(text, sizeof text, "%02X%02X:%02X:%02X%02X%02X", b[0], b[1], b[2], b[3], b[4],
                  b[5]);
    return text;
}
}  // namespace

std::string world_name(World world) {
    return world == World::Bluez ? "BlueZ" : "FakeRadio";
}

std::shared_ptr<RadioWorld> make_world(World world) {
    if (world == World::Bluez) return std::make_shared<BluezRadio>();
    return std::make_shared<FakeRadio>();
}

FakeBtDevice::FakeBtDevice(std::weak_ptr<FakeRadio> radio, std::string address, int bustype,
                           std::string paired_to, std::string name)
    : radio_(std::move(radio)),
      address_(std::move(address)),
      bustype_(bustype),
      name_(std::move(name)),
      paired_to_(std::move(paired_to)) {}

std::string FakeBtDevice::connected_radio(const std::string& /*path*/, int /*bustype*/) {
    std::lock_guard<std::mutex> lock(mutex_);
    return connected_ ? paired_to_ : std::string();
}

bool FakeBtDevice::verify_pairing(std::string& radio) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (radio != paired_to_) radio.clear();
    return true;
}

bool FakeBtDevice::radio_present(const std::string& radio) {
    auto owner = radio_.lock();
    return owner && owner->has_radio(radio);
}

std::shared_ptr<IBluetoothBus> FakeBtDevice::bus() {
    return radio_.lock();
}

// As the platform tells it: the fast event first, then the one that waits
// for the run loop.
void FakeBtDevice::connect() {
    std::string radio;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        radio = paired_to_;
    }
    connected_ = true;
    Producer<BtFastConnect>::produce(
        [radio](BtFastConnect* s) { s->onBtFastConnect(radio); },
        devio::event_names::BluetoothMicrosoftDeviceBtFastConnect.onBtFastConnect);
    Producer<BtConnect>::produce([radio](BtConnect* s) { s->onBtConnect(radio); },
                                 devio::event_names::BluetoothMicrosoftDeviceBtConnect.onBtConnect);
}

void FakeBtDevice::disconnect() {
    connected_ = false;
    Producer<BtFastConnect>::produce(
        [](BtFastConnect* s) { s->onBtFastDisconnect(); },
        devio::event_names::BluetoothMicrosoftDeviceBtFastConnect.onBtFastDisconnect);
    Producer<BtConnect>::produce(
        [](BtConnect* s) { s->onBtDisconnect(); },
        devio::event_names::BluetoothMicrosoftDeviceBtConnect.onBtDisconnect);
}

bool FakeBtDevice::unpair(const std::string& radio) {
    bool lost = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lost = radio == paired_to_;
        if (lost) paired_to_.clear();
    }
    Producer<BtUnpair>::produce([radio](BtUnpair* s) { s->onBtUnpair(radio); },
                                devio::event_names::BluetoothMicrosoftDeviceBtUnpair.onBtUnpair);
    return lost;
}

std::shared_ptr<IBluetoothDevice> FakeRadio::device_paired_on_path(const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [key, device] : paired_) {
        if (path.find(key) != std::string::npos) return device;
    }
    return nullptr;
}

// The fake monitor hears the radio from the test, not from the bus's
// device-change messages, and reads no configuration.
std::shared_ptr<devio::IHardwareBus> FakeRadio::platform(
    simtest::SimMachine& sim, std::weak_ptr<devio::IDeviceManager> /*manager*/,
    std::shared_ptr<devio::IHardwareSecondaryBus> gatt) {
    return std::make_shared<BluetoothSimBus>(sim, shared_from_this(), std::move(gatt));
}

void FakeRadio::add_radio(const std::string& radio) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        radios_.insert(radio);
    }
    produce([radio](RadioArrivalRemovalExternal* s) { s->onRadioArrival(radio); },
            devio::event_names::RadioArrivalRemoval.onRadioArrival);
}

void FakeRadio::remove_radio(const std::string& radio) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        radios_.erase(radio);
    }
    produce([radio](RadioArrivalRemovalExternal* s) { s->onRadioRemoval(radio); },
            devio::event_names::RadioArrivalRemoval.onRadioRemoval);
}

bool FakeRadio::has_radio(const std::string& radio) {
    std::lock_guard<std::mutex> lock(mutex_);
    return radios_.count(radio) != 0;
}

void FakeRadio::pair(const std::string& key, int bustype, const std::string& radio,
                     const std::string& name) {
    auto device = std::make_shared<FakeBtDevice>(weak_from_this(), address_text(key + ":01"),
                                                 bustype, radio, name);
    std::lock_guard<std::mutex> lock(mutex_);
    paired_[key] = device;
}

// The platform forgets a device with its pairing.
void FakeRadio::unpair(const std::string& key, const std::string& radio) {
    if (!find(key)->unpair(radio)) return;
    std::lock_guard<std::mutex> lock(mutex_);
    paired_.erase(key);
}

std::shared_ptr<FakeBtDevice> FakeRadio::find(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = paired_.find(key);
    if (found == paired_.end()) throw std::logic_error("not paired: " + key);
    return found->second;
}

bool FakeGattDevice::write(std::vector<devio::Byte> report, bool /*blocking*/) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++writes_;
    }
    Producer<Write>::produce([report](Write* s) { s->onWrite(report, devio::Success, 0); },
                             devio::event_names::GattDeviceWrite.onWrite);
    return true;
}

void FakeGattDevice::read(const std::vector<devio::Byte>& report) {
    Producer<Read>::produce(
        [report](Read* s) { s->onRead(report, false, 0, static_cast<unsigned>(report.size())); },
        devio::event_names::GattDeviceRead.onRead);
}

std::size_t FakeGattDevice::writes() {
    std::lock_guard<std::mutex> lock(mutex_);
    return writes_;
}

std::vector<std::shared_ptr<devio::IHardwareDevice>> FakeGattBus::devices() {
    devio::set_error(devio::Success);
    std::lock_guard<std::mutex> lock(mutex_);
    return present_;
}

void FakeGattBus::plug(const std::shared_ptr<FakeGattDevice>& device) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        present_.push_back(device);
    }
    std::shared_ptr<devio::IHardwareDevice> hw = device;
    produce([hw](PlugUnplug* s) { s->onPlug(hw); }, devio::event_names::GattBusPlugUnplug.onPlug);
}

BluetoothSimBus::BluetoothSimBus(simtest::SimMachine& sim,
                                 std::shared_ptr<devio::IBluetoothBus> monitor,
                                 std::shared_ptr<devio::IHardwareSecondaryBus> gatt)
    : SimBus(sim.machine().sysfsRoot(), sim.machine().devRoot()),
      monitor_(std::move(monitor)),
      gatt_(std::move(gatt)) {}

std::vector<std::shared_ptr<devio::IHardwareSecondaryBus>> BluetoothSimBus::secondary_busses() {
    if (gatt_) return {gatt_};
    return {};
}

}  // namespace pairtest
