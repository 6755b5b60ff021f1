// The monitor's share of the platform bus's device-change messages: radio
// arrivals and removals, and the Bluetooth stack's custom events that tell
// of connections and pairings. All of it runs on the window thread.

#include <algorithm>
#include <string>
#include <vector>

#include "Base/ClassLog.h"
#include "Windows/BluetoothMicrosoftBus.h"
#include "Windows/BluetoothMicrosoftDevice.h"

#define BT_LOG(level, function, ...) \
    DEVIO_LOG("BluetoothMicrosoftBus", level, function, __VA_ARGS__)

namespace devio {

namespace {

const char* eventName(unsigned event) {
    switch (event) {
        case device_change::kArrival:
            return "DBT_DEVICEARRIVAL";
        case device_change::kQueryRemove:
            return "DBT_DEVICEQUERYREMOVE";
        case device_change::kQueryRemoveFailed:
            return "DBT_DEVICEQUERYREMOVEFAILED";
        case device_change::kRemovePending:
            return "DBT_DEVICEREMOVEPENDING";
        case device_change::kRemoveComplete:
            return "DBT_DEVICEREMOVECOMPLETE";
        case device_change::kCustomEvent:
            return "DBT_CUSTOMEVENT";
        default:
            return "DBT_UNKNOWN";
    }
}

// The flags in words, for the log.
std::string flagWords(std::uint32_t flags) {
    static constexpr struct {
        std::uint32_t bit;
        const char* word;
    } kWords[] = {
        {bdif::kAddress, "ADDRESS"},
        {bdif::kCod, "COD"},
        {bdif::kName, "NAME"},
        {bdif::kPaired, "PAIRED"},
        {bdif::kPersonal, "PERSONAL"},
        {bdif::kConnected, "CONNECTED"},
        {bdif::kShortName, "SHORT_NAME"},
        {bdif::kVisible, "VISIBLE"},
        {bdif::kSspSupported, "SSP_SUPPORTED"},
        {bdif::kSspPaired, "SSP_PAIRED"},
        {bdif::kSspMitmProtected, "SSP_MITM_PROTECTED"},
        {bdif::kRssi, "RSSI"},
        {bdif::kEir, "EIR"},
        {bdif::kBr, "BR"},
        {bdif::kLe, "LE"},
        {bdif::kLePaired, "LE_PAIRED"},
        {bdif::kLePersonal, "LE_PERSONAL"},
        {bdif::kLeMitmProtected, "LE_MITM_PROTECTED"},
        {bdif::kLePrivacyEnabled, "LE_PRIVACY_ENABLED"},
    };
    std::string out;
    for (const auto& w : kWords) {
        if ((flags & w.bit) == 0) continue;
        if (!out.empty()) out += ' ';
        out += w.word;
    }
    return out.empty() ? "none" : out;
}

}  // namespace

void BluetoothMicrosoftBus::process_wm_devicechange(unsigned event, const void* raw) {
    using Internal = IBluetoothBus::RadioArrivalRemovalInternal;
    const auto* header = static_cast<const DeviceChangeHeader*>(raw);
    if (header == nullptr) {
        BT_LOG(1, "process_wm_devicechange",
               "Bluetooth ignoring WM_DEVICECHANGE without header, %s", eventName(event));
        return;
    }
    const bool radio_class = header->device_type == device_change::kInterface &&
                             header->interface_class == kBluetoothRadioClass;
    const std::string path = header->path;
    switch (event) {
        case device_change::kArrival:
        case device_change::kQueryRemoveFailed:
        case device_change::kQueryRemove:
        case device_change::kRemoveComplete:
            if (!radio_class) break;
            BT_LOG(3, "process_wm_devicechange",
                   "-bt- %s, DBT_DEVTYP_DEVICEINTERFACE, GUID_BTHPORT_DEVICE_INTERFACE",
                   eventName(event));
            // A failed removal request counts as an arrival again.
            if (event == device_change::kArrival || event == device_change::kQueryRemoveFailed) {
                Producer<Internal>::produce([path](Internal* s) { s->onRadioArrival(path); },
                                            event_names::RadioArrivalRemoval.onRadioArrival);
            } else {
                Producer<Internal>::produce([path](Internal* s) { s->onRadioRemoval(path); },
                                            event_names::RadioArrivalRemoval.onRadioRemoval);
            }
            return;
        case device_change::kCustomEvent:
            if (header->device_type == device_change::kHandle && header->bluetooth) {
                customEvent(*header);
            } else {
                BT_LOG(3, "process_wm_devicechange", "Bluetooth - DBT_CUSTOMEVENT, %d",
                       static_cast<int>(header->device_type));
            }
            return;
        default:
            break;
    }
    BT_LOG(4, "process_wm_devicechange", "-bt- %s not processed", eventName(event));
}

void BluetoothMicrosoftBus::customEvent(const DeviceChangeHeader& header) {
    const BluetoothChange& change = *header.bluetooth;
    const std::string text = bluetoothAddressText(change.address);
    switch (change.kind) {
        case BluetoothChange::L2cap:
            BT_LOG(3, "process_wm_devicechange",
                   "-bt- DBT_CUSTOMEVENT, DBT_DEVTYP_HANDLE=%s, GUID_BLUETOOTH_L2CAP_EVENT "
                   "addr=%s, %s, conn=%d, initiated=%d",
                   change.radio.c_str(), text.c_str(),
                   change.psm == kPsmHidInterrupt ? "PSM_HID_INTERRUPT" : "other psm",
                   change.connected ? 1 : 0, change.initiated ? 1 : 0);
            l2capEvent(change);
            break;
        case BluetoothChange::RadioInRange:
            inRangeEvent(change);
            break;
    }
}

// Only the HID interrupt channel tells of the device's data path.
void BluetoothMicrosoftBus::l2capEvent(const BluetoothChange& change) {
    if (change.psm != kPsmHidInterrupt) return;
    const std::string text = bluetoothAddressText(change.address);
    if (change.connected) {
        BT_LOG(2, "process_wm_devicechange",
               "Bluetooth device %s has connected (PSM_HID_INTERRUPT)", text.c_str());
        get_or_make(change.address, 2)->tell_connect(change.radio);
    } else {
        BT_LOG(2, "process_wm_devicechange",
               "Bluetooth device %s has disconnected (PSM_HID_INTERRUPT)", text.c_str());
        if (auto device = find(change.address)) device->tell_disconnect();
    }
}

void BluetoothMicrosoftBus::inRangeEvent(const BluetoothChange& change) {
    const std::uint32_t added = change.current_flags & ~change.previous_flags;
    const std::uint32_t removed = change.previous_flags & ~change.current_flags;
    const std::string text = bluetoothAddressText(change.address);
    BT_LOG(3, "process_wm_devicechange",
           "-bt- DBT_CUSTOMEVENT, GUID_BLUETOOTH_RADIO_IN_RANGE addr=%s name='%s' class=%x "
           "added: %s; removed: %s",
           text.c_str(), change.name.c_str(), change.class_of_device, flagWords(added).c_str(),
           flagWords(removed).c_str());
    constexpr std::uint32_t kLeLink = bdif::kLePersonal | bdif::kConnected;
    auto device = find(change.address);
    if (device) {
        device->resolve_unknown_connected_radio(change.radio);
        if ((change.previous_flags & kLeLink) == kLeLink && (removed & kLeLink) != 0) {
            BT_LOG(2, "process_wm_devicechange", "BLE device %s has disconnected", text.c_str());
            device->tell_disconnect();
        }
        if ((removed & (bdif::kPersonal | bdif::kLePersonal)) != 0) {
            if (pairing_kept(change.radio, change.address)) {
                BT_LOG(3, "process_wm_devicechange", "-bt- %s went with its radio %s", text.c_str(),
                       change.radio.c_str());
            } else {
                BT_LOG(2, "process_wm_devicechange",
                       "Bluetooth device %s has unpaired (removed BDIF_PERSONAL or "
                       "BDIF_LE_PERSONAL)",
                       text.c_str());
                device->tell_unpair(change.radio);
            }
        }
    }
    if ((change.current_flags & kLeLink) == kLeLink && (added & kLeLink) != 0) {
        BT_LOG(2, "process_wm_devicechange", "BLE device %s has connected", text.c_str());
        if (!device) device = get_or_make(change.address, 3);
        device->tell_connect(change.radio);
    }
}

// A radio that goes takes its device records with it, one by one, before
// it is itself gone; the records come back with the radio, so a record
// lost that way is no lost pairing. By the time the stack is asked, the
// radio is gone, or back with the device paired again.
bool BluetoothMicrosoftBus::pairing_kept(const std::string& radio, std::uint64_t address) {
    IBluetoothSystem* stack = published_stack_.load();
    if (!stack) return false;
    std::uint32_t sys = 0;
    const std::vector<std::string> now = stack->radios(sys);
    if (sys != 0) return false;
    if (std::find(now.begin(), now.end(), radio) == now.end()) return true;
    BluetoothDeviceInfo info;
    return stack->device_info(radio, address, info) == 0 && info.remembered;
}

}  // namespace devio
