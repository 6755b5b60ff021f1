#include "log_buffer.h"

#include <cstring>
#include <new>
#include <thread>

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
            std::this_thread::yield();
        }
    }
}

void releaseFlag(std::atomic<uint32_t>& flag) {
    flag.store(0, std::memory_order_release);
}

// `value` modulo `count`, for a value below twice the count, as every sum of
// positions here is: a division would cost more than the rest of a write.
uint64_t wrap(uint64_t value, uint64_t count) {
    return value >= count ? value - count : value;
}

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

LogBuffer::LogBuffer(size_t entries, size_t bytes)
    : entryCount_(entries < entryReserve + 1 ? entryReserve + 1 : entries),
      byteCount_(bytes < byteReserve + 8 ? byteReserve + 8 : bytes),
      // Rings are taken as fresh, untouched memory: a grown ring of millions
      // of entries is ready at once, and its pages are mapped as the writers
      // reach them, rather than all up front by the log thread while the
      // writers fill the old one. For the same reason an entry's `pending` is
      // raised when its slot is taken, not for the whole ring here.
      entries_(static_cast<Entry*>(std::calloc(entryCount_, sizeof(Entry)))),
      bytes_(static_cast<char*>(std::malloc(byteCount_))) {
    if (!entries_ || !bytes_) throw std::bad_alloc();
}

LogBuffer::~LogBuffer() = default;

// Under the writers' flag, before the slot is published: a reader that sees
// the slot taken also sees it pending.
void LogBuffer::raisePending(uint64_t entry) {
    std::atomic_ref(entries_[entry].pending).store(1, std::memory_order_relaxed);
}

LogBuffer::Position LogBuffer::loadWrite() const {
    takeFlag(write_.flag);
    Position copy = write_.position;
    releaseFlag(write_.flag);
    return copy;
}

LogBuffer::Usage LogBuffer::usage() const {
    Position r = readPosition_.load();
    Position w = loadWrite();
    return {static_cast<size_t>(wrap(w.entry + entryCount_ - r.entry, entryCount_)),
            static_cast<size_t>(wrap(w.byte + byteCount_ - r.byte, byteCount_))};
}

inline bool LogBuffer::fits(const Position& w, const Position& r, uint64_t size,
                            uint64_t& skip) const {
    skip = byteCount_ - w.byte < size ? byteCount_ - w.byte : 0;
    uint64_t usedBytes = wrap(w.byte + byteCount_ - r.byte, byteCount_);
    uint64_t usedEntries = wrap(w.entry + entryCount_ - r.entry, entryCount_);
    return usedBytes + skip + size + byteReserve < byteCount_ &&
           usedEntries < entryCount_ - entryReserve;
}

bool LogBuffer::write(uint64_t time, uint32_t thread, int level, std::string_view tag,
                      std::string_view function, std::string_view message, void (*onSpace)()) {
    const uint64_t size = tag.size() + function.size() + message.size() + 5;
    for (;;) {
        takeFlag(write_.flag);
        Position w = write_.position;
        Position r = write_.readSeen;
        uint64_t skip = 0;
        // With nothing to run before the slot is taken, and room by the read
        // position seen earlier, the slot is taken in the same hold of the
        // flag: the common case costs one acquisition.
        bool taken = onSpace == nullptr && fits(w, r, size, skip);
        if (taken) {
            raisePending(w.entry);
            write_.position =
                Position{wrap(w.entry + 1, entryCount_), wrap(w.byte + skip + size, byteCount_)};
        }
        releaseFlag(write_.flag);
        if (!taken) {
            if (!fits(w, r, size, skip)) {
                r = readPosition_.load();
                if (!fits(w, r, size, skip)) return false;
            }
            if (onSpace != nullptr) onSpace();
            Position next{wrap(w.entry + 1, entryCount_), wrap(w.byte + skip + size, byteCount_)};
            takeFlag(write_.flag);
            bool same = write_.position == w;
            if (same) {
                raisePending(w.entry);
                write_.position = next;
                write_.readSeen = r;
            }
            releaseFlag(write_.flag);
            if (!same) continue;
        }

        Entry& entry = entries_[w.entry];
        entry.skip = skip;
        entry.time = time;
        entry.thread = thread;
        entry.level = static_cast<uint32_t>(level);
        entry.size = size;
        char* out = bytes_.get() + wrap(w.byte + skip, byteCount_);
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
        std::atomic_ref(entry.pending).store(0, std::memory_order_release);
        return true;
    }
}

LogBuffer::ReadResult LogBuffer::readOne(Sink& sink) {
    Position r = readerAt_;
    if (r == knownWrite_) {
        knownWrite_ = loadWrite();
        if (r == knownWrite_) return ReadResult::empty;
    }
    Entry& entry = entries_[r.entry];
    if (std::atomic_ref(entry.pending).load(std::memory_order_acquire) != 0)
        return ReadResult::pending;

    const char* record = bytes_.get() + wrap(r.byte + entry.skip, byteCount_);
    size_t tagLength = std::strlen(record);
    const char* function = record + tagLength + 1;
    size_t functionLength = std::strlen(function);
    const char* message = function + functionLength + 1;
    // The message may hold NULs of its own; its length comes from the size.
    size_t messageLength = entry.size - tagLength - functionLength - 3;
    sink.output(Record{entry.time, entry.thread, static_cast<int>(entry.level),
                       std::string_view(record, tagLength),
                       std::string_view(function, functionLength),
                       std::string_view(message, messageLength)});

    std::atomic_ref(entry.pending).store(1, std::memory_order_relaxed);
    readerAt_ = Position{wrap(r.entry + 1, entryCount_),
                         wrap(r.byte + entry.skip + entry.size, byteCount_)};
    readPosition_.store(readerAt_);
    return ReadResult::output;
}

}  // namespace devio
