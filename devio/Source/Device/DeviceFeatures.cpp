// Device: finding the device's features. The root comes first and tells
// whether the device speaks VXP 2.0 at all; single features are then found
// by id through the root, or the whole table is walked through the feature
// set. Every constant query passes "cached", so a second start with the
// same firmware is answered from the cache of responses.

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Device/Device.h"
#include "Features/Feature.h"
#include "Features/FeatureRegistry.h"
#include "Features/IFeature0000Root.h"
#include "Features/IFeature0001FeatureSet.h"

namespace devio {

namespace {
constexpr std::uint32_t kRootUnknown = 0;
constexpr std::uint32_t kRootNotVxp20 = 1;
constexpr std::uint32_t kRootLoaded = 2;
constexpr unsigned kFeatureSetId = 0x0001;
// Indices 0 and 1 are the root and the feature set; the table walk starts
// behind them.
constexpr unsigned kFirstListedIndex = 2;
}  // namespace

std::shared_ptr<IFeature> Device::stored_feature(unsigned index) {
    std::lock_guard<std::mutex> lock(features_mutex);
    auto found = feature_table.find(index);
    return found == feature_table.end() ? nullptr : found->second;
}

std::shared_ptr<IFeature> Device::put_feature(unsigned index, std::uint32_t id, bool obsolete,
                                              bool hidden, bool engineering, unsigned version) {
    // A host may hold the object already and be subscribed to it: walking
    // the table again must not put a twin in its place. Its record came from
    // the same table and other threads may be reading it.
    std::shared_ptr<IFeature> feature = stored_feature(index);
    if (feature && feature->featureId() == id) return feature;
    feature = createFeature(id, index, weak_from_this().lock());
    // The record is filled in before the object is published in the table.
    if (auto record = feature->sharedFeature()) {
        record->obsolete = obsolete;
        record->hidden = hidden;
        record->engineering = engineering;
        record->version = version;
    }
    store_feature(index, feature);
    return feature;
}

bool Device::retry_load_feature_root() {
    DEVIO_LOG("Device", 2, "retry_load_feature_root", "Device::retry_load_feature_root");
    return load_feature_root(true);
}

bool Device::load_feature_root(bool retry) {
    if (retry) {
        DEVIO_LOG("Device", 2, "load_feature_root",
                  "Device::load_feature_root - retry was requested");
        feature_root_state = kRootUnknown;
    }
    if (feature_root_state == kRootLoaded) {
        DEVIO_LOG(
            "Device", 3, "load_feature_root",
            "Device::load_feature_root - using previous true result (feature already loaded)");
        return true;
    }
    if (feature_root_state == kRootNotVxp20) {
        set_error(NotVxp20);
        DEVIO_LOG("Device", 3, "load_feature_root",
                  "Device::load_feature_root - using previous false result (NotVxp20)");
        return false;
    }
    DEVIO_LOG("Device", 2, "load_feature_root", "Device::load_feature_root enter");
    const bool had_cache = !cache.empty();
    auto root = createFeature(0, 0, weak_from_this().lock());
    if (!root) {
        set_error(InternalError, "cannot create root feature");
        DEVIO_LOG("Device", 2, "load_feature_root",
                  "Device::load_feature_root exit (false, cannot create root feature)");
        return false;
    }
    auto* root_feature = dynamic_cast<IFeature0000Root*>(root.get());
    if (root_feature == nullptr) {
        set_error(InternalError, "load_feature_root cannot cast root feature");
        DEVIO_LOG("Device", 2, "load_feature_root",
                  "Device::load_feature_root exit (false, cannot cast root feature)");
        return false;
    }
    if (!root_feature->TargetSw(nullptr, nullptr)) {
        // A VXP 1.0 device answers the 2.0 version request with its own
        // error byte 1. Anything else may pass, so the next call asks again.
        if (error_record().err == Vxp10Error1) {
            feature_root_state = kRootNotVxp20;
            set_error(NotVxp20);
            DEVIO_LOG("Device", 2, "load_feature_root",
                      "Device::load_feature_root exit (false, not VXP 2.0 device)");
        } else {
            DEVIO_LOG("Device", 2, "load_feature_root",
                      "Device::load_feature_root exit (false, error)");
        }
        return false;
    }
    feature_root_state = kRootLoaded;
    store_feature(0, root);
    DEVIO_LOG("Device", 2, "load_feature_root",
              "Device::load_feature_root success, now need a ping");
    need_ping = true;
    if (!load_fwinfo(had_cache)) {
        DEVIO_LOG("Device", 2, "load_feature_root",
                  "load_feature_root failing (load_fwinfo failed)");
        return false;
    }
    subscribe_wireless_status();
    DEVIO_LOG("Device", 2, "load_feature_root", "Device::load_feature_root exit (true, success)");
    return true;
}

std::shared_ptr<IFeature> Device::load_feature(unsigned id, bool cached) {
    DEVIO_LOG("Device", 3, "load_feature", "Device::load_feature(0x%04x)", id);
    if (!load_feature_root(false)) return nullptr;
    auto root = stored_feature(0);
    if (id == 0) return root;
    auto* root_feature = dynamic_cast<IFeature0000Root*>(root.get());
    if (root_feature == nullptr) {
        set_error(InternalError, "load_feature cannot cast root feature");
        return nullptr;
    }
    unsigned index = 0, version = 0;
    bool obsolete = false, hidden = false, engineering = false;
    if (!root_feature->GetFeature(id, &index, &obsolete, &hidden, &engineering, &version, cached)) {
        return nullptr;
    }
    if (index == 0) {
        set_error(NotPresent);
        return nullptr;
    }
    return put_feature(index, id, obsolete, hidden, engineering, version);
}

std::shared_ptr<IFeature> Device::feature_by_id(unsigned id) {
    DEVIO_LOG("Device", 3, "feature_by_id", "Device::feature_by_id(0x%04x)", id);
    {
        std::lock_guard<std::mutex> lock(features_mutex);
        for (const auto& entry : feature_table) {
            if (entry.second && entry.second->featureId() == id) return entry.second;
        }
    }
    // Once the whole table is known, an id that is not in it is not on the
    // device: no need to ask.
    if (!all_features_loaded) return load_feature(id, true);
    set_error(NotPresent);
    return nullptr;
}

bool Device::load_features() {
    DEVIO_LOG("Device", 2, "load_features", "Device::load_features()");
    if (!load_feature_root(false)) {
        DEVIO_LOG("Device", 2, "load_features",
                  "Device::load_features fail (load_feature_root fail)");
        return false;
    }
    if (all_features_loaded) {
        DEVIO_LOG("Device", 3, "load_features",
                  "Device::load_features success (all_features_loaded)");
        return true;
    }
    auto set_object = feature_by_id(kFeatureSetId);
    auto* feature_set = dynamic_cast<IFeature0001FeatureSet*>(set_object.get());
    if (feature_set == nullptr) {
        DEVIO_LOG("Device", 2, "load_features",
                  "Device::load_features fail (no IFeature0001FeatureSet)");
        return false;
    }
    unsigned count = 0;
    if (!feature_set->GetCount(&count)) {
        DEVIO_LOG("Device", 2, "load_features",
                  "Device::load_features fail (no featureSet->GetCount)");
        return false;
    }
    for (unsigned index = kFirstListedIndex; index <= count; ++index) {
        unsigned id = 0, version = 0;
        bool engineering = false, hidden = false, obsolete = false;
        if (!feature_set->GetFeatureID(index, &id, &engineering, &hidden, &obsolete, &version)) {
            DEVIO_LOG("Device", 2, "load_features",
                      "Device::load_features fail (no featureSet->GetFeatureID %d)",
                      static_cast<int>(index));
            return false;
        }
        put_feature(index, id, obsolete, hidden, engineering, version);
    }
    all_features_loaded = true;
    subscribe_wireless_status();
    DEVIO_LOG("Device", 2, "load_features", "Device::load_features success (%d features)",
              static_cast<int>(count));
    return true;
}

std::vector<std::shared_ptr<IFeature>> Device::features() {
    DEVIO_LOG("Device", 2, "features", "Device::features");
    if (!load_features()) return {};
    std::vector<std::shared_ptr<IFeature>> out;
    {
        std::lock_guard<std::mutex> lock(features_mutex);
        for (const auto& entry : feature_table) {
            if (entry.second) out.push_back(entry.second);
        }
    }
    if (out.empty()) set_error(Success);
    return out;
}

void Device::forget() {
    DEVIO_LOG("Device", 2, "forget", "Device::forget() enter");
    {
        std::lock_guard<std::mutex> lock(features_mutex);
        for (auto it = feature_table.begin(); it != feature_table.end();) {
            it = it->first == 0 ? std::next(it) : feature_table.erase(it);
        }
    }
    feature_root_state = kRootUnknown;
    all_features_loaded = false;
    bool had_configuration;
    {
        std::lock_guard<std::mutex> lock(config_mutex);
        had_configuration = !configured_features.empty();
        configured_features.clear();
        pending_features.clear();
    }
    if (had_configuration) produce_config_change();
    cache.clear();
    DEVIO_LOG("Device", 2, "forget", "Device::forget() exit");
}

}  // namespace devio
