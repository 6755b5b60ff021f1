#include "Bus/Combiner/CombinerBus.h"

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Base/InstanceCount.h"
#include "Manager/IDeviceManager.h"

#define COMBINER_LOG(level, function, ...) \
    DEVIO_LOG_TAG("Devio", "CombinerBus", level, function, __VA_ARGS__)

namespace devio {

CombinerBus::CombinerBus(std::shared_ptr<IHardwareBus> underlying,
                         std::weak_ptr<IDeviceManager> manager)
    : underlying_(std::move(underlying)), manager_(std::move(manager)) {
    COMBINER_LOG(2, "CombinerBus", "CombinerBus constructor");
    COMBINER_LOG(3, "CombinerBus", "CombinerBus::CombinerBus Number of instances now: %d",
                 InstanceCount<CombinerBus>::added());
}

CombinerBus::~CombinerBus() {
    COMBINER_LOG(2, "~CombinerBus", "CombinerBus::~CombinerBus");
    COMBINER_LOG(3, "~CombinerBus", "CombinerBus::~CombinerBus Number of instances now: %d",
                 InstanceCount<CombinerBus>::removed());
}

std::vector<std::shared_ptr<IBluetoothBus>> CombinerBus::bluetooth_busses() {
    return underlying_->bluetooth_busses();
}

std::vector<std::shared_ptr<IHardwareSecondaryBus>> CombinerBus::secondary_busses() {
    return underlying_->secondary_busses();
}

bool CombinerBus::follow_underlying() {
    // Once followed, the underlying bus's thread calls back here while it
    // delivers under its producer's lock, which a first subscription takes
    // under `follow_mutex`: it must not wait for that mutex then.
    if (following) return true;
    std::lock_guard<std::mutex> lock(follow_mutex);
    following = Subscriber<IHardwareBus::PlugUnplug>::subscribe(underlying_, DeliveryDirect);
    return following;
}

std::vector<std::shared_ptr<IHardwareDevice>> CombinerBus::devices() {
    COMBINER_LOG(2, "devices", "CombinerBus::devices enter");
    std::vector<std::shared_ptr<IHardwareDevice>> result;
    if (!follow_underlying()) {
        COMBINER_LOG(2, "devices", "CombinerBus::devices exit (false, subscribe failed)");
        return result;
    }
    COMBINER_LOG(2, "devices", "CombinerBus::devices starting getting list of underlying devices");
    const auto found = underlying_->devices();
    COMBINER_LOG(2, "devices", "CombinerBus::devices finished getting list of underlying devices");
    // Read before anything below can overwrite it.
    const ErrorCode listing_error = error_record().err;

    std::vector<std::shared_ptr<CombinerDevice>> completed;
    {
        std::lock_guard<std::mutex> lock(combined_mutex);
        for (const auto& device : combined) {
            if (device->whole()) result.push_back(device);
        }
        COMBINER_LOG(2, "devices", "CombinerBus::devices discovering new devices");
        if (found.empty() && listing_error != Success) {
            COMBINER_LOG(2, "devices", "CombinerBus::devices exit (propogating error %d)",
                         static_cast<int>(listing_error));
            return {};
        }
        for (const auto& piece : found) {
            if (piece->collection_id() == piece->collections_expected()) {
                COMBINER_LOG(2, "devices", "CombinerBus::devices single complete piece");
                result.push_back(piece);
                continue;
            }
            // The provisional device is the key of the lookup: its path is
            // the piece's combine key.
            auto provisional = std::make_shared<CombinerDevice>(underlying_, piece);
            auto known = combined.find(provisional);
            std::shared_ptr<CombinerDevice> device;
            bool was_whole = false;
            if (known != combined.end()) {
                device = *known;
                was_whole = device->whole();
                COMBINER_LOG(2, "devices", "CombinerBus::devices merging in a piece");
                if (!device->add_piece(piece)) {
                    COMBINER_LOG(2, "devices",
                                 "CombinerBus::devices exit (false, failed to add piece, err=%d)",
                                 static_cast<int>(error_record().err));
                    break;
                }
            } else {
                COMBINER_LOG(2, "devices",
                             "CombinerBus::devices using a piece to start creating a new device");
                device = provisional;
                combined.insert(device);
            }
            if (!was_whole && device->whole()) {
                COMBINER_LOG(2, "devices",
                             "CombinerBus::devices adding a piece finished a device to "
                             "completion");
                result.push_back(device);
                completed.push_back(device);
            }
        }
    }
    // Announced without the lock: a subscriber may come straight back here.
    for (const auto& device : completed) {
        COMBINER_LOG(2, "devices", "CombinerBus::devices producing onPlug event");
        produce_plug(device);
    }
    COMBINER_LOG(2, "devices", "CombinerBus::devices exit (success, returning %d devices)",
                 static_cast<int>(result.size()));
    return result;
}

void CombinerBus::onPlug(const std::shared_ptr<IHardwareDevice>& piece) {
    COMBINER_LOG(2, "onPlug", "CombinerBus::onPlug enter (pid = 0x%x)", piece->pid());
    if (!piece->open()) {
        COMBINER_LOG(2, "onPlug", "CombinerBus::onPlug exit, ignoring device it could not open");
        return;
    }
    if (piece->collection_id() == piece->collections_expected()) {
        COMBINER_LOG(2, "onPlug", "CombinerBus::onPlug producing onPlug event");
        produce_plug(piece);
    } else if (devices().empty() && error_record().err != Success) {
        // Merging happens in devices(), which finds the new piece below.
        if (auto manager = manager_.lock()) manager->report_unreported_error("CombinerBus::onPlug");
    }
    COMBINER_LOG(2, "onPlug", "CombinerBus::onPlug exit");
}

void CombinerBus::onUnplug(const std::shared_ptr<IHardwareDevice>& piece) {
    COMBINER_LOG(2, "onUnplug", "CombinerBus::onUnplug enter (pid = 0x%x)", piece->pid());
    COMBINER_LOG(2, "onUnplug",
                 "CombinerBus::onUnplug producing unPlug event for individual piece");
    produce_unplug(piece);
    std::vector<std::shared_ptr<CombinerDevice>> broken;
    {
        std::lock_guard<std::mutex> lock(combined_mutex);
        for (auto it = combined.begin(); it != combined.end();) {
            const auto device = *it;
            const bool was_whole = device->whole();
            if (device->remove_piece(piece)) {
                COMBINER_LOG(2, "onUnplug", "CombinerBus::onUnplug removing device");
                it = combined.erase(it);
            } else {
                ++it;
            }
            if (was_whole && !device->whole()) broken.push_back(device);
        }
    }
    for (const auto& device : broken) {
        COMBINER_LOG(2, "onUnplug",
                     "CombinerBus::onUnplug producing unPlug event for combined device");
        produce_unplug(device);
    }
    COMBINER_LOG(2, "onUnplug", "CombinerBus::onUnplug exit");
}

void CombinerBus::onPowerChange(bool standBy) {
    COMBINER_LOG(2, "onPowerChange", "CombinerBus::onPowerChange(standBy=%d)", standBy);
    Producer<IHardwareBus::PlugUnplug>::produce(
        [standBy](IHardwareBus::PlugUnplug* s) { s->onPowerChange(standBy); },
        event_names::CombinerBusPlugUnplug.onPowerChange);
}

bool CombinerBus::on_subscribe(IHardwareBus::PlugUnplug* /*subscriber*/) {
    COMBINER_LOG(2, "on_subscribe", "CombinerBus::on_subscribe enter");
    const bool ok = follow_underlying();
    COMBINER_LOG(2, "on_subscribe", "CombinerBus::on_subscribe exit, ret=%d", ok);
    return ok;
}

void CombinerBus::produce_plug(const std::shared_ptr<IHardwareDevice>& device) {
    Producer<IHardwareBus::PlugUnplug>::produce(
        [device](IHardwareBus::PlugUnplug* s) { s->onPlug(device); },
        event_names::CombinerBusPlugUnplug.onPlug);
}

void CombinerBus::produce_unplug(const std::shared_ptr<IHardwareDevice>& device) {
    Producer<IHardwareBus::PlugUnplug>::produce(
        [device](IHardwareBus::PlugUnplug* s) { s->onUnplug(device); },
        event_names::CombinerBusPlugUnplug.onUnplug);
}

}  // namespace devio
