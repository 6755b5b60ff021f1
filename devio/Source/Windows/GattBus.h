#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Base/Producer.h"
#include "Bus/IHardwareBus.h"
#include "Windows/GattSystem.h"
#include "Windows/IWin32System.h"

namespace devio {

class Win32Bus;

// The secondary bus of the platform bus that finds the devices offering the
// maker's protocol through a vendor GATT service, and tells of their
// arrival and removal from the platform bus's device-change messages.
//
// Threads: `devices` and `lazyStart` from any thread; the start runs under
// `mutex_`, which is held while the platform bus's window thread serves the
// registration. `process_wm_devicechange` runs on that window thread and
// therefore never takes `mutex_`: the platform objects are published under
// `objects_mutex_`, which guards nothing else.
class GattBus : public IHardwareSecondaryBus,
                public Producer<IHardwareBus::PlugUnplug>,
                public std::enable_shared_from_this<GattBus> {
public:
    explicit GattBus(std::weak_ptr<Win32Bus> bus);
    ~GattBus() override;

    std::vector<std::shared_ptr<IHardwareDevice>> devices() override;
    void process_wm_devicechange(unsigned event, const void* header) override;

    bool lazyStart();
    void read_failed_with_disconnect_error(const std::string& path);
    bool verify_device_exists(const std::string& path);

protected:
    bool on_subscribe(IHardwareBus::PlugUnplug* subscriber) override;
    // The platform's GATT binding; tests give another.
    virtual std::shared_ptr<IGattSystem> makeGattSystem(
        const std::shared_ptr<IWin32System>& system);

private:
    void find_interfaces(std::vector<std::shared_ptr<IHardwareDevice>>& out);
    void produceForPath(const std::string& path, bool arrival);
    std::shared_ptr<IGattSystem> gatt();
    std::shared_ptr<IWin32System> system();

    std::weak_ptr<Win32Bus> bus_;
    bool started_ = false;  // guarded by mutex_
    std::recursive_mutex mutex_;
    std::shared_ptr<IWin32System> system_;  // guarded by objects_mutex_
    std::shared_ptr<IGattSystem> gatt_;     // guarded by objects_mutex_
    std::mutex objects_mutex_;
    std::uintptr_t notification_ = 0;  // 0 until registered
};

}  // namespace devio
