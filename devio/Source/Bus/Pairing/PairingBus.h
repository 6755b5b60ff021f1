#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Base/Producer.h"
#include "Base/Subscriber.h"
#include "Bus/IBluetoothBus.h"
#include "Bus/IHardwareBus.h"
#include "Bus/Pairing/PairingDevice.h"

namespace devio {

class IBluetoothDevice;
class IDeviceManager;

// A filter bus above the combiner, for a platform that has Bluetooth
// monitors. A paired Bluetooth device stays known while it is switched off:
// its HID interface may vanish and return, and the layers above keep one
// device through all that. Each lower device is wrapped in a PairingDevice,
// which outlives it; onUnplug is produced only when a device is really gone
// (unpaired, or its radio went), not when it merely disconnected. Pairings
// are remembered in `paired.xml` in the persistent data directory, so that a
// device that is off at the next start is still there. A corded device
// passes through wrapped, and is never remembered.
//
// A monitor is a second lower device of one BLE device (its HID interface
// beside its vendor GATT interface), attached to the other's PairingDevice
// only to be read. One that arrives before its data path is kept loose,
// under the device's Bluetooth address, until the data path appears.
//
// Threads: onPlug and onUnplug from below arrive through the run loop;
// `devices`, `refresh` and `persistent_data_directory` on the host's
// threads; the radio events directly on the monitor's thread. The
// recursive `state_mutex` makes each of them whole with respect to the
// others: it guards the two maps and the cache file's name, and is held
// while lower devices are opened and events produced (the manager hears
// them through the run loop), but never while subscribing to a monitor,
// whose thread may be delivering to this bus.
class PairingBus : public IHardwareBus,
                   public Producer<IHardwareBus::PlugUnplug>,
                   public Subscriber<IHardwareBus::PlugUnplug>,
                   public Subscriber<IBluetoothBus::RadioArrivalRemovalExternal>,
                   public std::enable_shared_from_this<PairingBus> {
public:
    // Reads configuration items 0 to 3 from `manager` once, here; without a
    // manager, their defaults.
    PairingBus(std::shared_ptr<IHardwareBus> bus, std::weak_ptr<IDeviceManager> manager);
    ~PairingBus() override;

    // IHardwareBus
    std::vector<std::shared_ptr<IHardwareDevice>> devices() override;
    void persistent_data_directory(const std::string& dir) override;
    void refresh() override;

    // For PairingDevice.
    void process_unpair(const std::shared_ptr<PairingDevice>& device);
    // Produces onPlug for the device if it is visible.
    void announce(const std::shared_ptr<PairingDevice>& device);
    // Tells the manager of a failure that no caller hears of.
    void report_unreported_error(const char* where);

    // From the bus below, through the run loop.
    void onPlug(const std::shared_ptr<IHardwareDevice>& hwdev) override;
    void onUnplug(const std::shared_ptr<IHardwareDevice>& hwdev) override;
    void onPowerChange(bool standBy) override;

    // From the Bluetooth monitors, directly.
    void onRadioArrival(const std::string& radio) override;
    void onRadioRemoval(const std::string& radio) override;

    // The name of the pairing cache in the persistent data directory.
    static constexpr const char* kCacheFileName = "paired.xml";

protected:
    bool on_subscribe(IHardwareBus::PlugUnplug* subscriber) override;

private:
    using Devices = std::map<std::string, std::shared_ptr<PairingDevice>>;

    std::shared_ptr<IBluetoothDevice> find_btdev(const std::string& path);
    bool detect_and_attach_monitor(const std::shared_ptr<IBluetoothDevice>& btdev,
                                   const std::shared_ptr<IHardwareDevice>& hwdev);
    void attach_loose_monitor(const std::shared_ptr<PairingDevice>& device);
    void detach_monitor(const std::shared_ptr<PairingDevice>& device);
    void destroy_monitor(const std::shared_ptr<IHardwareDevice>& hwdev);
    // A new PairingDevice for a lower device seen for the first time.
    std::shared_ptr<PairingDevice> track(const std::shared_ptr<IHardwareDevice>& hwdev,
                                         const std::shared_ptr<IBluetoothDevice>& btdev);
    // Forgets a device that lost its pairing, with its monitor kept loose.
    void forget(const std::string& path);
    void write_data();
    void produce_plug(const std::shared_ptr<IHardwareDevice>& device);
    void produce_unplug(const std::shared_ptr<IHardwareDevice>& device);

    std::shared_ptr<IHardwareBus> bus_;
    std::weak_ptr<IDeviceManager> manager_;
    Devices devices_;  // guarded by state_mutex
    std::map<std::string, std::shared_ptr<IHardwareDevice>>
        loose_monitors;      // guarded by state_mutex
    std::string cache_file;  // guarded by state_mutex
    bool bluetooth_active = false;
    bool ble_active = false;
    bool ble_monitor = true;
    bool use_blevx = false;
    std::recursive_mutex state_mutex;
};

}  // namespace devio
