// Flush thresholds, the shutdown handshake and the events file's lock,
// through the real binary.

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

std::string eventLine(int n) {
    return "{\"n\":" + std::to_string(n) + "}\n";
}

void sendEvents(ClientProcess& client, int from, int to) {
    for (int n = from; n < to; ++n) client.send(eventLine(n));
}

// The "n" values of the events file, in file order.
std::vector<int> numbersOf(const std::vector<std::string>& lines) {
    std::vector<int> numbers;
    for (auto& line : lines) numbers.push_back(nlohmann::json::parse(line)["n"]);
    return numbers;
}

std::vector<int> writtenNumbers(const std::string& path) { return numbersOf(readLines(path)); }

std::vector<int> range(int from, int to) {
    std::vector<int> numbers;
    for (int n = from; n < to; ++n) numbers.push_back(n);
    return numbers;
}

}  // namespace

TEST(Flush, ThresholdsAndSoftEnd) {
    // MaxLineBuf 20: twenty lines stay in memory, the 21st flushes all 21,
    // and a soft end with the worker waiting writes the rest.
    TempDir dir;
    std::string log = dir.file("debug.log");
    std::string events = dir.file("qvevents.json");
    ClientProcess client(dir.path(), {"--noupload", "--debugout", log});
    sendEvents(client, 0, 20);
    ASSERT_TRUE(waitWorkerIdle(log, 20));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(countLines(events), 0u);

    sendEvents(client, 20, 21);
    ASSERT_TRUE(waitFor([&] { return countLines(events) >= 21; }, 10000ms));
    ASSERT_TRUE(waitWorkerIdle(log, 21));
    EXPECT_EQ(writtenNumbers(events), range(0, 21));

    sendEvents(client, 21, 26);
    ASSERT_TRUE(waitWorkerIdle(log, 26));
    EXPECT_EQ(countLines(events), 21u);
    EXPECT_TRUE(exitedCleanly(client.wait()));
    EXPECT_EQ(writtenNumbers(events), range(0, 26));
}

TEST(Flush, SmallStoredLineBufferIsRaisedToTwo) {
    TempDir dir;
    writeFile(dir.file("registry.json"), "{\"MaxLineBuf\":\"1\"}\n");
    std::string log = dir.file("debug.log");
    std::string events = dir.file("qvevents.json");
    ClientProcess client(dir.path(), {"--debugout", log});
    sendEvents(client, 0, 2);
    ASSERT_TRUE(waitWorkerIdle(log, 2));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(countLines(events), 0u);
    sendEvents(client, 2, 3);
    EXPECT_TRUE(waitFor([&] { return heldLines(dir.path()).size() == 3; }, 10000ms));
    client.send(".OFF\n");
    EXPECT_TRUE(exitedCleanly(client.wait()));
    // The stored text is left as it was; only the running value is raised.
    EXPECT_EQ(storedValue(dir.path(), "MaxLineBuf"), "1");
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

TEST(Flush, HardEndWritesEverything) {
    TempDir dir;
    std::string log = dir.file("debug.log");
    ClientProcess client(dir.path(), {"--noupload", "--debugout", log});
    sendEvents(client, 0, 60);
    client.send(".OFF\n");
    EXPECT_TRUE(exitedCleanly(client.wait()));
    EXPECT_EQ(numbersOf(heldLines(dir.path())), range(0, 60));
    // ".OFF" forces the upload decision even with --noupload.
    EXPECT_NE(readFile(log).find("bg upload= 2"), std::string::npos);
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
