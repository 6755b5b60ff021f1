// Flush thresholds, the shutdown handshake and the events file's lock,
// through the real binary. That ".OFF" writes everything and uploads even
// with --noupload is the upload flow tests' business.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <thread>

#include "client_process.h"
#include "shared_file.h"

using namespace qvtest;
using namespace std::chrono_literals;

namespace {

void sendEvents(ClientProcess& client, int from, int to) {
    for (int n = from; n < to; ++n) client.send("{\"n\":" + std::to_string(n) + "}\n");
}

// The "n" values of the events file, in file order.
std::vector<int> writtenNumbers(const std::string& path) {
    std::vector<int> numbers;
    for (auto& line : readLines(path)) numbers.push_back(nlohmann::json::parse(line)["n"]);
    return numbers;
}

}  // namespace

TEST(Flush, ThresholdsAndSoftEnd) {
    // MaxLineBuf lines stay in memory, one more flushes them all, and a soft
    // end with the worker waiting writes the rest. A stored value below two
    // runs as two, and is left in the store as it was.
    for (const std::string stored : {"", "1"}) {
        SCOPED_TRACE("stored MaxLineBuf '" + stored + "'");
        const int limit = stored.empty() ? 20 : 2;
        TempDir dir;
        std::string log = dir.file("debug.log");
        std::string events = dir.file("qvevents.json");
        if (!stored.empty()) writeFile(dir.file("registry.json"), "{\"MaxLineBuf\":\"1\"}\n");
        ClientProcess client(dir.path(), {"--noupload", "--debugout", log});
        sendEvents(client, 0, limit);
        ASSERT_TRUE(waitWorkerIdle(log, limit));
        std::this_thread::sleep_for(300ms);
        EXPECT_EQ(countLines(events), 0u);

        sendEvents(client, limit, limit + 1);
        ASSERT_TRUE(waitFor([&] { return countLines(events) > 0; }, 10000ms));
        ASSERT_TRUE(waitWorkerIdle(log, limit + 1));
        EXPECT_EQ(writtenNumbers(events), range(0, limit + 1));

        sendEvents(client, limit + 1, 2 * limit + 1);
        ASSERT_TRUE(waitWorkerIdle(log, 2 * limit + 1));
        EXPECT_EQ(writtenNumbers(events), range(0, limit + 1));
        EXPECT_TRUE(exitedCleanly(client.wait()));
        EXPECT_EQ(writtenNumbers(events), range(0, 2 * limit + 1));
        EXPECT_EQ(storedValue(dir.path(), "MaxLineBuf"), stored.empty() ? "20" : stored);
    }
}

TEST(Flush, LastUnpauseAsksForAFlush) {
    // Unpausing the machine (the count back at 0) flushes at once; an
    // unpause that leaves another client's pause standing does not.
    TempDir dir;
    std::string events = dir.file("qvevents.json");
    std::string log = dir.file("debug.log");
    writeFile(dir.file("registry.json"), "{\"PauseCount\":\"1\"}\n");
    ClientProcess client(dir.path(), {"--noupload", "--debugout", log});
    sendEvents(client, 0, 3);
    client.send(".PAUSE\n.UNPAUSE\n");
    ASSERT_TRUE(waitWorkerIdle(log, 3));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(countLines(events), 0u);
    EXPECT_EQ(storedValue(dir.path(), "PauseCount"), "1");

    writeFile(dir.file("registry.json"), "{}\n");
    client.send(".PAUSE\n.UNPAUSE\n");
    EXPECT_TRUE(waitFor([&] { return countLines(events) == 3; }, 10000ms));
    EXPECT_EQ(storedValue(dir.path(), "PauseCount"), "0");
    EXPECT_TRUE(exitedCleanly(client.wait()));
}

TEST(Flush, LockFailureKeepsLines) {
    // Another client holds the events file's lock past the bounded wait: the
    // drain reports "lock error: " with the errno and keeps its lines for the
    // next flush.
    TempDir dir;
    std::string events = dir.file("qvevents.json");
    std::string log = dir.file("debug.log");
    int holder = qv::openShared(events, O_RDWR | O_APPEND | O_CREAT);
    ASSERT_GE(holder, 0);
    ASSERT_EQ(qv::lockRange(holder), 0);

    ClientProcess client(dir.path(), {"--noupload", "--debugout", log});
    sendEvents(client, 0, 21);
    ASSERT_TRUE(
        waitFor([&] { return readFile(log).find("bg upload= 1") != std::string::npos; }, 30000ms));
    EXPECT_EQ(countLines(events), 0u);
    ASSERT_EQ(qv::unlockRange(holder), 0);
    ::close(holder);

    sendEvents(client, 21, 22);
    EXPECT_TRUE(waitFor([&] { return countLines(events) == 22; }, 10000ms));
    client.send(".EOF\n");
    EXPECT_TRUE(exitedCleanly(client.wait()));
    EXPECT_NE(client.output().find("lock error: 11\n"), std::string::npos) << client.output();
    EXPECT_EQ(writtenNumbers(events), range(0, 22));
}

TEST(Flush, DrainNeverLandsInARenamedFile) {
    // An uploader renames the events file to the send file under the file's
    // lock. A drain that waited for that lock must write to the new events
    // file, never into the send file.
    TempDir dir;
    std::string events = dir.file("qvevents.json");
    std::string sendFile = events + ".send";
    std::string log = dir.file("debug.log");
    writeFile(events, "{\"n\":-1}\n");
    int holder = qv::openShared(events, O_RDWR | O_APPEND);
    ASSERT_GE(holder, 0);
    ASSERT_EQ(qv::lockRange(holder), 0);

    ClientProcess client(dir.path(), {"--noupload", "--debugout", log});
    sendEvents(client, 0, 21);
    ASSERT_TRUE(waitFor([&] { return readFile(log).find("bg flush to file") != std::string::npos; },
                        10000ms));
    std::this_thread::sleep_for(200ms);
    ASSERT_EQ(std::rename(events.c_str(), sendFile.c_str()), 0);
    qv::unlockRange(holder);
    ::close(holder);

    ASSERT_TRUE(waitFor([&] { return countLines(events) == 21; }, 10000ms));
    client.send(".EOF\n");
    EXPECT_TRUE(exitedCleanly(client.wait()));
    EXPECT_EQ(readFile(sendFile), "{\"n\":-1}\n");
    EXPECT_EQ(writtenNumbers(events), range(0, 21));
}
