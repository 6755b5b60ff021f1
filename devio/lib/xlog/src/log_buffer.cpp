#include "log_buffer.h"

#include <sched.h>

#include <cstring>

namespace devio {

namespace {

// Room kept free in the byte ring, so that a full ring is never mistaken for
// an empty one.
constexpr uint64_t byteReserve = 100;
// Likewise for the entry ring.
constexpr uint64_t entryReserve = 2;

void takeFlag(std::atomic<uint32_t>& flag) {
    // The holder only copies 16 bytes; spin briefly, then let a preempted
    // holder run.
    for (unsigned spins = 0; flag.fetch_or(1, std::memory_order_acquire) & 1; ++spins) {
        if (spins < 64) {
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#endif
        } else {
            sched_yield();
        }
    }
}

void releaseFlag(std::atomic<uint32_t>& flag) { flag.store(0, std::memory_order_release); }

}  // namespace

LogBuffer::Position LogBuffer::GuardedPosition::load() {
    takeFlag(flag);
    Position copy = position;
    releaseFlag(flag);
    return copy;
}

void LogBuffer::GuardedPosition::store(const Position& next) {
    takeFlag(flag);
    position = next;
    releaseFlag(flag);
}

bool LogBuffer::GuardedPosition::replace(const Position& expected, const Position& next) {
    takeFlag(flag);
    bool same = position == expected;
    if (same) position = next;
    releaseFlag(flag);
    return same;
}

LogBuffer::LogBuffer(size_t entries, size_t bytes)
    : entryCount_(entries < entryReserve + 1 ? entryReserve + 1 : entries),
      byteCount_(bytes < byteReserve + 8 ? byteReserve + 8 : bytes),
      entries_(new Entry[entryCount_]),
      bytes_(new char[byteCount_]) {
    for (size_t i = 0; i < entryCount_; ++i) entries_[i].pending.store(1, std::memory_order_relaxed);
}

LogBuffer::~LogBuffer() = default;

size_t LogBuffer::usedEntries() const {
    Position r = readPosition_.load();
    Position w = writePosition_.load();
    return static_cast<size_t>((w.entry + entryCount_ - r.entry) % entryCount_);
}

size_t LogBuffer::usedBytes() const {
    Position r = readPosition_.load();
    Position w = writePosition_.load();
    return static_cast<size_t>((w.byte + byteCount_ - r.byte) % byteCount_);
}

bool LogBuffer::write(uint64_t time, uint32_t thread, int level, std::string_view tag,
                      std::string_view function, std::string_view message, void (*onSpace)()) {
    const uint64_t size = tag.size() + function.size() + message.size() + 5;
    for (;;) {
        Position w = writePosition_.load();
        Position r = readPosition_.load();
        uint64_t skip = byteCount_ - w.byte < size ? byteCount_ - w.byte : 0;
        uint64_t usedBytes = (w.byte + byteCount_ - r.byte) % byteCount_;
        uint64_t usedEntries = (w.entry + entryCount_ - r.entry) % entryCount_;
        if (usedBytes + skip + size + byteReserve >= byteCount_) return false;
        if (usedEntries >= entryCount_ - entryReserve) return false;
        if (onSpace != nullptr) onSpace();
        Position next{(w.entry + 1) % entryCount_, (w.byte + skip + size) % byteCount_};
        if (!writePosition_.replace(w, next)) continue;

        Entry& entry = entries_[w.entry];
        entry.skip = skip;
        entry.time = time;
        entry.thread = thread;
        entry.level = static_cast<uint32_t>(level);
        entry.size = size;
        char* out = bytes_.get() + (w.byte + skip) % byteCount_;
        *out++ = '-';
        std::memcpy(out, tag.data(), tag.size());
        out += tag.size();
        *out++ = '-';
        *out++ = '\0';
        std::memcpy(out, function.data(), function.size());
        out += function.size();
        *out++ = '\0';
        std::memcpy(out, message.data(), message.size());
        out[message.size()] = '\0';
        entry.pending.store(0, std::memory_order_release);
        return true;
    }
}

LogBuffer::ReadResult LogBuffer::readOne(Sink& sink) {
    Position r = readPosition_.load();
    Position w = writePosition_.load();
    if (r == w) return ReadResult::empty;
    Entry& entry = entries_[r.entry];
    if (entry.pending.load(std::memory_order_acquire) != 0) return ReadResult::pending;

    const char* record = bytes_.get() + (r.byte + entry.skip) % byteCount_;
    size_t tagLength = std::strlen(record);
    const char* function = record + tagLength + 1;
    size_t functionLength = std::strlen(function);
    const char* message = function + functionLength + 1;
    // The message may hold NULs of its own; its length comes from the size.
    size_t messageLength = entry.size - tagLength - functionLength - 3;
    sink.output(Record{entry.time, entry.thread, static_cast<int>(entry.level),
                       std::string_view(record, tagLength), std::string_view(function, functionLength),
                       std::string_view(message, messageLength)});

    entry.pending.store(1, std::memory_order_relaxed);
    readPosition_.store(Position{(r.entry + 1) % entryCount_, (r.byte + entry.skip + entry.size) % byteCount_});
    return ReadResult::output;
}

}  // namespace devio
