#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Base/Producer.h"
#include "Base/Subscriber.h"
#include "Bus/IBluetoothDevice.h"
#include "Bus/IHardwareDevice.h"

namespace devio {

class PairingBus;

// The hardware device that the layers above hold for everything that passes
// the pairing filter. It joins three things that come and go apart: the
// data path (`_hwdev`, the lower device, absent while the device is off), an
// optional monitor (a second lower device of the same device, only read),
// and `_btdev`, the paired device as the radio sees it, which tells about
// connection and pairing. For a corded device `_btdev` is null and the
// object only relays.
//
// Two bits make the state the layers above see: `_hwdev` present and
// `_bt_connected`; data flows when both hold.
//
// Threads: the pumping thread runs the bus's calls and the run-loop events
// of `_btdev`; any thread writes; the lower devices' read threads relay
// reads (under their producer's lock); `onBtFastConnect` runs on the thread
// of the radio monitor. `state_mutex` guards every field but the constant
// ones and `_realtime_bt_connected`; it is never held while a lower device
// or `_btdev` is called or an event is produced, since a reader above may
// close this device from a lower device's read thread.
class PairingDevice : public IHardwareDevice,
                      public Subscriber<IHardwareDevice::Read>,
                      public Subscriber<IHardwareDevice::Write>,
                      public Subscriber<IBluetoothDevice::BtConnect>,
                      public Subscriber<IBluetoothDevice::BtFastConnect>,
                      public Subscriber<IBluetoothDevice::BtUnpair>,
                      public Producer<IHardwareDevice::Read>,
                      public Producer<IHardwareDevice::Write>,
                      public Producer<IHardwareDevice::Connect>,
                      public std::enable_shared_from_this<PairingDevice> {
public:
    // Bus types of the radio's Low Energy devices and of the vendor GATT
    // transport.
    static constexpr int kBusTypeBle = 3;
    static constexpr int kBusTypeGatt = 4;

    // `hwdev` is null for a device known only from the cache. `radio` is
    // PAIRING_UNKNOWN until known. `lower_bustype` is the bus type of the
    // data path (4 for the vendor GATT transport).
    PairingDevice(const std::shared_ptr<PairingBus>& bus, std::shared_ptr<IHardwareDevice> hwdev,
                  std::string path, unsigned pid, std::string name,
                  std::shared_ptr<IBluetoothDevice> btdev, std::string radio, int lower_bustype);
    ~PairingDevice() override;

    // IHardwareDevice
    bool connected() override;
    bool open() override;
    void close() override;
    bool write(std::vector<Byte> report, bool blocking) override;
    std::shared_ptr<IHardwareBus> bus() override;
    std::string path() override { return path_; }
    int pid() override { return static_cast<int>(pid_); }
    std::string name() override;
    int bustype() override { return bustype_; }
    int busport() override;
    bool verify_connection_following_timeout() override;

    // For the pairing bus.
    void add_monitor(const std::shared_ptr<IHardwareDevice>& hwdev);
    // Takes the monitor off and gives it back: any monitor when `hwdev` is
    // null, else only one with the path of `hwdev`. Null when none matched.
    std::shared_ptr<IHardwareDevice> remove_monitor(const std::shared_ptr<IHardwareDevice>& hwdev);
    bool has_monitor();
    // The data path came back, or went.
    void data_connect(const std::shared_ptr<IHardwareDevice>& hwdev);
    void data_disconnect();
    // Paired to a radio that is present: the layers above may see it.
    bool visible();
    std::string radio();
    const std::shared_ptr<IBluetoothDevice>& btdev() const { return _btdev; }
    // True when the pairing is known to be lost.
    bool pairing_lost();
    // Takes `name` when none is known yet.
    void set_name_if_empty(const std::string& name);
    // A BLE device whose data path is the vendor GATT transport.
    bool gatt_data_path() const { return gatt_data_path_; }

    // From the lower devices.
    void onRead(std::vector<Byte> report, bool rewrite_index, unsigned sys_error,
                unsigned size) override;
    void onWrite(std::vector<Byte> report, ErrorCode err, unsigned value) override;

    // From `_btdev`.
    void onBtConnect(const std::string& radio) override;
    void onBtPairingResolve(const std::string& radio) override;
    void onBtDisconnect() override;
    void onBtFastConnect(const std::string& radio) override;
    void onBtFastDisconnect() override;
    void onBtUnpair(const std::string& radio) override;

protected:
    bool on_subscribe(IHardwareDevice::Connect* subscriber) override;
    bool on_subscribe(IHardwareDevice::Read* subscriber) override;
    bool on_subscribe(IHardwareDevice::Write* subscriber) override;

private:
    void update_pairing(const std::string& radio);
    void produce_connect(bool up);
    // Opens `device` if the upper layers read, for a link that came up.
    void open_for_reading(const std::shared_ptr<IHardwareDevice>& device, bool reading,
                          const char* failure);

    const std::weak_ptr<PairingBus> bus_;
    std::shared_ptr<IHardwareDevice> _hwdev;    // guarded by state_mutex
    std::shared_ptr<IHardwareDevice> _monitor;  // guarded by state_mutex
    bool gatt_data_path_ = false;               // set in the constructor
    bool opened = false;                        // guarded by state_mutex
    bool _bt_connected = false;                 // guarded by state_mutex
    bool reading = false;                       // guarded by state_mutex
    bool logging_writes = false;                // guarded by state_mutex
    const std::string path_;
    std::string name_;        // guarded by state_mutex
    bool name_known = false;  // guarded by state_mutex
    const unsigned pid_;
    int bustype_ = 0;  // set in the constructor
    const std::shared_ptr<IBluetoothDevice> _btdev;
    std::string radio_;  // guarded by state_mutex
    std::atomic<bool> _realtime_bt_connected{false};
    std::mutex state_mutex;
    // Serialises following and leaving the lower devices (the bookkeeping of
    // the Read and Write subscriptions); taken before `state_mutex`.
    std::mutex follow_mutex;
};

}  // namespace devio
