#include "Bus/Braid/BraidDevice.h"

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Base/InstanceCount.h"
#include "Bus/Braid/BraidBus.h"
#include "Bus/Braid/VXP10Command.h"

#define BRAID_DEVICE_LOG(level, function, ...) \
    DEVIO_LOG_TAG("Devio", "BraidDevice", level, function, __VA_ARGS__)

namespace devio {

BraidDevice::BraidDevice(const std::shared_ptr<BraidBus>& bus, unsigned index, unsigned qid,
                         bool connected)
    : path_(bus->path() + ":" + std::to_string(index)),
      bus_(bus),
      index_(index),
      qid_(qid),
      connected_(connected) {
    BRAID_DEVICE_LOG(3, "BraidDevice",
                     "BraidDevice::BraidDevice(qid = %04x). Number of instances now: %d", qid_,
                     InstanceCount<BraidDevice>::added());
}

BraidDevice::~BraidDevice() {
    BRAID_DEVICE_LOG(3, "~BraidDevice",
                     "BraidDevice::~BraidDevice(qid = %04x). Number of instances now: %d", qid_,
                     InstanceCount<BraidDevice>::removed());
}

std::shared_ptr<IHardwareBus> BraidDevice::bus() {
    return bus_.lock();
}

std::shared_ptr<BraidBus> BraidDevice::locked_bus(const char* function) {
    auto bus = bus_.lock();
    if (!bus) {
        BRAID_DEVICE_LOG(2, "locked_bus", "BraidDevice::%s: bus is gone", function);
        set_error(DeviceRemoved);
    }
    return bus;
}

bool BraidDevice::write(std::vector<Byte> report, bool wait) {
    // Commands of the layers above address "the device itself" (0xFF); on
    // the receiver's link the device is its device number.
    if (report.size() > 1) report[1] = static_cast<Byte>(index_ + 1);
    auto bus = bus_.lock();
    if (!bus) {
        BRAID_DEVICE_LOG(0, "write", "BraidDevice::write() device removed!");
        set_error(DeviceRemoved);
        return false;
    }
    if (!connected_) {
        BRAID_DEVICE_LOG(0, "write", "BraidDevice::write() not connected!");
        set_error(NotConnected);
        return false;
    }
    disconnectedSinceWrite = false;
    if (!bus->Device::sendCommand(report, wait)) {
        BRAID_DEVICE_LOG(0, "write", "BraidDevice::write() sbus->sendCommand failed!");
        return false;
    }
    return true;
}

std::string BraidDevice::name() {
    {
        std::lock_guard<std::mutex> lock(name_mutex);
        if (nameRead) return name_;
    }
    auto bus = locked_bus("name");
    if (!bus) return {};
    std::string read;
    if (!VXP10Command::read_receiver_paired_device_name(bus.get(), index_, &read)) {
        BRAID_DEVICE_LOG(0, "name", "BraidBus::devices() failed to read device name.");
        return {};
    }
    // An empty name may only mean that the receiver has none yet: ask again
    // next time.
    if (!read.empty()) {
        std::lock_guard<std::mutex> lock(name_mutex);
        name_ = read;
        nameRead = true;
    }
    return read;
}

int BraidDevice::hw_value() {
    auto bus = bus_.lock();
    return bus ? bus->Device::hw_value() : 0;
}

bool BraidDevice::verify_connection_following_timeout() {
    if (disconnectedSinceWrite) {
        BRAID_DEVICE_LOG(2, "verify_connection_following_timeout",
                         "BraidDevice::verify_connection_following_timeout() exit, returning false "
                         "(disconnected since last write)");
        return false;
    }
    BRAID_DEVICE_LOG(2, "verify_connection_following_timeout",
                     "BraidDevice::verify_connection_following_timeout() exit, returning true");
    return true;
}

bool BraidDevice::configuring_receiver() {
    auto bus = locked_bus("configuring_receiver");
    return bus && bus->set_software_present();
}

bool BraidDevice::configuring_device() {
    auto bus = locked_bus("configuring_device");
    return bus && bus->rewrite_register_3(index_);
}

bool BraidDevice::done_configuring_receiver() {
    auto bus = locked_bus("done_configuring_receiver");
    return bus && bus->shutdown();
}

void BraidDevice::processConnect() {
    connected_ = true;
    // Not from the constructor or the destructor, where there is no owner.
    auto self = weak_from_this().lock();
    if (!self) {
        BRAID_DEVICE_LOG(3, "processConnect",
                         "   -- not producing IHardwareDevice::Connect::onConnect(), no from_this");
        return;
    }
    BRAID_DEVICE_LOG(2, "processConnect",
                     "-connect- qid %04x producing IHardwareDevice::onConnect()", qid_);
    Producer<IHardwareDevice::Connect>::produce(
        [self](IHardwareDevice::Connect* s) { s->onConnect(self); },
        event_names::BraidDeviceConnect.onConnect);
}

void BraidDevice::processDisconnect() {
    connected_ = false;
    disconnectedSinceWrite = true;
    auto self = weak_from_this().lock();
    if (!self) {
        BRAID_DEVICE_LOG(
            3, "processDisconnect",
            "   -- not producing IHardwareDevice::Connect::onDisconnect(), no from_this");
        return;
    }
    BRAID_DEVICE_LOG(2, "processDisconnect",
                     "   -- producing IHardwareDevice::Connect::onDisconnect()");
    Producer<IHardwareDevice::Connect>::produce(
        [self](IHardwareDevice::Connect* s) { s->onDisconnect(self); },
        event_names::BraidDeviceConnect.onDisconnect);
}

void BraidDevice::deliver_read(const std::vector<Byte>& report, unsigned sys_error, unsigned size) {
    // The layers above take the report as coming from "the device itself".
    Producer<IHardwareDevice::Read>::produce(
        [report, sys_error, size](IHardwareDevice::Read* s) {
            s->onRead(report, true, sys_error, size);
        },
        event_names::BraidDeviceRead.onRead);
}

void BraidDevice::deliver_write(const std::vector<Byte>& report, ErrorCode err, unsigned value) {
    Producer<IHardwareDevice::Write>::produce(
        [report, err, value](IHardwareDevice::Write* s) { s->onWrite(report, err, value); },
        event_names::BraidDeviceWrite.onWrite);
}

bool BraidDevice::on_subscribe(IHardwareDevice::Write* /*subscriber*/) {
    auto bus = locked_bus("on_subscribe");
    return bus && bus->follow_hardware_writes();
}

}  // namespace devio
