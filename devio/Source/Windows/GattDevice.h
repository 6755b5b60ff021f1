#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Base/Producer.h"
#include "Bus/IHardwareDevice.h"
#include "Windows/GattSystem.h"

namespace devio {

class GattBus;
class Win32Bus;

// One device that speaks the maker's protocol through the vendor GATT
// service: reports travel as values of its I/O characteristic. There is no
// read thread; the platform's thread calls back on each value change and
// that call produces Read.
//
// Threads: open, close and write from the callers' threads, as with the
// HID device; `gatt_event` on the platform's thread, where it touches only
// the producer and the constant pid. The flags are not guarded, except
// `destructed_`.
class GattDevice : public IHardwareDevice,
                   public Producer<IHardwareDevice::Write>,
                   public Producer<IHardwareDevice::Read>,
                   public Producer<IHardwareDevice::Connect> {
public:
    // Holds both buses weakly: a device made on the platform bus's window
    // thread must never be what keeps that bus alive.
    GattDevice(std::weak_ptr<GattBus> gatt_bus, std::weak_ptr<Win32Bus> bus,
               std::shared_ptr<IGattSystem> system, std::string path);
    ~GattDevice() override;

    bool connected() override { return true; }
    bool open() override;
    void close() override;
    bool write(std::vector<Byte> report, bool blocking) override;
    std::shared_ptr<IHardwareBus> bus() override;
    std::string path() override { return path_; }
    int pid() override { return pid_; }
    std::string name() override { return name_; }
    int bustype() override { return 4; }
    bool verify_connection_following_timeout() override;

protected:
    using Producer<IHardwareDevice::Write>::on_subscribe;
    using Producer<IHardwareDevice::Connect>::on_subscribe;
    using Producer<IHardwareDevice::Write>::on_subscription_removed;
    using Producer<IHardwareDevice::Connect>::on_subscription_removed;
    bool on_subscribe(IHardwareDevice::Read* subscriber) override;
    void on_subscription_removed(IHardwareDevice::Read* subscriber) override;

private:
    bool open_gatt();
    void log_characteristic(const GattCharacteristic& c);
    void log_descriptors(const GattCharacteristic& c, bool io);
    bool read_enable();
    bool read_register();
    void read_unregister();
    void gatt_event(std::uint16_t attr, const std::vector<Byte>& value);
    bool write_event(const char* text);
    bool writes_off();

    bool reading_ = false;
    bool open_ = false;
    int pid_ = 0;
    std::string name_;
    std::weak_ptr<GattBus> gatt_bus_;
    std::weak_ptr<Win32Bus> win32_bus_;
    std::shared_ptr<IGattSystem> system_;
    std::string path_;
    std::vector<GattDescriptor> descriptors_;
    std::vector<GattCharacteristic> characteristics_;
    bool gatt_info_known_ = false;
    PlatformHandle handle_ = kInvalidHandle;
    std::uintptr_t notification_ = 0;
    bool registered_ = false;
    std::vector<std::uintptr_t> events_;
    bool any_notifications_enabled_ = false;
    bool all_notifications_enabled_ = false;
    bool fixed_length_ = false;
    std::atomic<bool> destructed_{false};
};

}  // namespace devio
