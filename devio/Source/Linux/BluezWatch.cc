// Radios and remote devices as BlueZ tells of them on the system bus,
// turned into the events that the Bluetooth monitor understands: a radio
// that comes or goes, the HID channel of a classic device opening or
// closing, and the flags of a device changing (pairing, and the link of a
// Low Energy device).

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Linux/BluezObjects.h"
#include "Linux/SdBusSource.h"
#include "Windows/BluetoothSystem.h"
#include "Windows/GattSystem.h"

namespace devio::linux_hid {

namespace {

using bluez::RemoteDevice;

// The flags a radio would give a device, with the bearer told apart: a
// device whose bearer becomes known later keeps one bearer on both sides of
// a comparison.
std::uint32_t flagsOf(const RemoteDevice& d, int bearer, bool present) {
    if (!present) return 0;
    std::uint32_t flags = bdif::kAddress;
    if (!d.name.empty()) flags |= bdif::kName;
    if (d.class_of_device != 0) flags |= bdif::kCod;
    if (d.connected) flags |= bdif::kConnected;
    if (bearer == 3) {
        flags |= bdif::kLe;
        if (d.paired) flags |= bdif::kLePaired | bdif::kLePersonal;
    } else {
        flags |= bdif::kBr;
        if (d.paired) flags |= bdif::kPaired | bdif::kPersonal;
    }
    return flags;
}

class BluezWatch : public SdBusSource {
public:
    using SdBusSource::SdBusSource;

    bool watch(std::string& why, int& sys_error) {
        struct Match {
            const char* sender;
            const char* interface;
            const char* member;
            sd_bus_message_handler_t handler;
        };
        const Match matches[] = {
            {bluez::kService, "org.freedesktop.DBus.ObjectManager", "InterfacesAdded",
             &BluezWatch::onAdded},
            {bluez::kService, "org.freedesktop.DBus.ObjectManager", "InterfacesRemoved",
             &BluezWatch::onRemoved},
            {bluez::kService, "org.freedesktop.DBus.Properties", "PropertiesChanged",
             &BluezWatch::onChanged},
            {"org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
             &BluezWatch::onOwner},
        };
        for (const Match& m : matches) {
            sd_bus_slot* slot = nullptr;
            const int r = sd_bus_match_signal(bus_, &slot, m.sender, nullptr, m.interface, m.member,
                                              m.handler, this);
            if (r < 0) {
                why = std::string("cannot watch BlueZ: ") + std::strerror(-r);
                sys_error = -r;
                return false;
            }
            keep(slot);
        }
        // What is there now is known before the first change arrives; a
        // change seen both here and as a signal is told once.
        const int r = bluez::readSnapshot(bus_, state_, why);
        if (r < 0) {
            sys_error = -r;
            return false;
        }
        return true;
    }

private:
    void radio(bool added, const std::string& path) {
        push({added ? NodeEvent::RadioAdded : NodeEvent::RadioRemoved, path, {}, {}});
    }

    void tell(BluetoothChange change) {
        const std::string radio = change.radio;
        push({NodeEvent::Bluetooth,
              radio,
              {},
              std::make_shared<const BluetoothChange>(std::move(change))});
    }

    // One device went from `before` to `after`; either may be absent.
    void compare(const RemoteDevice& before, bool was, const RemoteDevice& after, bool is) {
        const RemoteDevice& known = is ? after : before;
        if (known.address == 0) return;
        int bearer = bluez::bearerOf(known);
        if (bearer == 0) bearer = 2;
        const bool linked_before = was && before.connected;
        const bool linked_now = is && after.connected;
        if (bearer == 2 && linked_before != linked_now) {
            BluetoothChange change;
            change.kind = BluetoothChange::L2cap;
            change.radio = known.adapter;
            change.address = known.address;
            change.psm = kPsmHidInterrupt;
            change.connected = linked_now;
            tell(change);
        }
        BluetoothChange change;
        change.kind = BluetoothChange::RadioInRange;
        change.radio = known.adapter;
        change.address = known.address;
        change.previous_flags = flagsOf(before, bearer, was);
        change.current_flags = flagsOf(after, bearer, is);
        change.class_of_device = known.class_of_device;
        change.name = known.name;
        if (change.previous_flags != change.current_flags) tell(change);
    }

