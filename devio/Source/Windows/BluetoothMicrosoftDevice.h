#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "Base/Producer.h"
#include "Bus/IBluetoothDevice.h"

namespace devio {

class BluetoothMicrosoftBus;

// One paired Bluetooth device, by address, as its radio tells of it. It is
// made once per address and lives as long as its monitor.
//
// Threads: the connect, disconnect and unpair events are produced on the
// platform bus's window thread (radio removal: the pumping thread); the
// queries come from any thread. `mutex_` guards the connected radio and the
// two connection flags, and is never held while producing or asking the bus.
class BluetoothMicrosoftDevice : public IBluetoothDevice,
                                 public Producer<IBluetoothDevice::BtConnect>,
                                 public Producer<IBluetoothDevice::BtFastConnect>,
                                 public Producer<IBluetoothDevice::BtUnpair> {
public:
    BluetoothMicrosoftDevice(std::weak_ptr<BluetoothMicrosoftBus> bus, std::string address_text,
                             std::uint64_t address, int bustype);
    ~BluetoothMicrosoftDevice() override;

    bool connected() override;
    std::string connected_radio(const std::string& path, int bustype) override;
    bool verify_pairing(std::string& radio) override;
    bool radio_present(const std::string& radio) override;
    int bustype() override { return bustype_; }
    std::string name() override;
    bool verify_connection_following_timeout() override { return true; }
    std::shared_ptr<IBluetoothBus> bus() override;
    std::string address() override { return address_text_; }
    std::uint64_t address_value() const { return address_; }

    // Told by the bus, in this order of events.
    void tell_connect(const std::string& radio);
    void tell_disconnect();
    void tell_unpair(const std::string& radio);
    void resolve_unknown_connected_radio(const std::string& radio);

protected:
    bool on_subscribe(IBluetoothDevice::BtConnect* subscriber) override;
    using Producer<IBluetoothDevice::BtFastConnect>::on_subscribe;
    using Producer<IBluetoothDevice::BtUnpair>::on_subscribe;

private:
    const std::string address_text_;
    std::weak_ptr<BluetoothMicrosoftBus> bus_;
    bool connected_ = false;        // guarded by mutex_
    bool connected_known_ = false;  // guarded by mutex_
    std::string connected_radio_;   // guarded by mutex_
    std::mutex mutex_;
    const std::uint64_t address_;
    const int bustype_;
};

}  // namespace devio
