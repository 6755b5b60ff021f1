#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Base/Byte.h"
#include "Base/ITimer.h"
#include "Device/FeatureCacheFile.h"
#include "Device/VxpReport.h"

namespace devio {

// One device's answers to constant queries, kept in their key form, with
// what decides their file: the firmware text they belong to, the directory,
// whether the file lacks some of them, and the timer that writes it.
//
// Threads: any caller of the command engine looks answers up and stores
// them; feature loading sets, reads and drops the firmware text and the
// answers; the thread that names the directory merges the file in; the
// host's pumping thread takes what the file gets when the write timer fires.
// `cache_mutex` guards every field and is held with no other lock, not even
// while the timer is reset, so a cache hit costs one uncontended lock.
class ResponseCache {
public:
    using Entries = std::vector<feature_cache::Entry>;
    // What the file is to hold: empty `entries` unless both `dir` and `fw`
    // are known.
    struct Snapshot {
        std::string dir;
        std::string fw;
        Entries entries;
    };

    // The answer to `command` under whatever software id it carries.
    bool lookup(const std::vector<Byte>& command, std::vector<Byte>& response);
    // Keeps an answer and re-arms the write timer, so that a burst of
    // discovery makes one file write.
    void store(const std::vector<Byte>& command, const std::vector<Byte>& response);
    bool empty();
    // Drops the answers in memory; the file keeps them until it is written.
    void clear();

    std::string firmware();
    void set_firmware(const std::string& text);
    // The device runs other firmware than the answers came from: the text is
    // dropped, and the file must be rewritten.
    void firmware_changed();

    // `dir` is not empty; a separator is added where it lacks one.
    void set_directory(const std::string& dir);
    std::string directory();
    // Takes the entries of a file written for `file_fw`, except over answers
    // already in memory. A file of other firmware than the known one is
    // dropped whole and marks the cache for writing: false, with the known
    // text in `known`.
    bool take_file(const std::string& file_fw, const Entries& entries, std::string& known);
    // What to write now; the cache counts as written from here on.
    Snapshot take_for_write();
    // Answers that the file lacks.
    bool dirty();

    // The timer is made by the device, which receives its events.
    void set_write_timer(std::shared_ptr<ITimer> timer);
    std::shared_ptr<ITimer> write_timer();

private:
    std::map<std::vector<Byte>, std::vector<Byte>, vxp::CacheKeyLess> response_cache;
    bool cache_dirty = false;
    std::shared_ptr<ITimer> cache_write_timer;
    // The firmware text that the answers belong to; empty until read.
    std::string fwinfo;
    // With its trailing separator; empty means no file.
    std::string cache_dir;
    std::mutex cache_mutex;  // guards all of the above
};

}  // namespace devio