    static int onAdded(sd_bus_message* m, void* self, sd_bus_error*) {
        auto* me = static_cast<BluezWatch*>(self);
        const char* path = nullptr;
        if (sd_bus_message_read_basic(m, 'o', &path) < 0) return 0;
        const std::string where = path;
        const auto old = me->state_.devices.find(where);
        const bool was = old != me->state_.devices.end();
        const RemoteDevice before = was ? old->second : RemoteDevice{};
        const bool had_adapter = me->state_.adapters.count(where) != 0;
        std::set<std::string> interfaces;
        if (readInterfaces(m, where, me->state_, interfaces) < 0) return 0;
        if (interfaces.count(bluez::kAdapterInterface) && !had_adapter) me->radio(true, where);
        if (interfaces.count(bluez::kDeviceInterface))
            me->compare(before, was, me->state_.devices[where], true);
        if (interfaces.count(bluez::kGattServiceInterface)) me->vendorService(true, where);
        return 0;
    }

    // The vendor service stands for the GATT interface of its device.
    void vendorService(bool added, const std::string& service) {
        const auto it = state_.gatt.find(service);
        if (it == state_.gatt.end() || it->second.kind != bluez::GattObject::Service ||
            it->second.uuid != kVxpGattService) {
            return;
        }
        std::string path = it->second.parent;
        for (char& c : path) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        push({added ? NodeEvent::GattAdded : NodeEvent::GattRemoved, path, {}, {}});
    }

    static int onRemoved(sd_bus_message* m, void* self, sd_bus_error*) {
        auto* me = static_cast<BluezWatch*>(self);
        const char* path = nullptr;
        char** names = nullptr;
        if (sd_bus_message_read_basic(m, 'o', &path) < 0 ||
            sd_bus_message_read_strv(m, &names) < 0) {
            return 0;
        }
        const std::string where = path;
        for (char** each = names; each && *each; ++each) {
            if (std::strcmp(*each, bluez::kAdapterInterface) == 0 &&
                me->state_.adapters.erase(where) != 0) {
                me->radio(false, where);
            }
            if (bluez::gattKind(*each) >= 0) {
                if (std::strcmp(*each, bluez::kGattServiceInterface) == 0)
                    me->vendorService(false, where);
                me->state_.gatt.erase(where);
            }
            const auto it = me->state_.devices.find(where);
            if (std::strcmp(*each, bluez::kDeviceInterface) == 0 &&
                it != me->state_.devices.end()) {
                const RemoteDevice before = it->second;
                me->state_.devices.erase(it);
                me->compare(before, true, before, false);
            }
            std::free(*each);
        }
        std::free(names);
        return 0;
    }

    static int onChanged(sd_bus_message* m, void* self, sd_bus_error*) {
        auto* me = static_cast<BluezWatch*>(self);
        const char* interface = nullptr;
        if (sd_bus_message_read_basic(m, 's', &interface) < 0 ||
            std::strcmp(interface, bluez::kDeviceInterface) != 0) {
            return 0;
        }
        const std::string where = sd_bus_message_get_path(m);
        const auto it = me->state_.devices.find(where);
        if (it == me->state_.devices.end()) return 0;
        const RemoteDevice before = it->second;
        if (readDeviceProperties(m, it->second) < 0) return 0;
        me->compare(before, true, it->second, true);
        return 0;
    }

    // BlueZ that ends takes its radios with it, without a word; when it
    // starts again it announces them itself.
    static int onOwner(sd_bus_message* m, void* self, sd_bus_error*) {
        auto* me = static_cast<BluezWatch*>(self);
        const char *name = nullptr, *before = nullptr, *after = nullptr;
        if (sd_bus_message_read(m, "sss", &name, &before, &after) < 0 ||
            std::strcmp(name, bluez::kService) != 0 || (after && *after)) {
            return 0;
        }
        for (const std::string& adapter : me->state_.adapters) me->radio(false, adapter);
        for (const auto& [path, object] : me->state_.gatt) me->vendorService(false, path);
        me->state_ = {};
        return 0;
    }

    bluez::Snapshot state_;
};

}  // namespace

std::unique_ptr<IChangeSource> openBluezWatch(std::string& why, int& sys_error) {
    sd_bus* bus = nullptr;
    const int r = bluez::openSystemBus(&bus);
    if (r < 0) {
        why = std::string("no system bus: ") + std::strerror(-r);
        sys_error = -r;
        return nullptr;
    }
    auto source = std::make_unique<BluezWatch>(bus);
    if (!source->watch(why, sys_error)) return nullptr;
    return source;
}

}  // namespace devio::linux_hid
