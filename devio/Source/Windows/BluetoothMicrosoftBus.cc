#include "Windows/BluetoothMicrosoftBus.h"

#include <cerrno>
#include <cstdio>
#include <vector>

#include "Base/ClassLog.h"
#include "Base/DevioException.h"
#include "Base/ErrorRecord.h"
#include "Base/InstanceCount.h"
#include "Windows/BluetoothMicrosoftDevice.h"
#include "Windows/Win32Bus.h"

#define BT_LOG(level, function, ...) \
    DEVIO_LOG("BluetoothMicrosoftBus", level, function, __VA_ARGS__)

namespace devio {

namespace {
// The status of a query that found no radio to ask.
constexpr std::uint32_t kNoRadio = 0;
}  // namespace

std::string bluetoothAddressText(std::uint64_t address) {
    char text[16];
    std::snprintf(text, sizeof text, "%02X%02X:%02X:%02X%02X%02X",
                  static_cast<unsigned>((address >> 40) & 0xFF),
                  static_cast<unsigned>((address >> 32) & 0xFF),
                  static_cast<unsigned>((address >> 24) & 0xFF),
                  static_cast<unsigned>((address >> 16) & 0xFF),
                  static_cast<unsigned>((address >> 8) & 0xFF),
                  static_cast<unsigned>(address & 0xFF));
    return text;
}

BluetoothMicrosoftBus::BluetoothMicrosoftBus(std::weak_ptr<Win32Bus> bus, bool active)
    : bus_(std::move(bus)), active_(active) {
    BT_LOG(3, "BluetoothMicrosoftBus", "BluetoothMicrosoftBus Number of instances now: %d",
           InstanceCount<BluetoothMicrosoftBus>::added());
}

BluetoothMicrosoftBus::~BluetoothMicrosoftBus() {
    stop();
    BT_LOG(3, "~BluetoothMicrosoftBus", "~BluetoothMicrosoftBus Number of instances now: %d",
           InstanceCount<BluetoothMicrosoftBus>::removed());
}

// The radios need no release of their own here: no handle is held for them.
// What the start registered is given back.
void BluetoothMicrosoftBus::stop() {
    std::lock_guard<std::recursive_mutex> lock(start_mutex_);
    if (!started_) return;
    if (auto bus = bus_.lock()) {
        {
            std::lock_guard<std::mutex> radios(radio_mutex_);
            for (const std::string& radio : radios_)
                BT_LOG(3, "stop", "-bt- stop() is unregistering device notification for %s",
                       radio.c_str());
        }
        if (interface_notification_ != 0)
            bus->unregisterInterfaceNotification(interface_notification_);
    }
    interface_notification_ = 0;
    std::lock_guard<std::mutex> radios(radio_mutex_);
    radios_.clear();
    started_ = false;
}

std::shared_ptr<IBluetoothSystem> BluetoothMicrosoftBus::bluetooth() {
    // Never replaced once made.
    if (published_stack_.load() != nullptr) return bluetooth_;
    std::lock_guard<std::recursive_mutex> lock(start_mutex_);
    if (bluetooth_) return bluetooth_;
    auto bus = bus_.lock();
    if (!bus) {
        set_error(ShuttingDown);
        return nullptr;
    }
    try {
        bus->lazyStart(&system_);
        bluetooth_ = makePlatformBluetooth(system_);
        published_stack_ = bluetooth_.get();
    } catch (const DevioException& e) {
        e.record();
        BT_LOG(1, "bluetooth", "-bt- the platform could not be reached");
        return nullptr;
    }
    return bluetooth_;
}

bool BluetoothMicrosoftBus::lazy_start() {
    if (started_) return true;
    std::lock_guard<std::recursive_mutex> lock(start_mutex_);
    if (started_) return true;
    if (!active_) {
        set_error(BluetoothStartFailed);
        return false;
    }
    // A machine without a Bluetooth stack is the same as one where Bluetooth
    // is switched off; it is said once and the bus stays inactive.
    auto stack = bluetooth();
    std::string why;
    if (!stack || !stack->available(why)) {
        BT_LOG(1, "lazy_start", "-bt- Bluetooth is inactive: %s",
               stack ? why.c_str() : "no platform");
        active_ = false;
        set_error(BluetoothStartFailed);
        return false;
    }
    if (!Subscriber<IBluetoothBus::RadioArrivalRemovalInternal>::subscribe(shared_from_this(),
                                                                           DeliveryRunLoop)) {
        return false;
    }
    auto bus = bus_.lock();
    if (!bus) {
        set_error(ShuttingDown);
        return false;
    }
    try {
        interface_notification_ = bus->registerInterfaceNotification(kBluetoothRadioClass);
        if (interface_notification_ == 0) {
            BT_LOG(1, "lazy_start", "-bt- registerInterfaceNotification returned err=%d gle=%d",
                   static_cast<int>(error_record().err), static_cast<int>(error_record().sys));
        }
    } catch (const DevioException& e) {
        e.record();
        BT_LOG(1, "lazy_start", "-bt- exception on registerInterfaceNotification");
        return false;
    }
    BT_LOG(3, "lazy_start", "BluetoothMicrosoftBus::lazy_start window is %p",
           static_cast<void*>(bus.get()));
    find_radios();
    started_ = true;
    return true;
}

// The start tells its listeners of the radios it finds, on the starting
// thread, with the radio producer's lock held. Started from a listener's
// own call that holds a lock of the listener's which its radio handlers
// take (the pairing filter's), it would take the producer's lock inside
// that one, while a radio event on the pumping thread takes them the other
// way round. So a listener to the radios starts the bus as it subscribes,
// and is told of the radios present then, with no lock of this bus held.
// An inactive bus does not refuse.
bool BluetoothMicrosoftBus::on_subscribe(IBluetoothBus::RadioArrivalRemovalExternal* subscriber) {
    if (!lazy_start()) return true;
    std::vector<std::string> present;
    {
        std::lock_guard<std::mutex> lock(radio_mutex_);
        present.assign(radios_.begin(), radios_.end());
    }
    for (const std::string& radio : present) {
        BT_LOG(3, "on_subscribe", "-bt- telling a new listener of radio %s", radio.c_str());
        subscriber->onRadioArrival(radio);
    }
    return true;
}

void BluetoothMicrosoftBus::find_radios() {
    BT_LOG(3, "find_radios", "Bluetooth - find_radios");
    std::uint32_t sys = 0;
    const std::vector<std::string> found = bluetooth_->radios(sys);
    if (sys != 0)
        BT_LOG(1, "find_radios", "-bt- SetupDiGetDeviceInterfaceDetail error %d",
               static_cast<int>(sys));
    for (const std::string& radio : found) {
        BT_LOG(3, "find_radios", "-bt- radio found: %s", radio.c_str());
        onRadioArrival(radio);
    }
    BT_LOG(3, "find_radios", "-bt- find_radios exit (%d radios)", static_cast<int>(found.size()));
}

void BluetoothMicrosoftBus::produceRadio(bool arrival, const std::string& radio) {
    using External = IBluetoothBus::RadioArrivalRemovalExternal;
    if (arrival) {
        Producer<External>::produce([radio](External* s) { s->onRadioArrival(radio); },
                                    event_names::RadioArrivalRemoval.onRadioArrival);
    } else {
        Producer<External>::produce([radio](External* s) { s->onRadioRemoval(radio); },
                                    event_names::RadioArrivalRemoval.onRadioRemoval);
    }
}

// A radio needs no handle of its own here: its events come with the
// interface notification of the radio class, each naming its radio.
void BluetoothMicrosoftBus::onRadioArrival(const std::string& radio) {
    BT_LOG(3, "onRadioArrival", "radio arrived: %s", radio.c_str());
    {
        std::lock_guard<std::mutex> lock(radio_mutex_);
        radios_.insert(radio);
    }
    produceRadio(true, radio);
}

void BluetoothMicrosoftBus::onRadioRemoval(const std::string& radio) {
    bool known = false;
    {
        std::lock_guard<std::mutex> lock(radio_mutex_);
        known = radios_.erase(radio) != 0;
    }
    if (known) BT_LOG(3, "onRadioRemoval", "Bluetooth - radio was removed");
    // A radio that goes takes its connections with it.
    std::vector<std::shared_ptr<BluetoothMicrosoftDevice>> devices;
    {
        std::lock_guard<std::mutex> lock(address_mutex_);
        for (const auto& [address, device] : addresses_) devices.push_back(device);
    }
    for (const auto& device : devices) {
        if (device->connected_radio({}, kBusTypeNoPathLookup) == radio) device->tell_disconnect();
    }
    produceRadio(false, radio);
}

bool BluetoothMicrosoftBus::has_radio(const std::string& radio) {
    std::lock_guard<std::mutex> lock(radio_mutex_);
    return radios_.count(radio) != 0;
}

std::shared_ptr<BluetoothMicrosoftDevice> BluetoothMicrosoftBus::find(std::uint64_t address) {
    std::lock_guard<std::mutex> lock(address_mutex_);
    const auto it = addresses_.find(address);
    return it == addresses_.end() ? nullptr : it->second;
}

std::shared_ptr<BluetoothMicrosoftDevice> BluetoothMicrosoftBus::get_or_make(std::uint64_t address,
                                                                             int bustype) {
    std::lock_guard<std::mutex> lock(address_mutex_);
    auto& slot = addresses_[address];
    if (!slot) {
        slot = std::make_shared<BluetoothMicrosoftDevice>(
            weak_from_this(), bluetoothAddressText(address), address, bustype);
    }
    return slot;
}

std::shared_ptr<IBluetoothDevice> BluetoothMicrosoftBus::device_paired_on_path(
    const std::string& path) {
    BT_LOG(3, "device_paired_on_path", "device_paired_on_path entry");
    {
        std::lock_guard<std::mutex> lock(address_mutex_);
        const auto it = path_cache_.find(path);
        if (it != path_cache_.end()) {
            if (it->second) {
                BT_LOG(3, "device_paired_on_path",
                       "device_paired_on_path - Got cached address %s for path %s",
                       it->second->address().c_str(), path.c_str());
            } else {
                BT_LOG(3, "device_paired_on_path",
                       "device_paired_on_path - Got cached no address for path %s", path.c_str());
            }
            return it->second;
        }
    }
    auto found = device_paired_on_path_internal(path, 2);
    BT_LOG(3, "device_paired_on_path", "device_paired_on_path bluetooth check returned %d",
           found ? 1 : 0);
    if (!found) {
        BT_LOG(3, "device_paired_on_path", "device_paired_on_path checking BLE");
        found = device_paired_on_path_internal(path, 3);
    }
    {
        // A device's path stays the same across reconnects, so an answer,
        // negative or not, holds for the life of the bus.
        std::lock_guard<std::mutex> lock(address_mutex_);
        path_cache_.emplace(path, found);
    }
    BT_LOG(3, "device_paired_on_path", "device_paired_on_path exit, returning %d", found ? 1 : 0);
    return found;
}

// The machine's record of a paired device: the HID node names the device's
// address, and the Bluetooth stack, where it runs, must know the device as
// paired. Without a stack the node alone answers, as the record would.
std::shared_ptr<BluetoothMicrosoftDevice> BluetoothMicrosoftBus::device_paired_on_path_internal(
    const std::string& path, int bustype) {
    BT_LOG(3, "device_paired_on_path_internal",
           "device_paired_on_path_internal - path %s bustype %d", path.c_str(), bustype);
    BT_LOG(3, "device_paired_on_path_internal",
           "device_paired_on_path - Testing if path %s is paired to bus type %s", path.c_str(),
           bustype == 2 ? "bluetooth" : "ble");
    auto stack = bluetooth();
    std::uint64_t address = 0;
    int bearer = 0;
    if (!stack || !stack->address_of_path(path, address, bearer)) {
        BT_LOG(3, "device_paired_on_path_internal", "-bt- Returning %d no address for path %s",
               bustype, path.c_str());
        return nullptr;
    }
    std::string why;
    const bool asked = stack->available(why);
    if (asked) {
        const int known = stack->bearer(address);
        if (known != 0) bearer = known;
    }
    if (bearer != bustype || (asked && stack->radio_of(address).empty())) {
        BT_LOG(3, "device_paired_on_path_internal", "-bt- Returning %d no address for path %s",
               bustype, path.c_str());
        return nullptr;
    }
    const std::string text = bluetoothAddressText(address);
    if (bustype == 3) {
        BT_LOG(3, "device_paired_on_path_internal", "-bt- Got BLE address %s for path %s",
               text.c_str(), path.c_str());
    } else {
        BT_LOG(3, "device_paired_on_path_internal", "-bt- Got address %s for path %s", text.c_str(),
               path.c_str());
    }
    auto device = get_or_make(address, bustype);
    BT_LOG(3, "device_paired_on_path_internal",
           "device_paired_on_path - Returning address %s for path %s", text.c_str(), path.c_str());
    return device;
}

bool BluetoothMicrosoftBus::get_connect_state_via_bgdi(std::uint64_t address, int bustype,
                                                       bool* connected, std::string* radio,
                                                       std::string* name) {
    const std::string text = bluetoothAddressText(address);
    BT_LOG(3, "get_connect_state_via_bgdi",
           "BluetoothMicrosoftBus::get_connect_state_via_bgdi entry, addr=%s", text.c_str());
    std::vector<std::string> radios;
    {
        std::lock_guard<std::mutex> lock(radio_mutex_);
        radios.assign(radios_.begin(), radios_.end());
    }
    auto stack = bluetooth();
    ErrorCode result = RadioNotPresent;
    std::uint32_t sys = kNoRadio;
    // The walk does not stop at a connected radio: the last radio that
    // answers decides.
    for (const std::string& each : radios) {
        BluetoothDeviceInfo info;
        const std::uint32_t status = stack ? stack->device_info(each, address, info) : ENODEV;
        if (status != 0) {
            BT_LOG(1, "get_connect_state_via_bgdi",
                   "-bt- BluetoothGetDeviceInfo addr=%s radio=%s returned error %08x gle=0x%x",
                   text.c_str(), each.c_str(), status, status);
            if (result == RadioNotPresent) {
                result = BluetoothDeviceInfoFailed;
                sys = status;
            }
            continue;
        }
        BT_LOG(3, "get_connect_state_via_bgdi",
               "-bt- BluetoothGetDeviceInfo addr=%s radio=%s -> class=%x, conn=%d, remem=%d, "
               "auth=%d",
               text.c_str(), each.c_str(), info.class_of_device, info.connected ? 1 : 0,
               info.remembered ? 1 : 0, info.remembered ? 1 : 0);
        if (name) {
            *name = info.name;
            BT_LOG(3, "get_connect_state_via_bgdi", "BluetoothGetDeviceInfo name='%s'",
                   info.name.c_str());
        }
        const bool up = info.connected && (bustype != 2 || info.remembered);
        if (connected) *connected = up;
        if (radio) *radio = up ? each : std::string();
        BT_LOG(3, "get_connect_state_via_bgdi",
               up ? "get_connect_state_via_bgdi connected to %s"
                  : "get_connect_state_via_bgdi not connected to %s",
               each.c_str());
        result = Success;
        sys = 0;
    }
    set_error(result, result == Success ? nullptr : "get_connect_state_via_bgdi", sys);
    BT_LOG(3, "get_connect_state_via_bgdi", "get_connect_state_via_bgdi returning %d",
           static_cast<int>(result));
    return result == Success;
}

bool BluetoothMicrosoftBus::verify_pairing_via_bgdi(std::uint64_t address, std::string& radio,
                                                    int bustype) {
    BT_LOG(3, "verify_pairing_via_bgdi",
           "BluetoothMicrosoftBus::verify_pairing_via_bgdi entry, addr=%s, pairing=%s",
           bluetoothAddressText(address).c_str(), radio.c_str());
    if (radio == PAIRING_UNKNOWN) {
        BT_LOG(3, "verify_pairing_via_bgdi",
               "BluetoothMicrosoftBus::verify_pairing_via_bgdi exit, skipping verifying "
               "PAIRING_UNKNOWN");
        return true;
    }
    if (!has_radio(radio)) {
        BT_LOG(3, "verify_pairing_via_bgdi", "verify_pairing_via_bgdi radio not present");
        set_error(RadioNotPresent);
        return false;
    }
    auto stack = bluetooth();
    BluetoothDeviceInfo info;
    const std::uint32_t status = stack ? stack->device_info(radio, address, info) : ENODEV;
    // A radio that no longer knows the device at all has forgotten its
    // pairing, which is what this asks.
    if (status != 0 && status != ENOENT) {
        set_error(BluetoothDeviceInfoFailed, "verify_pairing_via_bgdi", status);
        return false;
    }
    if (bustype != 2) {
        BT_LOG(3, "verify_pairing_via_bgdi",
               "verify_pairing_via_bgdi BLE doesn't get pairing info, so consider it paired");
    } else if (!info.remembered) {
        radio.clear();
        BT_LOG(3, "verify_pairing_via_bgdi", "verify_pairing_via_bgdi not paired");
    } else {
        BT_LOG(3, "verify_pairing_via_bgdi", "verify_pairing_via_bgdi is paired");
    }
    set_error(Success);
    return true;
}

// The radio a device is paired to, from the Bluetooth stack's own record of
// the device behind the path.
std::string BluetoothMicrosoftBus::find_radio_via_pnp(const std::string& path) {
    auto stack = bluetooth();
    std::uint64_t address = 0;
    int bearer = 0;
    if (!stack || !stack->address_of_path(path, address, bearer)) return {};
    const std::string radio = stack->radio_of(address);
    BT_LOG(3, "find_radio_via_pnp", "-bt-  parent %d %s", 0, radio.c_str());
    return radio;
}

}  // namespace devio
