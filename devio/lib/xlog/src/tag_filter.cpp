#include "tag_filter.h"

#include <array>
#include <cstring>

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
    if (minusTags_.find(tag) != minusTags_.end()) return false;
    if (excludeAll_ && plusTags_.find(tag) == plusTags_.end()) return false;
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

    bool contains(std::string_view tag) const {
        for (size_t i = 0; i < slots; ++i)
            if (lengths[i] == tag.size() && std::memcmp(names[i].data(), tag.data(), tag.size()) == 0)
                return true;
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
        if (seenReleased_) return;
        if (seenTags_.find(tag) == seenTags_.end()) seenTags_.emplace(std::string(tag), toFile);
        seenCache.add(tag);
    } catch (...) {
        // Running out of memory for the record of tags must not fail a log call.
    }
}

void TagFilter::releaseSeen() {
    std::lock_guard lock(seenMutex_);
    seenReleased_ = true;
    std::map<std::string, bool, std::less<>>().swap(seenTags_);
}

}  // namespace devio::xlog
