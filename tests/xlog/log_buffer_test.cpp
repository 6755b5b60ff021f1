// LogBuffer on its own: real writer threads and a real reader on rings small
// enough to wrap and fill many times over.

#include "log_buffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

using devio::LogBuffer;

// Collects records as the reader sees them.
class Collect : public LogBuffer::Sink {
public:
    void output(const LogBuffer::Record& r) override {
        records.push_back({std::string(r.tag), std::string(r.function), std::string(r.message),
                           r.thread, r.level, r.time});
    }
    struct Copy {
        std::string tag, function, message;
        uint32_t thread;
        int level;
        uint64_t time;
    };
    std::vector<Copy> records;
};

// The body of message i of writer t: its length varies so that records
// leave gaps of every size at the end of the byte ring, and its content is
// derived from (t, i) so that a torn or mixed record is recognised.
std::string body(int t, int i) {
    std::string text = "t" + std::to_string(t) + " i" + std::to_string(i) + " ";
    char fill = static_cast<char>('a' + (t * 7 + i) % 26);
    text.append(static_cast<size_t>((i * 13 + t) % 150), fill);
    return text;
}

// Writers store their sequences while one reader follows right behind them;
// every record must come out once, in each writer's order, and whole.
void writeAndReadConcurrently(LogBuffer& buffer, bool expectFull) {
    constexpr int writers = 6;
    constexpr int perWriter = 20000;
    std::atomic<int> done{0};
    std::atomic<long> retries{0};
    // Set when the reader gives up on a damaged ring, so that writers
    // waiting for room do not wait forever.
    std::atomic<bool> stop{false};

    std::vector<std::thread> pool;
    for (int t = 0; t < writers; ++t) {
        pool.emplace_back([&, t] {
            for (int i = 0; i < perWriter; ++i) {
                std::string message = body(t, i);
                while (!buffer.write(static_cast<uint64_t>(i), static_cast<uint32_t>(t), t % 5,
                                     "Tag", "devio::Test::write", message, nullptr)) {
                    if (stop.load()) return;
                    retries.fetch_add(1);
                    std::this_thread::yield();
                }
            }
            done.fetch_add(1);
        });
    }

    std::vector<int> next(writers, 0);
    long outputs = 0;
    std::string failure;
    class Check : public LogBuffer::Sink {
    public:
        Check(std::vector<int>& n, std::string& f) : next(n), failure(f) {}
        void output(const LogBuffer::Record& r) override {
            int t = static_cast<int>(r.thread);
            if (t < 0 || t >= writers) {
                failure = "bad thread";
                return;
            }
            int i = next[static_cast<size_t>(t)]++;
            if (r.message != body(t, i) || r.tag != "-Tag-" || r.function != "devio::Test::write" ||
                r.level != t % 5 || r.time != static_cast<uint64_t>(i)) {
                if (failure.empty())
                    failure = "record t" + std::to_string(t) + " i" + std::to_string(i) + ": " +
                              std::string(r.message.substr(0, 40));
            }
        }
        std::vector<int>& next;
        std::string& failure;
    } check(next, failure);

    for (;;) {
        bool writersDone = done.load() == writers;
        LogBuffer::ReadResult result = buffer.readOne(check);
        if (result == LogBuffer::ReadResult::output) ++outputs;
        if (result == LogBuffer::ReadResult::empty && writersDone) break;
        if (!failure.empty() || outputs > long{writers} * perWriter) {
            stop.store(true);
            break;
        }
        if (result != LogBuffer::ReadResult::output) std::this_thread::yield();
    }
    for (auto& th : pool) th.join();

    EXPECT_EQ(failure, "");
    EXPECT_EQ(outputs, long{writers} * perWriter);
    for (int t = 0; t < writers; ++t)
        EXPECT_EQ(next[static_cast<size_t>(t)], perWriter) << "writer " << t;
    if (expectFull) {
        EXPECT_GT(retries.load(), 0)
            << "the rings never filled; the test did not exercise the full case";
    }
    EXPECT_EQ(buffer.usedEntries(), 0u);
    EXPECT_EQ(buffer.usedBytes(), 0u);
}

TEST(LogBufferTest, ManyWritersOneReaderEveryRecordOnceInOrderAndWhole) {
    {
        SCOPED_TRACE("small rings, wrapped hundreds of times and often full");
        LogBuffer buffer(257, 8000);
        writeAndReadConcurrently(buffer, true);
    }
    {
        // Each slot is used once: the reader meets slots that writers have
        // taken but not yet filled in fresh memory, never in a recycled one.
        SCOPED_TRACE("rings never wrapped");
        LogBuffer buffer(200000, 20000000);
        writeAndReadConcurrently(buffer, false);
    }
}

TEST(LogBufferTest, FullRingsRefuseAndRecoverWithoutLosingStoredRecords) {
    // Entries run out first in one buffer, bytes in the other.
    struct Case {
        size_t entries, bytes;
        size_t messageLength;
    } cases[] = {{10, 100000, 10}, {1000, 2000, 90}};
    for (const Case& c : cases) {
        LogBuffer buffer(c.entries, c.bytes);
        for (int round = 0; round < 5; ++round) {
            int stored = 0;
            std::string message(c.messageLength, static_cast<char>('a' + round));
            while (buffer.write(1, 2, 3, "T", "f", message + std::to_string(stored), nullptr))
                ++stored;
            ASSERT_GT(stored, 0);
            // Room is always kept: entries stop two short, bytes 100 short.
            EXPECT_LE(buffer.usedEntries(), c.entries - 2);
            EXPECT_LE(buffer.usedBytes() + 100, c.bytes);

            Collect sink;
            while (buffer.readOne(sink) == LogBuffer::ReadResult::output) {
            }
            ASSERT_EQ(sink.records.size(), static_cast<size_t>(stored)) << "round " << round;
            for (int i = 0; i < stored; ++i)
                ASSERT_EQ(sink.records[static_cast<size_t>(i)].message,
                          message + std::to_string(i));
            EXPECT_EQ(buffer.usedEntries(), 0u);
        }
    }
}

TEST(LogBufferTest, OnSpaceMayWriteItsOwnRecordFirst) {
    LogBuffer buffer(100, 10000);
    static LogBuffer* target = nullptr;
    static int calls = 0;
    target = &buffer;
    calls = 0;
    // The hook stores a report before the record that made room for it,
    // as the overrun report does.
    auto hook = +[] {
        if (calls++ == 0) target->write(5, 1, 0, "LogBuffer", "report", "report first", nullptr);
    };
    ASSERT_TRUE(buffer.write(6, 1, 2, "T", "f", "the record", hook));
    Collect sink;
    while (buffer.readOne(sink) == LogBuffer::ReadResult::output) {
    }
    ASSERT_EQ(sink.records.size(), 2u);
    EXPECT_EQ(sink.records[0].message, "report first");
    EXPECT_EQ(sink.records[1].message, "the record");
    EXPECT_EQ(sink.records[1].tag, "-T-");
}

TEST(LogBufferTest, MessageWithNulKeepsItsLength) {
    LogBuffer buffer(10, 1000);
    std::string message("a\0b", 3);
    ASSERT_TRUE(buffer.write(1, 1, 1, "T", "f", message, nullptr));
    Collect sink;
    ASSERT_EQ(buffer.readOne(sink), LogBuffer::ReadResult::output);
    EXPECT_EQ(sink.records.at(0).message, message);
}

}  // namespace
