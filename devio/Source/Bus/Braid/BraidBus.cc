// BraidBus: the receiver's registers and the enumeration of its devices.

#include "Bus/Braid/BraidBus.h"

#include "Base/ErrorRecord.h"
#include "Base/InstanceCount.h"
#include "Base/RunLoopQueue.h"
#include "Bus/Braid/BraidDevice.h"
#include "Bus/Braid/BraidWire.h"
#include "Bus/Braid/VXP10Command.h"

namespace devio {

namespace {
using namespace braid;
constexpr Byte kOpenLock = 1, kCloseLock = 2, kUnpair = 3;
// Bytes 4 to 9 of the slot status answer: one per slot.
constexpr std::size_t kSlotStatusFirst = 4;
constexpr std::size_t kSlotStatusEnd = 10;
constexpr int kPasses = 3;
}  // namespace

BraidBus::BraidBus(std::shared_ptr<IHardwareDevice> hw,
                   const std::shared_ptr<IDeviceManager>& manager, unsigned maxDevices_,
                   unsigned protocolByte_, const ExchangeTiming& timing)
    : Device(hw, timing),
      receiver_hw(std::move(hw)),
      slots(maxDevices_),
      slotStatus(maxDevices_, 0),
      maxDevices(maxDevices_),
      protocolByte(protocolByte_),
      bus_active(manager ? manager->is_active() : true) {
    BRAID_LOG(3, "BraidBus", "BraidBus::BraidBus(this = %p). Number of instances now: %d",
              static_cast<void*>(this), InstanceCount<BraidBus>::added());
}

BraidBus::~BraidBus() {
    // A restoring event queued for us, or running on the pumping thread,
    // must be gone before our members are.
    runloop_queue().remove_runloop_events(static_cast<IReceiver::RegisterZeroOverwritten*>(this),
                                          nullptr);
    BRAID_LOG(3, "~BraidBus", "BraidBus::~BraidBus(this = %p). Number of instances now: %d",
              static_cast<void*>(this), InstanceCount<BraidBus>::removed());
}

std::shared_ptr<BraidBus> BraidBus::self() {
    return std::static_pointer_cast<BraidBus>(weak_from_this().lock());
}

std::shared_ptr<BraidDevice> BraidBus::device_at(unsigned index) {
    std::lock_guard<std::mutex> lock(devicesLock);
    return index < slots.size() ? slots[index] : nullptr;
}

std::vector<std::shared_ptr<IDevice>> BraidBus::devices_on_receiver() {
    auto manager = Device::manager().lock();
    if (!manager) return {};
    return manager->devices_on_bus(std::static_pointer_cast<IHardwareBus>(self()));
}

bool BraidBus::isTwoDeviceProduct() {
    const int product = pid();
    return product == 0xA102 || product == 0xA103;
}

bool BraidBus::register_command(const std::vector<Byte>& command, std::vector<Byte>& response) {
    if (!sendSynchronousCommand(command, response, 0, {})) return false;
    if (response.size() < kShortReport) {
        set_error(CommandResponseTooShort);
        return false;
    }
    return true;
}

bool BraidBus::short_register_bit_operation(Byte reg, Byte set0, Byte set1, Byte set2, Byte clear0,
                                            Byte clear1, Byte clear2) {
    BRAID_LOG(2, "short_register_bit_operation",
              "BraidBus::short_register_bit_operation(%02x: set %02x %02x %02x clear %02x %02x "
              "%02x ) enter",
              reg, set0, set1, set2, clear0, clear1, clear2);
    std::vector<Byte> command{kReportId, kReceiverIndex, kReadShort, reg, 0, 0, 0};
    std::vector<Byte> response;
    auto failed = [&]() {
        if (error_record().err == CommandResponseTooShort) {
            BRAID_LOG(2, "short_register_bit_operation",
                      "BraidBus::short_register_bit_operation exit (false, "
                      "CommandResponseTooShort)");
        } else {
            BRAID_LOG(2, "short_register_bit_operation",
                      "BraidBus::short_register_bit_operation exit (false, error)");
        }
        return false;
    };
    if (!register_command(command, response)) return failed();
    const Byte set[3] = {set0, set1, set2};
    const Byte clear[3] = {clear0, clear1, clear2};
    bool changed = false;
    for (int i = 0; i < 3; ++i) {
        const Byte old = response[4 + i];
        command[4 + i] = static_cast<Byte>((old & ~clear[i]) | set[i]);
        changed = changed || command[4 + i] != old;
    }
    if (!changed) {
        BRAID_LOG(2, "short_register_bit_operation",
                  "BraidBus::short_register_bit_operation exit (true, no change)");
        return true;
    }
    command[2] = kWriteShort;
    if (!register_command(command, response)) return failed();
    BRAID_LOG(2, "short_register_bit_operation",
              "BraidBus::short_register_bit_operation exit (true, success)");
    return true;
}

void BraidBus::monitor_register_zero() {
    if (registerZeroMonitoring.exchange(true)) return;
    // Restoring sends commands, so it runs on the host's thread, not in the
    // read handler that sees the overwrite.
    auto me = std::static_pointer_cast<IReceiver>(self());
    if (!me || !Subscriber<IReceiver::RegisterZeroOverwritten>::subscribe(me, DeliveryRunLoop)) {
        BRAID_LOG(1, "BraidBus",
                  "BraidBus::BraidBus subscribe(IReceiver::RegisterZeroOverwritten) failed");
    }
}

bool BraidBus::enable_receiver_notifications() {
    if (notificationsEnabled) return true;
    monitor_register_zero();
    BRAID_LOG(2, "enable_receiver_notifications", "BraidBus::enable_receiver_notifications enter");
    if (!short_register_bit_operation(kRegisterZero, 0, kWirelessNotifications, 0, 0, 0, 0)) {
        BRAID_LOG(2, "enable_receiver_notifications",
                  "BraidBus::enable_receiver_notifications exit (false, error)");
        return false;
    }
    notificationsEnabled = true;
    BRAID_LOG(2, "enable_receiver_notifications",
              "BraidBus::enable_receiver_notifications exit (true, success)");
    return true;
}

bool BraidBus::set_software_present() {
    if (softwarePresent) return true;
    monitor_register_zero();
    // Set before the command, whatever its result: the restoring of an
    // overwritten register 0 then brings the bit back.
    softwarePresent = true;
    return short_register_bit_operation(kRegisterZero, 0, kSoftwarePresent, 0, 0, 0, 0);
}

bool BraidBus::rewrite_register_3(unsigned /*index*/) {
    std::vector<Byte> command{kReportId, kReceiverIndex, kReadShort, kRegister3, 0, 0, 0};
    std::vector<Byte> response;
    if (!register_command(command, response)) return false;
    command = {kReportId,   kReceiverIndex, kWriteShort, kRegister3,
               response[4], response[5],    response[6]};
    return register_command(command, response);
}

bool BraidBus::connection_and_disconnection(const char* function, Byte action, Byte deviceNumber) {
    const std::string fn = std::string("devio::BraidBus::") + function;
    std::vector<Byte> response;
    if (!register_command(
            {kReportId, kReceiverIndex, kWriteShort, kPairing, action, deviceNumber, 0},
            response)) {
        if (error_record().err == CommandResponseTooShort) {
            xLog("Devio", 2, fn.c_str(),
                 "BraidBus::VXP_DEVICE_CONNECTION_AND_DISCONNECTION exit (false, "
                 "CommandResponseTooShort)");
        } else {
            xLog("Devio", 2, fn.c_str(),
                 "BraidBus::VXP_DEVICE_CONNECTION_AND_DISCONNECTION exit (false, error)");
        }
        return false;
    }
    return true;
}

bool BraidBus::open_lock() {
    return connection_and_disconnection("open_lock", kOpenLock, 0);
}

bool BraidBus::close_lock() {
    return connection_and_disconnection("close_lock", kCloseLock, 0);
}

bool BraidBus::unpair(unsigned deviceNumber) {
    return connection_and_disconnection("unpair", kUnpair, static_cast<Byte>(deviceNumber));
}

bool BraidBus::readSlotStatus() {
    std::vector<Byte> response;
    if (!sendSynchronousCommand({kReportId, kReceiverIndex, kReadLong, kSlotStatus, 0, 0, 0},
                                response, 0, {})) {
        return false;
    }
    Slots now;
    std::vector<Byte> status;
    {
        std::lock_guard<std::mutex> lock(devicesLock);
        if (response.size() >= kSlotStatusEnd) {
            for (std::size_t i = kSlotStatusFirst; i < kSlotStatusEnd; ++i) {
                if (i - kSlotStatusFirst < slotStatus.size())
                    slotStatus[i - kSlotStatusFirst] = response[i];
            }
        }
        now = slots;
        status = slotStatus;
    }
    for (std::size_t i = 0; i < maxDevices && i < status.size() && i < now.size(); ++i) {
        if (now[i]) now[i]->set_slot_status(status[i]);
    }
    return true;
}

std::vector<std::shared_ptr<IHardwareDevice>> BraidBus::internal_devices() {
    BRAID_LOG(2, "devices", "BraidBus::devices enter");
    if (!bus_active) {
        BRAID_LOG(3, "devices",
                  "BraidBus::devices() - device is inactive. Not enumerating devices (we will do "
                  "that when we become active again).");
        return {};
    }
    if (!enable_receiver_notifications()) {
        BRAID_LOG(0, "devices", "BraidBus::devices exit (failed to enable receiver notifications)");
        return {};
    }
    for (int pass = kPasses; pass > 0; --pass) {
        unsigned count = 0;
        if (!VXP10Command::read_receiver_connection_state(this, &count, nullptr)) {
            BRAID_LOG(2, "devices",
                      "BraidBus::devices exit (failed to read receiver device count)");
            return {};
        }
        receiverDeviceCount = count;
        {
            std::lock_guard<std::mutex> lock(arrivalLock);
            arrivalCounts.clear();
        }
        BRAID_LOG(2, "devices",
                  "BraidBus::devices() - there are %d devices connected to the Braid receiver.",
                  static_cast<int>(count));
        BRAID_LOG(2, "devices", "===> Starting receiver enumeration...");
        enumerating = true;
        // The arrival reports reach onRead, on the read thread, before the
        // answer to this request.
        if (!VXP10Command::set_receiver_connection_state(this, true)) {
            BRAID_LOG(2, "devices", "BraidBus::devices exit (failed fake device arrival request)");
            return {};
        }
        enumerating = false;
        BRAID_LOG(2, "devices", "===> ...receiver enumeration complete.");
        std::size_t unique = 0;
        {
            std::lock_guard<std::mutex> lock(arrivalLock);
            unique = arrivalCounts.size();
        }
        if (unique == receiverDeviceCount) break;
        BRAID_LOG(1, "devices",
                  "BraidBus::devices() - %d devices reported by receiver but only %d arrival "
                  "reports received. Retrying.",
                  static_cast<int>(receiverDeviceCount.load()), static_cast<int>(unique));
        if (auto manager = Device::manager().lock()) {
            set_error(ArrivalCountMismatch, "Braid device arrival unique count mismatch");
            manager->report_unreported_error("BraidBus");
        }
        if (pass == kPasses) {
            // The receiver may have lost the bit that makes it announce.
            notificationsEnabled = false;
            enable_receiver_notifications();
        }
    }
    std::vector<std::shared_ptr<IHardwareDevice>> result;
    {
        std::lock_guard<std::mutex> lock(devicesLock);
        for (const auto& device : slots) {
            if (device) result.push_back(device);
        }
    }
    if (result.empty()) set_error(Success);
    BRAID_LOG(2, "devices", "BraidBus::devices exit (success, returning %d devices)",
              static_cast<int>(result.size()));
    return result;
}

bool BraidBus::on_subscribe(IHardwareBus::PlugUnplug* /*subscriber*/) {
    BRAID_LOG(3, "on_subscribe", "BraidBus::on_subscribe(this=%p)", static_cast<void*>(this));
    if (!bus_active) {
        BRAID_LOG(2, "on_subscribe",
                  "-- device is inactive, not enabling receiver_notifications yet");
        return true;
    }
    return enable_receiver_notifications();
}

void BraidBus::on_subscription_removed(IHardwareBus::PlugUnplug* /*subscriber*/) {
    BRAID_LOG(3, "on_unsubscribe", "BraidBus::on_unsubscribe(this=%p)", static_cast<void*>(this));
}

bool BraidBus::follow_hardware_writes() {
    return Subscriber<IHardwareDevice::Write>::subscribe(receiver_hw, DeliveryDirect);
}

bool BraidBus::shutdown() {
    shuttingDown = true;
    try {
        if (softwarePresent &&
            !short_register_bit_operation(kRegisterZero, 0, 0, 0, 0, kSoftwarePresent, 0)) {
            softwarePresent = false;
            return false;
        }
        softwarePresent = false;
    } catch (const std::exception&) {
        set_error(InternalError, "BraidBus::shutdown failed");
        return false;
    }
    return true;
}

}  // namespace devio
