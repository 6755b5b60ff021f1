#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

// The console tag filter. The plus and minus sets and `excludeAll` are set
// once by `configure` before any message is filtered, and are then read by
// every logging thread without a lock. `seenTags` is written by any logging
// thread under `seenMutex`.

namespace devio::xlog {

class TagFilter {
public:
    // Applies the blank-separated tokens of the LogTags setting in order.
    void configure(std::string_view tokens);

    // Whether a message with this tag, above the unconditional level, may
    // reach the console.
    bool passes(std::string_view tag) const;

    // " -*", " +name", " -name" as configured, for the log header.
    std::string describe() const;

    // Records a tag the first time it is met, with whether it went to the
    // file. Cheap on repeats: each thread remembers the tags it has recorded.
    void noteSeen(std::string_view tag, bool toFile);

    // Frees the record of seen tags; later calls of noteSeen are ignored.
    void releaseSeen();

    bool excludeAll() const { return excludeAll_; }

private:
    bool excludeAll_ = true;
    std::set<std::string, std::less<>> plusTags_;
    std::set<std::string, std::less<>> minusTags_;

    std::mutex seenMutex_;
    std::map<std::string, bool, std::less<>> seenTags_;
    bool seenReleased_ = false;
};

}  // namespace devio::xlog
