#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

// LogBuffer: the in-memory rings between logging threads and the log thread.
//
// Two rings advance together: fixed-size entries, and the byte ring holding
// each record as "-tag-\0function\0message\0". A record never wraps; the gap
// it leaves at the end of the byte ring is noted in its entry's `skip`.
//
// Threads: any number of writers (write), one reader (readOne, the usage
// queries). Writers take a slot by comparing and setting `writePosition`
// under a spin flag, raising the entry's `pending` in the same hold, then
// fill it without any lock and clear `pending` last; the reader never reads
// an entry that is still pending, and raises it again once it has.
// `readPosition` has its own spin flag. Each flag guards a copy of a few
// words.

namespace devio {

class LogBuffer {
public:
    struct Record {
        uint64_t time;  // monotonic, microseconds
        uint32_t thread;
        int level;
        std::string_view tag;  // with its hyphens
        std::string_view function;
        std::string_view message;
    };

    // Receives records from readOne, on the reader's thread.
    class Sink {
    public:
        virtual ~Sink() = default;
        virtual void output(const Record& record) = 0;
    };

    enum class ReadResult { empty, pending, output };

    static constexpr size_t initialEntries = 30000;
    static constexpr size_t initialBytes = 3000000;

    // Throws std::bad_alloc if the rings cannot be allocated.
    LogBuffer(size_t entries, size_t bytes);
    ~LogBuffer();
    LogBuffer(const LogBuffer&) = delete;
    LogBuffer& operator=(const LogBuffer&) = delete;

    // Stores one record; false if the rings have no room for it. Once there
    // is room and before the slot is taken, `onSpace` runs (it may write to
    // this buffer itself); the position is then re-checked. Pass null when
    // there is nothing to run: the slot is then taken more cheaply.
    bool write(uint64_t time, uint32_t thread, int level, std::string_view tag,
               std::string_view function, std::string_view message, void (*onSpace)());

    // Hands the oldest record to `sink` and frees it. `pending` means the
    // oldest record's writer hasn't finished yet.
    ReadResult readOne(Sink& sink);

    size_t entryCount() const { return entryCount_; }
    size_t byteCount() const { return byteCount_; }
    struct Usage {
        size_t entries;
        size_t bytes;
    };
    Usage usage() const;
    size_t usedEntries() const { return usage().entries; }
    size_t usedBytes() const { return usage().bytes; }

    // Writers announce themselves while they hold this buffer, so that the
    // reader never retires it under a writer that is about to store.
    void enter() { writers_.fetch_add(1, std::memory_order_seq_cst); }
    void leave() { writers_.fetch_sub(1, std::memory_order_seq_cst); }
    bool hasWriters() const { return writers_.load(std::memory_order_seq_cst) != 0; }

    // Ends buffering for the process: the log thread drains what is stored
    // and exits, and later messages are written straight to the file. Called
    // at process exit; safe to call more than once.
    static void shutdown();

    // At process exit, buffering ends once the log facility's own exit hook
    // has run and every hold has been released, whichever comes last; so the
    // static objects that take a hold log their exit sequences into the
    // buffer, in order, whatever the order in which the process destroys its
    // static objects. A holder takes its hold before main (from a static
    // initialiser), calls exitBegins() as its exit sequence starts, and
    // releases the hold after its last line.
    static void holdShutdown();
    static void releaseShutdown();
    // From here on, logging that starts for the first time starts no log
    // thread: its header and messages go straight to the file.
    static void exitBegins();

    // Test hooks. The sizes of the first buffer of the process (call before
    // the first message); holding the reader keeps the log thread from
    // reading or growing the rings; the number of stored, unread records.
    static void setInitialSize(size_t entries, size_t bytes);
    static void holdReader(bool hold);
    static int64_t unreadCount();

private:
    struct Entry {
        uint64_t skip;  // bytes left free at the end of the byte ring before this record
        uint64_t time;
        uint32_t thread;
        uint32_t level;
        uint64_t size;
        uint32_t pending;  // reached through atomic_ref
    };
    struct Free {
        void operator()(void* memory) const { std::free(memory); }
    };
    struct Position {
        uint64_t entry;
        uint64_t byte;
        bool operator==(const Position&) const = default;
    };
    // A position with its spin flag, alone on its cache line so that the
    // writers' flag and the reader's flag don't share one.
    struct alignas(64) GuardedPosition {
        std::atomic<uint32_t> flag{0};
        Position position{0, 0};
        Position load();
        void store(const Position& next);
    };
    // The writers' side also keeps a read position seen earlier, stored
    // together with the write position. The reader only ever frees space,
    // so an old read position understates the room: writers look at the
    // reader's flag only when the old one says the rings are full.
    struct alignas(64) WriteSide {
        std::atomic<uint32_t> flag{0};
        Position position{0, 0};
        Position readSeen{0, 0};
    };

    Position loadWrite() const;
    void raisePending(uint64_t entry);
    [[gnu::always_inline]] bool fits(const Position& w, const Position& r, uint64_t size,
                                     uint64_t& skip) const;

    const size_t entryCount_;
    const size_t byteCount_;
    std::unique_ptr<Entry[], Free> entries_;
    std::unique_ptr<char[], Free> bytes_;
    mutable GuardedPosition readPosition_;
    mutable WriteSide write_;
    // The reader's own: its position (it alone moves it), and the write
    // position as last seen, refreshed only when the reader catches up.
    alignas(64) Position readerAt_{0, 0};
    Position knownWrite_{0, 0};
    alignas(64) std::atomic<int> writers_{0};
};

}  // namespace devio
