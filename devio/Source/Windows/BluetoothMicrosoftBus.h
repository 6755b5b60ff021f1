#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "Base/Producer.h"
#include "Base/Subscriber.h"
#include "Bus/IBluetoothBus.h"
#include "Windows/BluetoothSystem.h"
#include "Windows/IDeviceChangeSystem.h"

namespace devio {

class Win32Bus;
class BluetoothMicrosoftDevice;

// The Bluetooth monitor of the platform bus. It carries no data: it tells
// which HID path belongs to which paired device, which radios exist, and
// when a paired device connects, disconnects or loses its pairing.
//
// Threads: `process_wm_devicechange` runs on the platform bus's window
// thread; the internal radio events run on the pumping thread (delivery 0),
// except when `find_radios` calls them on the thread of `lazy_start`; the
// queries come from any thread. `radio_mutex_` guards the radios;
// `address_mutex_` guards the path cache and the devices by address;
// `start_mutex_` guards the start and the platform objects. Order:
// `start_mutex_`, then either of the others; never both of those. Once
// started, the queries no longer take `start_mutex_`, which is held while
// the start tells of the radios: a caller that holds a lock its radio
// handlers take (the pairing filter's) does not meet it, since a listener
// to the radios starts the bus as it subscribes.
class BluetoothMicrosoftBus : public IBluetoothBus,
                              public Producer<IBluetoothBus::RadioArrivalRemovalInternal>,
                              public Producer<IBluetoothBus::RadioArrivalRemovalExternal>,
                              public Subscriber<IBluetoothBus::RadioArrivalRemovalInternal>,
                              public std::enable_shared_from_this<BluetoothMicrosoftBus> {
public:
    BluetoothMicrosoftBus(std::weak_ptr<Win32Bus> bus, bool active);
    ~BluetoothMicrosoftBus() override;

    std::shared_ptr<IBluetoothDevice> device_paired_on_path(const std::string& path) override;
    void process_wm_devicechange(unsigned event, const void* header) override;

    // Starts the bus for a listener to the radios, and tells it of them.
    bool on_subscribe(IBluetoothBus::RadioArrivalRemovalExternal* subscriber) override;
    using Producer<IBluetoothBus::RadioArrivalRemovalInternal>::on_subscribe;

    // The internal radio events.
    void onRadioArrival(const std::string& radio) override;
    void onRadioRemoval(const std::string& radio) override;

    // For BluetoothMicrosoftDevice.
    bool lazy_start();
    bool get_connect_state_via_bgdi(std::uint64_t address, int bustype, bool* connected,
                                    std::string* radio, std::string* name);
    bool verify_pairing_via_bgdi(std::uint64_t address, std::string& radio, int bustype);
    bool has_radio(const std::string& radio);
    std::string find_radio_via_pnp(const std::string& path);

private:
    void find_radios();
    void stop();
    std::shared_ptr<IBluetoothSystem> bluetooth();
    std::shared_ptr<BluetoothMicrosoftDevice> device_paired_on_path_internal(
        const std::string& path, int bustype);
    std::shared_ptr<BluetoothMicrosoftDevice> get_or_make(std::uint64_t address, int bustype);
    std::shared_ptr<BluetoothMicrosoftDevice> find(std::uint64_t address);
    void produceRadio(bool arrival, const std::string& radio);
    void customEvent(const DeviceChangeHeader& header);
    void l2capEvent(const BluetoothChange& change);
    void inRangeEvent(const BluetoothChange& change);
    bool pairing_kept(const std::string& radio, std::uint64_t address);

    std::weak_ptr<Win32Bus> bus_;
    bool active_;  // guarded by start_mutex_
    // Written under start_mutex_; read without it once set.
    std::atomic<bool> started_{false};
    std::shared_ptr<IWin32System> system_;         // guarded by start_mutex_
    std::shared_ptr<IBluetoothSystem> bluetooth_;  // guarded by start_mutex_
    std::uintptr_t interface_notification_ = 0;    // guarded by start_mutex_
    std::recursive_mutex start_mutex_;
    // `bluetooth_` once made, for the readers that must not wait for
    // `start_mutex_`: the window thread, whom its holder may be waiting for,
    // and listeners that hold a lock of their own which a radio event
    // takes. Set once; the object lives as long as this bus.
    std::atomic<IBluetoothSystem*> published_stack_{nullptr};

    std::set<std::string> radios_;  // guarded by radio_mutex_
    std::mutex radio_mutex_;

    std::map<std::string, std::shared_ptr<BluetoothMicrosoftDevice>> path_cache_;
    std::map<std::uint64_t, std::shared_ptr<BluetoothMicrosoftDevice>> addresses_;
    std::mutex address_mutex_;  // guards path_cache_ and addresses_
};

}  // namespace devio
