#include "Windows/GattDevice.h"

#include <cstdio>

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Windows/GattBus.h"
#include "Windows/GattFraming.h"
#include "Windows/Win32Bus.h"

namespace devio {

namespace {

constexpr std::size_t kReportSize = gatt_framing::kReportSize;
constexpr std::size_t kDiscoveryLimit = 30;
constexpr std::size_t kValueLimit = 500;
constexpr unsigned kConfigGattWritesOff = 6;
constexpr std::size_t kLogChars = 256;

// "%02x " per byte, cut to fit the line.
std::string hex(const std::vector<Byte>& bytes) {
    std::string out;
    char two[4];
    for (Byte b : bytes) {
        if (out.size() + 3 >= kLogChars) break;
        std::snprintf(two, sizeof two, "%02x ", b);
        out += two;
    }
    return out;
}

void logBytes(int pid, const char* direction, const std::vector<Byte>& bytes) {
    DEVIO_LOG("GattDevice", 2, "log_report", "-bt- 0x%x [%s]: %s", static_cast<unsigned>(pid),
              direction, hex(bytes).c_str());
}

std::string flagsText(std::uint32_t flags) {
    static const std::pair<std::uint32_t, const char*> names[] = {
        {gatt_flag::kBroadcast, "B "},    {gatt_flag::kRead, "R "},
        {gatt_flag::kWrite, "W "},        {gatt_flag::kWriteWithoutResponse, "WWR "},
        {gatt_flag::kSignedWrite, "SW "}, {gatt_flag::kNotify, "N "},
        {gatt_flag::kIndicate, "I "},     {gatt_flag::kExtended, "E "},
    };
    std::string text;
    for (const auto& [bit, name] : names) {
        if (flags & bit) text += name;
    }
    return text;
}

// A UUID of the standard base as "0x%x" of its short form, any other whole.
std::string uuidText(const GattAttribute& a) {
    if (a.short_uuid == 0) return a.uuid;
    char text[8];
    std::snprintf(text, sizeof text, "0x%x", a.short_uuid);
    return text;
}

// Keeps the thread's error record across a cleanup that may overwrite it.
class KeepError {
public:
    KeepError() : kept_(error_record()) {}
    ~KeepError() { error_record() = kept_; }

private:
    ErrorRecord kept_;
};

}  // namespace

GattDevice::GattDevice(std::weak_ptr<GattBus> gatt_bus, std::weak_ptr<Win32Bus> bus,
                       std::shared_ptr<IGattSystem> system, std::string path)
    : gatt_bus_(std::move(gatt_bus)),
      win32_bus_(std::move(bus)),
      system_(std::move(system)),
      path_(std::move(path)) {}

GattDevice::~GattDevice() {
    destructed_ = true;
    close();
}

std::shared_ptr<IHardwareBus> GattDevice::bus() {
    return gatt_bus_.lock();
}

bool GattDevice::writes_off() {
    auto bus = win32_bus_.lock();
    return bus && bus->configItem(kConfigGattWritesOff);
}

bool GattDevice::open() {
    if (destructed_) {
        DEVIO_LOG("GattDevice", 3, "open",
                  "GattDevice::open enter/exit (false, already destructed)");
        return false;
    }
    if (open_) {
        DEVIO_LOG("GattDevice", 3, "open", "GattDevice::open exit (true, already open)");
        return true;
    }
    if (path_.empty()) {
        set_error(NoDevicePath);
        DEVIO_LOG("GattDevice", 2, "open", "GattDevice::open exit (false, no filepath)");
        return false;
    }
    std::uint32_t sys = 0;
    handle_ = system_->open(path_, sys);
    if (handle_ == kInvalidHandle) {
        set_error(CreateFileFailed, "CreateFile failed", sys);
        DEVIO_LOG("GattDevice", 2, "open", "GattDevice::open exit (false, CreateFile failed)");
        return false;
    }
    open_ = true;
    if (gatt_info_known_) {
        DEVIO_LOG("GattDevice", 3, "open", "GattDevice::open already got GATT info");
    } else {
        DEVIO_LOG("GattDevice", 3, "open", "GattDevice::open getting GATT info");
        if (!open_gatt()) {
            KeepError keep;
            close();
            DEVIO_LOG("GattDevice", 2, "open", "GattDevice::open exit (false, open_gatt error)");
            return false;
        }
        std::uint16_t vid = 0, pid = 0;
        if (system_->ids(path_, vid, pid)) {
            char vid_text[8], pid_text[8];
            std::snprintf(vid_text, sizeof vid_text, "%04X", vid);
            std::snprintf(pid_text, sizeof pid_text, "%04X", pid);
            DEVIO_LOG("GattDevice", 3, "open", "vid is %s and pid is %s", vid_text, pid_text);
            pid_ = pid;
        }
        gatt_info_known_ = true;
    }
    if (!win32_bus_.lock()) {
        DEVIO_LOG("GattDevice", 1, "open",
                  "GattDevice::open could not lock bus to register handle");
        close();
        set_error(ShuttingDown);
        DEVIO_LOG("GattDevice", 2, "open",
                  "GattDevice::open exit (false, not a vxp collection usage code)");
        return false;
    }
    // A GATT handle is no device node: the platform bus has nothing to
    // watch for it, and the device's going comes as the removal of its
    // GATT interface instead. The notification stays 0.
    if (reading_ && !read_register()) {
        KeepError keep;
        close();
        DEVIO_LOG("GattDevice", 2, "open",
                  "GattDevice::open exit (false, could not register for read events)");
        return false;
    }
    DEVIO_LOG("GattDevice", 3, "open", "GattDevice::open opened dev=%s", path_.c_str());
    DEVIO_LOG("GattDevice", 3, "open", "GattDevice::open exit (true)");
    return true;
}

void GattDevice::log_characteristic(const GattCharacteristic& c) {
    const std::string flags = flagsText(c.flags);
    DEVIO_LOG("GattDevice", 3, "open_gatt", "GATT         characteristic %s attr=%d flags=%s",
              uuidText(c).c_str(), c.attr, flags.c_str());
    std::vector<Byte> value;
    const std::uint32_t status = system_->read_value(handle_, c, kValueLimit, value);
    if (status != 0) {
        DEVIO_LOG(
            "GattDevice", 3, "open_gatt",
            "GATT             has no characteristic value (BluetoothGATTGetCharacteristicValue "
            "-> %x)",
            status);
        return;
    }
    DEVIO_LOG("GattDevice", 3, "open_gatt", "GATT             has %d byte characteristics value %s",
              static_cast<int>(value.size()), hex(value).c_str());
    DEVIO_LOG("GattDevice", 3, "open_gatt", "GATT                 decoded as size=%d value=%s",
              static_cast<int>(value.size()), hex(value).c_str());
}

void GattDevice::log_descriptors(const GattCharacteristic& c, bool io) {
    std::vector<GattDescriptor> found;
    if (system_->descriptors(handle_, c, kDiscoveryLimit, found) != 0) return;
    for (const GattDescriptor& d : found) {
        DEVIO_LOG("GattDevice", 3, "open_gatt", "GATT                 descriptor %s attr=%d",
                  uuidText(d).c_str(), d.attr);
        std::vector<Byte> value;
        system_->read_value(handle_, d, kValueLimit, value);
        if (d.type != kGattClientConfiguration) continue;
        const bool notify = !value.empty() && (value[0] & 1);
        const bool indicate = !value.empty() && (value[0] & 2);
        DEVIO_LOG("GattDevice", 3, "open_gatt",
                  "GATT                     client configuration notif=%d indication=%d", notify,
                  indicate);
        if (!io) continue;
        DEVIO_LOG("GattDevice", 3, "open_gatt",
                  "GATT                     will use this descriptor to enable VXP GATT");
        descriptors_.push_back(d);
    }
}

bool GattDevice::open_gatt() {
    descriptors_.clear();
    characteristics_.clear();
    std::vector<GattService> services;
    const std::uint32_t status = system_->services(handle_, kDiscoveryLimit, services);
    if (status != 0) {
        DEVIO_LOG("GattDevice", 2, "open_gatt",
                  "GATT     interface has no services (BluetoothGATTGetServices -> %x)", status);
    } else {
        DEVIO_LOG("GattDevice", 3, "open_gatt", "GATT     interface has %d services",
                  static_cast<int>(services.size()));
    }
    for (const GattService& service : services) {
        DEVIO_LOG("GattDevice", 3, "open_gatt", "GATT     service %s attr=%d",
                  uuidText(service).c_str(), service.attr);
        std::vector<GattCharacteristic> found;
        const std::uint32_t r = system_->characteristics(handle_, service, kDiscoveryLimit, found);
        if (r != 0) {
            DEVIO_LOG("GattDevice", 3, "open_gatt",
                      "GATT         has no characteristics (BluetoothGATTGetCharacteristics -> %x)",
                      r);
        }
        DEVIO_LOG("GattDevice", 3, "open_gatt", "GATT         has %d characteristics",
                  static_cast<int>(found.size()));
        for (const GattCharacteristic& c : found) {
            log_characteristic(c);
            bool io = false;
            if (c.uuid == kVxpGattFixed) {
                DEVIO_LOG("GattDevice", 3, "open_gatt",
                          "GATT             will use this characteristic is VXP GATT I/O (fixed "
                          "length)");
                characteristics_.push_back(c);
                io = true;
                fixed_length_ = true;
            } else if (c.uuid == kVxpGattVariable) {
                DEVIO_LOG("GattDevice", 3, "open_gatt",
                          "GATT             will use this characteristic is VXP GATT I/O "
                          "(variable length)");
                characteristics_.push_back(c);
                io = true;
            }
            log_descriptors(c, io);
        }
    }
    if (!characteristics_.empty() && !descriptors_.empty()) return true;
    set_error(InternalError, "no VXP GATT characteristic with client configuration");
    return false;
}

bool GattDevice::read_enable() {
    if (all_notifications_enabled_) {
        DEVIO_LOG("GattDevice", 3, "read_enable",
                  "GattDevice::read_enable exit true, all notifications already enabled");
        return true;
    }
    const bool notify = !writes_off();
    for (const GattDescriptor& d : descriptors_) {
        const std::uint32_t status = system_->set_notify(handle_, d, notify);
        if (status != 0) {
            DEVIO_LOG("GattDevice", 1, "read_enable",
                      "GATT                     error setting notify "
                      "(BluetoothGATTSetDescriptorValue -> %x)",
                      status);
            set_error(InternalError, "BluetoothGATTSetDescriptorValue failed", status);
            return false;
        }
        any_notifications_enabled_ = true;
        DEVIO_LOG("GattDevice", 3, "read_enable",
                  "GATT                     enabled notifications for attr=%d", d.attr);
    }
    all_notifications_enabled_ = true;
    return true;
}

bool GattDevice::read_register() {
    if (registered_) return true;
    read_unregister();
    registered_ = true;
    for (const GattCharacteristic& c : characteristics_) {
        DEVIO_LOG("GattDevice", 3, "read_register", "GATT                     registering attr=%d",
                  c.attr);
        std::uintptr_t event = 0;
        const std::uint32_t status = system_->register_value_changed(
            handle_, c,
            [this, attr = c.attr](const std::vector<Byte>& value) { gatt_event(attr, value); },
            event);
        if (status != 0) {
            DEVIO_LOG("GattDevice", 1, "read_register",
                      "GATT                     error registering event "
                      "(BluetoothGATTRegisterEvent -> %x)",
                      status);
            set_error(InternalError, "BluetoothGATTRegisterEvent failed", status);
            registered_ = false;
            break;
        }
        events_.push_back(event);
    }
    return registered_;
}

void GattDevice::read_unregister() {
    for (std::uintptr_t event : events_) {
        DEVIO_LOG("GattDevice", 3, "read_unregister",
                  "GATT                     unregistering handle=%p",
                  reinterpret_cast<void*>(event));
        const std::uint32_t status = system_->unregister_value_changed(event);
        if (status != 0) {
            DEVIO_LOG("GattDevice", 1, "read_unregister",
                      "GATT                     error unregistering event "
                      "(BluetoothGATTUnRegisterEvent -> %x)",
                      status);
        }
    }
    events_.clear();
    registered_ = false;
}

// On the platform's thread.
void GattDevice::gatt_event(std::uint16_t attr, const std::vector<Byte>& value) {
    DEVIO_LOG("GattDevice", 3, "gatt_event", "GATT event type=%d attr=%d size=%d size=%d value=%s",
              0, attr, static_cast<int>(value.size()), static_cast<int>(value.size()),
              hex(value).c_str());
    logBytes(0, "R", value);
    std::vector<Byte> report = gatt_framing::reportFromValue(value, fixed_length_);
    const auto size = static_cast<unsigned>(report.size());
    report.resize(kReportSize, 0);
    Producer<IHardwareDevice::Read>::produce(
        [report, size](IHardwareDevice::Read* s) { s->onRead(report, false, 0, size); },
        event_names::GattDeviceRead.onRead);
}

bool GattDevice::write_event(const char* text) {
    DEVIO_LOG("GattDevice", 2, "write", "%s", text);
    const ErrorCode err = error_record().err;
    const unsigned sys = error_record().sys;
    Producer<IHardwareDevice::Write>::produce(
        [err, sys](IHardwareDevice::Write* s) { s->onWrite({}, err, sys); },
        event_names::GattDeviceWrite.onWrite);
    return false;
}

bool GattDevice::write(std::vector<Byte> report, bool blocking) {
    if (!open()) return write_event("GattDevice::write exit (false, open failed)");
    if (handle_ == kInvalidHandle) {
        set_error(InvalidDeviceHandle);
        return write_event("GattDevice::write exit (false, InvalidDeviceHandle)");
    }
    if (characteristics_.empty()) {
        set_error(InvalidDeviceHandle);
        return write_event(
            "GattDevice::write exit (false, InvalidDeviceHandle - no characteristics)");
    }
    if (!read_enable()) {
        DEVIO_LOG("GattDevice", 1, "write",
                  "GattDevice::on_subscribe exit (false, could not enable read events)");
        return false;
    }
    if (writes_off()) {
        set_error(Abandoned);
        return false;
    }
    if (report.size() < 2) {
        set_error(WriteTooShort);
        return write_event("GattDevice::write exit (false, WriteTooShort)");
    }
    if (report.size() > kReportSize) {
        set_error(WriteExceedsCollectionSize);
        return write_event("GattDevice::write exit (false, WriteExceedsCollectionSize)");
    }
    if (blocking && !registered_) {
        set_error(CannotPerformWriteWithoutReadThreadRunning);
        DEVIO_LOG("GattDevice", 2, "write", "GattDevice::write dev=%s", path_.c_str());
        return write_event(
            "GattDevice::write exit (false, CannotPerformWriteWithoutReadThreadRunning)");
    }
    const std::vector<Byte> value = gatt_framing::valueFromReport(report, fixed_length_);
    logBytes(pid_, "W", value);
    const std::uint32_t status =
        system_->write_value(handle_, characteristics_.back(), value, !fixed_length_);
    ErrorCode err = Success;
    if (status != 0) {
        DEVIO_LOG("GattDevice", 1, "write",
                  "GATT write failed (BluetoothGATTSetCharacteristicValue -> %x)", status);
        set_error(WriteError, "BluetoothGATTSetCharacteristicValue failed", status);
        err = WriteError;
    }
    Producer<IHardwareDevice::Write>::produce(
        [report, err, status](IHardwareDevice::Write* s) { s->onWrite(report, err, status); },
        event_names::GattDeviceWrite.onWrite);
    DEVIO_LOG("GattDevice", 3, "write", "GattDevice::write exit, ret=%d", status == 0);
    return status == 0;
}

void GattDevice::close() {
    DEVIO_LOG("GattDevice", 3, "close", "GattDevice::close enter, dev=%s", path_.c_str());
    all_notifications_enabled_ = false;
    read_unregister();
    if (handle_ != kInvalidHandle) {
        system_->close(handle_);
        DEVIO_LOG("GattDevice", 3, "close", "GattDevice::close closed handle %p",
                  reinterpret_cast<void*>(handle_));
        handle_ = kInvalidHandle;
    }
    notification_ = 0;
    open_ = false;
    DEVIO_LOG("GattDevice", 3, "close", "GattDevice::close exit");
}

bool GattDevice::on_subscribe(IHardwareDevice::Read* /*subscriber*/) {
    reading_ = true;
    if (!open_) return true;
    DEVIO_LOG("GattDevice", 3, "on_subscribe",
              "GattDevice::on_subscribe read, device is open so registering for reads");
    if (read_register()) return true;
    DEVIO_LOG("GattDevice", 1, "on_subscribe",
              "GattDevice::on_subscribe exit (false, could not register for read events)");
    return false;
}

void GattDevice::on_subscription_removed(IHardwareDevice::Read* /*subscriber*/) {
    if (Producer<IHardwareDevice::Read>::subscriber_count() == 0) reading_ = false;
}

bool GattDevice::verify_connection_following_timeout() {
    all_notifications_enabled_ = false;
    auto bus = gatt_bus_.lock();
    if (!bus) {
        DEVIO_LOG("GattDevice", 1, "verify_connection_following_timeout",
                  "GattDevice::verify_connection_following_timeout could not lock bus");
        return true;
    }
    if (bus->verify_device_exists(path_)) return true;
    DEVIO_LOG("GattDevice", 1, "verify_connection_following_timeout",
              "GattDevice::verify_connection_following_timeout returning false (is a zombie)");
    return false;
}

}  // namespace devio
