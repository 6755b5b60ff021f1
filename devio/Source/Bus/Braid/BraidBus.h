#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Base/Producer.h"
#include "Base/Subscriber.h"
#include "Bus/IHardwareBus.h"
#include "Bus/IReceiver.h"
#include "Device/Device.h"

namespace devio {

class BraidDevice;

// A wireless receiver: toward its USB hardware a Device (it answers
// register commands at device index 0xFF, through the whole command engine
// and its machine-wide mutex), toward the manager a bus whose devices are
// the devices paired to it, one BraidDevice per slot.
//
// Threads:
// - Enumeration (`devices`), activation and the register operations run on
//   the caller's thread and block in `sendSynchronousCommand`, while the
//   receiver's read thread runs `onRead`, which fills the slots from the
//   arrival reports that the enumeration asks for.
// - `onRead` and `onWrite` run on the read thread with the hardware's
//   producer lock held: they never send a command, and hand register-zero
//   restoring to the host's pumping thread through the event fabric.
// - `devicesLock` guards `devices` and the slot statuses, `arrivalLock`
//   guards `arrivalCounts`; each is held only for a short copy, never across
//   a command or the production of an event, and never together.
class BraidBus : public Device,
                 public IHardwareBus,
                 public IReceiver,
                 public Producer<IHardwareBus::PlugUnplug>,
                 public Producer<IReceiver::LockingChange>,
                 public Producer<IReceiver::RegisterZeroOverwritten>,
                 public Subscriber<IReceiver::RegisterZeroOverwritten> {
public:
    // `maxDevices` slots; `protocolByte` is byte 3 of this product's arrival
    // reports. Only a test passes a timing other than the product's.
    BraidBus(std::shared_ptr<IHardwareDevice> hw, const std::shared_ptr<IDeviceManager>& manager,
             unsigned maxDevices, unsigned protocolByte, const ExchangeTiming& timing = {});
    ~BraidBus() override;

    // IHardwareBus
    std::vector<std::shared_ptr<IHardwareDevice>> devices() override { return internal_devices(); }

    // IReceiver
    std::vector<std::shared_ptr<IDevice>> devices_on_receiver() override;
    bool readSlotStatus() override;
    bool isTwoDeviceProduct() override;
    bool open_lock() override;
    bool close_lock() override;
    bool unpair(unsigned deviceNumber) override;

    // Device: the receiver is handed back by clearing its software present
    // bit, not by the logic of a feature device.
    bool shutdown() override;
    void onRead(std::vector<Byte> report, bool rewrite_index, unsigned sys_error,
                unsigned size) override;
    void onWrite(std::vector<Byte> report, ErrorCode err, unsigned value) override;
    void onActiveChanged(bool active) override;

    // Its own event, delivered on the host's pumping thread.
    void onRegisterZeroOverwritten() override;

    // What the devices behind the receiver ask of it.
    bool set_software_present();
    bool rewrite_register_3(unsigned index);
    // Makes the bus's Device follow the hardware's writes, which it hands on
    // to the devices they were addressed to.
    bool follow_hardware_writes();
    unsigned max_devices() const { return maxDevices; }

    // Reads the register, applies set and clear masks to its three bytes
    // and writes it back when that changes anything.
    bool short_register_bit_operation(Byte reg, Byte set0, Byte set1, Byte set2, Byte clear0,
                                      Byte clear1, Byte clear2);
    bool enable_receiver_notifications();
    // The enumeration; also what `devices` of the bus returns.
    virtual std::vector<std::shared_ptr<IHardwareDevice>> internal_devices();

protected:
    using Device::on_subscribe;
    using Producer<IReceiver::LockingChange>::on_subscribe;
    using Producer<IReceiver::RegisterZeroOverwritten>::on_subscribe;
    using Producer<IDevice::Report>::on_subscription_removed;
    using Producer<IDevice::WriteReport>::on_subscription_removed;
    using Producer<IDevice::Connect>::on_subscription_removed;
    using Producer<IDevice::ConfigChange>::on_subscription_removed;
    using Producer<IReceiver::LockingChange>::on_subscription_removed;
    using Producer<IReceiver::RegisterZeroOverwritten>::on_subscription_removed;
    // A subscriber of arrivals and removals starts the receiver's
    // notifications (while the session is active).
    bool on_subscribe(IHardwareBus::PlugUnplug* subscriber) override;
    void on_subscription_removed(IHardwareBus::PlugUnplug* subscriber) override;

private:
    using Slots = std::vector<std::shared_ptr<BraidDevice>>;

    std::shared_ptr<BraidBus> self();
    std::shared_ptr<BraidDevice> device_at(unsigned index);
    // Subscribes to our own RegisterZeroOverwritten, once.
    void monitor_register_zero();
    // The pairing register: open, close or unpair.
    bool connection_and_disconnection(const char* function, Byte action, Byte deviceNumber);
    // One register command whose answer must be a whole short report.
    bool register_command(const std::vector<Byte>& command, std::vector<Byte>& response);

    // What the read thread does with the receiver's own notifications.
    void perform_arrival(const std::shared_ptr<BraidBus>& self, unsigned index, unsigned qid,
                         bool connected, bool fake);
    void perform_removal(const std::shared_ptr<BraidBus>& self, unsigned index);
    void perform_connect(unsigned index);
    void perform_disconnect(unsigned index);
    void perform_link(unsigned index, bool up);
    void produce_plug(const std::shared_ptr<IHardwareDevice>& device);
    void produce_unplug(const std::shared_ptr<IHardwareDevice>& device);

    const std::shared_ptr<IHardwareDevice> receiver_hw;
    std::mutex devicesLock;
    Slots slots;  // guarded by devicesLock
    std::atomic<bool> notificationsEnabled{false};
    std::atomic<bool> enumerating{false};
    std::vector<Byte> slotStatus;  // guarded by devicesLock
    std::atomic<bool> shuttingDown{false};
    std::atomic<bool> softwarePresent{false};
    std::atomic<bool> registerZeroMonitoring{false};
    std::atomic<std::uint32_t> receiverDeviceCount{0};
    std::map<unsigned, unsigned> arrivalCounts;  // guarded by arrivalLock
    std::mutex arrivalLock;
    const unsigned maxDevices;
    const unsigned protocolByte;
    std::atomic<bool> bus_active{true};
};

}  // namespace devio
