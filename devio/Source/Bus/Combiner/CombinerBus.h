#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Base/Producer.h"
#include "Base/Subscriber.h"
#include "Bus/Combiner/CombinerDevice.h"
#include "Bus/IHardwareBus.h"

namespace devio {

class IDeviceManager;

// A filter bus over a bus whose devices may come in pieces: a complete
// piece passes through unchanged, and the pieces of one physical device
// (same combine key) are joined into one CombinerDevice, which is announced
// once its pieces cover the collections it needs and withdrawn when it
// loses one. Every unplugged piece is passed on as well.
//
// Threads: `devices` runs on the caller's thread, onPlug and onUnplug on
// the underlying bus's thread. `combined_mutex` guards `combined`; events
// are produced without it, and it is never held while a piece is opened.
// `follow_mutex` serialises joining the underlying bus, which both threads
// may do.
class CombinerBus : public IHardwareBus,
                    public Producer<IHardwareBus::PlugUnplug>,
                    public Subscriber<IHardwareBus::PlugUnplug>,
                    public std::enable_shared_from_this<CombinerBus> {
public:
    // `manager` hears of failures that happen where no caller can be told.
    CombinerBus(std::shared_ptr<IHardwareBus> underlying, std::weak_ptr<IDeviceManager> manager);
    ~CombinerBus() override;

    std::vector<std::shared_ptr<IHardwareDevice>> devices() override;
    // Pairing monitors and secondary buses belong to the bus below; a
    // pairing filter above takes them from here.
    std::vector<std::shared_ptr<IBluetoothBus>> bluetooth_busses() override;
    std::vector<std::shared_ptr<IHardwareSecondaryBus>> secondary_busses() override;

    void onPlug(const std::shared_ptr<IHardwareDevice>& piece) override;
    void onUnplug(const std::shared_ptr<IHardwareDevice>& piece) override;
    void onPowerChange(bool standBy) override;

protected:
    bool on_subscribe(IHardwareBus::PlugUnplug* subscriber) override;

private:
    struct ByPath {
        bool operator()(const std::shared_ptr<CombinerDevice>& a,
                        const std::shared_ptr<CombinerDevice>& b) const {
            return a->path() < b->path();
        }
    };

    bool follow_underlying();
    void produce_plug(const std::shared_ptr<IHardwareDevice>& device);
    void produce_unplug(const std::shared_ptr<IHardwareDevice>& device);

    std::shared_ptr<IHardwareBus> underlying_;
    std::weak_ptr<IDeviceManager> manager_;
    std::set<std::shared_ptr<CombinerDevice>, ByPath> combined;  // guarded by combined_mutex
    std::mutex combined_mutex;
    std::mutex follow_mutex;
    std::atomic<bool> following{false};  // written under follow_mutex
};

}  // namespace devio
