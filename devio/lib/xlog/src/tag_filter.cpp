#include "tag_filter.h"

#include <array>
#include <cstring>
#include <new>

namespace devio::xlog {

void TagFilter::configure(std::string_view tokens) {
    bool first = true;
    size_t pos = 0;
    while (pos < tokens.size()) {
        size_t start = tokens.find_first_not_of(' ', pos);
        if (start == std::string_view::npos) break;
        size_t end = tokens.find(' ', start);
        if (end == std::string_view::npos) end = tokens.size();
        std::string_view token = tokens.substr(start, end - start);
        pos = end;
        // Any token at all means the user chose the filter, so the default
        // "exclude everything" is dropped before the tokens apply.
        if (first) {
            excludeAll_ = false;
            first = false;
        }
        if (token == "-*") {
            excludeAll_ = true;
            plusTags_.clear();
            minusTags_.clear();
        } else if (token.size() > 1 && token[0] == '+') {
            std::string name(token.substr(1));
            minusTags_.erase(name);
            plusTags_.insert(std::move(name));
        } else if (token.size() > 1 && token[0] == '-') {
            std::string name(token.substr(1));
            plusTags_.erase(name);
            minusTags_.insert(std::move(name));
        }
    }
}

bool TagFilter::passes(std::string_view tag) const {
    if (!minusTags_.empty() && minusTags_.find(tag) != minusTags_.end()) return false;
    if (excludeAll_ && (plusTags_.empty() || plusTags_.find(tag) == plusTags_.end())) return false;
    return true;
}

std::string TagFilter::describe() const {
    std::string text;
    if (excludeAll_) text += " -*";
    for (const std::string& name : plusTags_) text += " +" + name;
    for (const std::string& name : minusTags_) text += " -" + name;
    return text;
}

namespace {

// A thread's memory of tags it has already put into seenTags, so that the
// common case of a repeated tag costs a few compares and no lock.
struct SeenCache {
    static constexpr size_t slots = 16;
    static constexpr size_t maxLength = 31;
    std::array<std::array<char, maxLength + 1>, slots> names{};
    std::array<unsigned char, slots> lengths{};
    size_t next = 0;

    size_t lastHit = 0;

    // Tags are a few letters: comparing them here is cheaper than a call.
    bool matches(size_t i, std::string_view tag) const {
        if (lengths[i] != tag.size()) return false;
        for (size_t k = 0; k < tag.size(); ++k)
            if (names[i][k] != tag[k]) return false;
        return true;
    }
    // A thread tends to log under one tag many times in a row.
    bool contains(std::string_view tag) {
        if (matches(lastHit, tag)) return true;
        for (size_t i = 0; i < slots; ++i)
            if (matches(i, tag)) {
                lastHit = i;
                return true;
            }
        return false;
    }
    void add(std::string_view tag) {
        if (tag.size() > maxLength) return;
        std::memcpy(names[next].data(), tag.data(), tag.size());
        lengths[next] = static_cast<unsigned char>(tag.size());
        next = (next + 1) % slots;
    }
};

thread_local SeenCache seenCache;

}  // namespace

void TagFilter::noteSeen(std::string_view tag, bool toFile) {
    if (tag.empty() || seenCache.contains(tag)) return;
    try {
        std::lock_guard lock(seenMutex_);
        if (released_.load(std::memory_order_relaxed)) return;
        if (seenTags_.find(tag) == seenTags_.end()) seenTags_.emplace(std::string(tag), toFile);
        seenCache.add(tag);
    } catch (...) {
        // Running out of memory for the record of tags must not fail a log call.
    }
}

void TagFilter::release() {
    std::lock_guard lock(seenMutex_);
    released_.store(true);
    std::map<std::string, bool, std::less<>>().swap(seenTags_);
}

void TagFilter::resetAfterFork() {
    new (&seenMutex_) std::mutex;
}

}  // namespace devio::xlog
