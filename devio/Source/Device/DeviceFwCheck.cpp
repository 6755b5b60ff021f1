// Device: the firmware check. The cache of responses, in memory and on
// disk, belongs to one firmware; a device that was reflashed while we were
// not looking must not be served from it. The firmware's identification is
// read once (from the cache if there is one) and compared with what the
// device itself says at connect, after a silence, and before the first real
// command when the cache came from a file.

#include <cstdio>

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Device/Device.h"
#include "Features/IFeature.h"
#include "Features/IFeature0003FirmwareInfo.h"

namespace devio {

namespace {
constexpr unsigned kFirmwareInfoId = 0x0003;
constexpr std::uint32_t kRunningEntity = 0x01;  // rdnf bit 0
// The identification of a device that has no firmware info: it never
// changes, so the check always matches.
const char* const kNotPresent = "NotPresent";
}  // namespace

std::string Device::firmware_text() {
    return cache.firmware();
}

bool Device::load_fwinfo(bool had_cache) {
    if (!firmware_text().empty()) return true;
    const std::string text = read_fwinfo(true);
    if (text.empty()) return false;
    cache.set_firmware(text);
    // The file cache was read before the firmware was known to match: the
    // first real command verifies it.
    if (had_cache) need_fw_check = true;
    if (!connected()) return true;
    if (!do_fwcheck()) {
        DEVIO_LOG("Device", 2, "load_fwinfo", "load_fwinfo failing (do_fwcheck failed)");
        return false;
    }
    return true;
}

std::string Device::read_fwinfo(bool cached) {
    DEVIO_LOG("Device", 3, "read_fwinfo", "read_fwinfo enter, cached=%d", cached ? 1 : 0);
    auto feature = feature_by_id(kFirmwareInfoId);
    if (!feature) {
        if (error_record().err == NotPresent) {
            DEVIO_LOG("Device", 3, "read_fwinfo", "read_fwinfo returning NotPresent");
            return kNotPresent;
        }
        DEVIO_LOG("Device", 2, "read_fwinfo", "read_fwinfo returning error=%d",
                  static_cast<int>(error_record().err));
        return {};
    }
    auto* info = dynamic_cast<IFeature0003FirmwareInfo*>(feature.get());
    if (info == nullptr) {
        set_error(InternalError, "read_fwinfo cannot cast firmware info feature");
        DEVIO_LOG("Device", 2, "read_fwinfo", "read_fwinfo returning error=%d",
                  static_cast<int>(error_record().err));
        return {};
    }

    std::uint32_t fw_type = 0, rdnf = 0;
    std::string prefix, version, build;
    auto ask = [&](unsigned entity) {
        return info->GetFwInfo(entity, &fw_type, &prefix, &version, &build, &rdnf, nullptr, cached);
    };
    auto running = [&](unsigned entity) { return ask(entity) && (rdnf & kRunningEntity) != 0; };
    auto text = [&]() { return std::to_string(fw_type) + prefix + version + build; };

    if (feature->featureVersion() != 0) {
        std::uint32_t count = 0, unit_id = 0;
        if (!info->GetEntityCount(&count, &unit_id, nullptr, nullptr, nullptr, nullptr, nullptr,
                                  cached)) {
            return {};
        }
        // The entity that ran last time is the one that runs now, unless the
        // device changed its mind: try it first, so that a check costs one
        // question.
        const std::uint32_t remembered = fw_entity;
        bool found = remembered < count && running(remembered);
        for (std::uint32_t entity = 0; !found && entity < count; ++entity) {
            if (entity == remembered) continue;
            if (running(entity)) {
                fw_entity = entity;
                found = true;
            }
        }
        if (found) {
            char unit[16];
            std::snprintf(unit, sizeof unit, "%X", static_cast<unsigned>(unit_id));
            const std::string result = text() + unit;
            DEVIO_LOG("Device", 3, "read_fwinfo", "read_fwinfo returning %s", result.c_str());
            return result;
        }
    }
    if (!ask(0)) {
        DEVIO_LOG("Device", 2, "read_fwinfo", "read_fwinfo returning error=%d",
                  static_cast<int>(error_record().err));
        return {};
    }
    const std::string result = text();
    DEVIO_LOG("Device", 3, "read_fwinfo", "read_fwinfo returning %s", result.c_str());
    return result;
}

bool Device::do_fwcheck() {
    DEVIO_LOG("Device", 3, "do_fwcheck", "do_fwcheck entry");
    const std::string known = firmware_text();
    if (known.empty()) {
        DEVIO_LOG("Device", 3, "do_fwcheck",
                  "do_fwcheck exit, true, skipping check due to initial fwinfo not read yet");
        return true;
    }
    // The check's own commands may fail softly and ask for the check again.
    if (in_fw_check.exchange(true)) {
        DEVIO_LOG("Device", 3, "do_fwcheck",
                  "do_fwcheck exit, true, skipping check due to being recursively called");
        return true;
    }
    std::string now = read_fwinfo(false);
    if (now.empty()) {
        DEVIO_LOG("Device", 2, "do_fwcheck", "do_fwcheck error reading fw info, err=%d",
                  static_cast<int>(error_record().err));
        // The feature object may have gone with `forget`.
        if (!load_feature(kFirmwareInfoId, false)) {
            DEVIO_LOG("Device", 2, "do_fwcheck",
                      "do_fwcheck exit, false, error loading 0x0003 feature, err=%d",
                      static_cast<int>(error_record().err));
            in_fw_check = false;
            return false;
        }
        now = read_fwinfo(false);
    }
    in_fw_check = false;
    if (now.empty()) {
        DEVIO_LOG("Device", 2, "do_fwcheck",
                  "do_fwcheck exit, false, error reading fw info, err=%d",
                  static_cast<int>(error_record().err));
        return false;
    }
    need_fw_check = false;
    if (now == known) {
        DEVIO_LOG("Device", 3, "do_fwcheck", "do_fwcheck exit, true, fw version matched (%s)",
                  now.c_str());
        return true;
    }
    forget();
    cache.firmware_changed();
    std::shared_ptr<IDevice> self = weak_from_this().lock();
    Producer<IDevice::Connect>::produce([self](IDevice::Connect* s) { s->onFirmwareChanged(self); },
                                        event_names::DeviceConnect.onFirmwareChanged);
    // `fwinfo` is empty by now, so the old text always logs empty.
    const std::string old = firmware_text();
    DEVIO_LOG("Device", 1, "do_fwcheck", "do_fwcheck exit, false, FwVersionChanged (old=%s new=%s)",
              old.c_str(), now.c_str());
    set_error(FwVersionChanged);
    return false;
}

}  // namespace devio
