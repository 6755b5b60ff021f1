// Device: the cache of responses on disk. Discovery over a wireless link
// is slow, so every answer to a constant query is kept in one file per
// device, read when the host names the directory and written ten seconds
// after the first new answer, so that the burst of discovery makes one
// write.

#include "Base/ClassLog.h"
#include "Base/FileReplace.h"
#include "Base/Timer.h"
#include "Device/Device.h"
#include "Device/FeatureCacheFile.h"

namespace devio {

void Device::make_cache_write_timer() {
    auto timer = std::make_shared<Timer>(kCacheWriteTimerId);
    cache.set_write_timer(timer);
    if (!Subscriber<ITimer::TimerEvent>::subscribe(timer, DeliveryRunLoop)) {
        if (auto manager = manager_.lock())
            manager->report_unreported_error("Device::initDevice subscribe(cache_write_timer)");
    }
}

void Device::persistent_data_directory(const std::string& dir) {
    DEVIO_LOG("Device", 2, "persistent_data_directory", "Device::persistent_data_directory(%s)",
              dir.c_str());
    if (dir.empty()) return;
    cache.set_directory(dir);
    perform_cache_read();
}

void Device::perform_cache_read() {
    const std::string dir = cache.directory();
    DEVIO_LOG("Device", 2, "perform_cache_read",
              "Device::perform_cache_read enter persistent_path=%s", dir.c_str());
    if (dir.empty()) {
        DEVIO_LOG("Device", 2, "perform_cache_read", "data cache dir is empty");
        return;
    }
    const std::string name =
        feature_cache::file_name(dir, static_cast<unsigned>(hwdev->pid()), hw_path);
    DEVIO_LOG("Device", 3, "perform_cache_read", "Device::perform_cache_read reading file %s",
              name.c_str());
    std::vector<char> text;
    if (!read_file_text(name, text)) {
        DEVIO_LOG("Device", 3, "perform_cache_read",
                  "Device::perform_cache_read file does not exist");
        return;
    }
    // A damaged file throws here, before anything was taken from it.
    const feature_cache::Document doc = feature_cache::parse(text.data());
    // A file without `fw` counts as written for an empty firmware text.
    if (std::string known; doc.has_cache && !cache.take_file(doc.fw, doc.commands, known)) {
        DEVIO_LOG("Device", 2, "perform_cache_read",
                  "cache is incorrect version (%s != %s)... invalidating", known.c_str(),
                  doc.fw.c_str());
    }
    DEVIO_LOG("Device", 2, "perform_cache_read", "Device::perform_cache_read exit");
}

void Device::perform_cache_write() {
    const ResponseCache::Snapshot now = cache.take_for_write();
    if (now.dir.empty()) {
        DEVIO_LOG("Device", 2, "perform_cache_write",
                  "perform_cache_write: feature cache path is empty");
        return;
    }
    if (now.fw.empty()) {
        DEVIO_LOG("Device", 2, "perform_cache_write", "perform_cache_write: fwinfo is empty");
        return;
    }
    const std::string name =
        feature_cache::file_name(now.dir, static_cast<unsigned>(hwdev->pid()), hw_path);
    if (!replace_file(name, feature_cache::print(now.fw, hw_path, now.entries))) return;
    DEVIO_LOG("Device", 2, "perform_cache_write", "wrote feature cache to file %s", name.c_str());
}

}  // namespace devio
