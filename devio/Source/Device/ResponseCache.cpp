// The cache of responses in memory. Software ids never split it: commands
// and answers are kept with 0xA in the software id nibble.

#include "Device/ResponseCache.h"

namespace devio {

namespace {
// Late enough that the discovery of a whole device lands in one write.
constexpr int kWriteDelayMs = 10000;
}  // namespace

bool ResponseCache::lookup(const std::vector<Byte>& command, std::vector<Byte>& response) {
    std::lock_guard<std::mutex> lock(cache_mutex);
    auto found = response_cache.find(vxp::CacheProbe{command});
    if (found == response_cache.end()) return false;
    response = found->second;
    return true;
}

void ResponseCache::store(const std::vector<Byte>& command, const std::vector<Byte>& response) {
    std::shared_ptr<ITimer> timer;
    {
        std::lock_guard<std::mutex> lock(cache_mutex);
        response_cache[vxp::cache_key(command)] = vxp::cache_key(response);
        cache_dirty = true;
        timer = cache_write_timer;
    }
    if (timer) timer->reset(kWriteDelayMs);
}

bool ResponseCache::empty() {
    std::lock_guard<std::mutex> lock(cache_mutex);
    return response_cache.empty();
}

void ResponseCache::clear() {
    std::lock_guard<std::mutex> lock(cache_mutex);
    response_cache.clear();
}

std::string ResponseCache::firmware() {
    std::lock_guard<std::mutex> lock(cache_mutex);
    return fwinfo;
}

void ResponseCache::set_firmware(const std::string& text) {
    std::lock_guard<std::mutex> lock(cache_mutex);
    fwinfo = text;
}

void ResponseCache::firmware_changed() {
    std::lock_guard<std::mutex> lock(cache_mutex);
    fwinfo.clear();
    cache_dirty = true;
}

void ResponseCache::set_directory(const std::string& dir) {
    std::lock_guard<std::mutex> lock(cache_mutex);
    cache_dir = dir;
    // The file name is glued to the directory.
    if (cache_dir.back() != '/' && cache_dir.back() != '\\') cache_dir += '/';
}

std::string ResponseCache::directory() {
    std::lock_guard<std::mutex> lock(cache_mutex);
    return cache_dir;
}

bool ResponseCache::take_file(const std::string& file_fw, const Entries& entries,
                              std::string& known) {
    std::lock_guard<std::mutex> lock(cache_mutex);
    // Before the firmware is known the file is taken on trust; the firmware
    // check verifies it at the first real command.
    if (!fwinfo.empty() && fwinfo != file_fw) {
        known = fwinfo;
        cache_dirty = true;
        return false;
    }
    // What is in memory was asked of this device in this run: it wins.
    for (const auto& entry : entries) response_cache.emplace(entry.cmd, entry.rsp);
    return true;
}

ResponseCache::Snapshot ResponseCache::take_for_write() {
    std::lock_guard<std::mutex> lock(cache_mutex);
    cache_dirty = false;
    Snapshot out{cache_dir, fwinfo, {}};
    if (!out.dir.empty() && !out.fw.empty()) {
        out.entries.reserve(response_cache.size());
        for (const auto& [cmd, rsp] : response_cache) out.entries.push_back({cmd, rsp});
    }
    return out;
}

bool ResponseCache::dirty() {
    std::lock_guard<std::mutex> lock(cache_mutex);
    return cache_dirty;
}

void ResponseCache::set_write_timer(std::shared_ptr<ITimer> timer) {
    std::lock_guard<std::mutex> lock(cache_mutex);
    cache_write_timer = std::move(timer);
}

std::shared_ptr<ITimer> ResponseCache::write_timer() {
    std::lock_guard<std::mutex> lock(cache_mutex);
    return cache_write_timer;
}

}  // namespace devio
