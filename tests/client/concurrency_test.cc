// Several clients appending to one data folder at once: every line arrives
// whole, exactly once, and in its client's order. And the users of one group
// taking turns in the folder, each under a umask that keeps the group out.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "client_process.h"

using nlohmann::json;
using namespace qvtest;

TEST(Concurrency, EightClientsIntoOneFolder) {
    const int clients = 8;
    const int perClient = sanitized ? 1500 : 10000;
    TempDir dir;
    std::vector<std::unique_ptr<ClientProcess>> running;
    for (int c = 0; c < clients; ++c) {
        running.push_back(std::make_unique<ClientProcess>(
            dir.path(), std::vector<std::string>{"--noupload", "--debugout",
                                                 dir.file("debug" + std::to_string(c) + ".log")}));
    }
    // Each client gets its own feeder, so all of them ingest at once. The
    // payload is padded so that a torn line could not pass as JSON.
    std::string padding(100, 'p');
    std::vector<std::thread> feeders;
    for (int c = 0; c < clients; ++c) {
        feeders.emplace_back([&, c] {
            std::string batch;
            for (int n = 0; n < perClient; ++n) {
                batch += "{\"c\":" + std::to_string(c) + ",\"n\":" + std::to_string(n) +
                         ",\"pad\":\"" + padding + "\"}\n";
                if (batch.size() > 16384) {
                    running[c]->send(batch);
                    batch.clear();
                }
            }
            running[c]->send(batch);
        });
    }
    for (auto& f : feeders) f.join();
    // End each input only once its worker waits: a soft end during a drain
    // loses the lines queued since, by design.
    for (int c = 0; c < clients; ++c) {
        ASSERT_TRUE(waitWorkerIdle(dir.file("debug" + std::to_string(c) + ".log"), perClient,
                                   std::chrono::milliseconds(300000)))
            << "client " << c;
        EXPECT_TRUE(exitedCleanly(running[c]->wait()));
    }

    auto lines = readLines(dir.file("qvevents.json"));
    ASSERT_EQ(lines.size(), static_cast<size_t>(clients * perClient));
    std::map<int, int> next;
    for (const std::string& line : lines) {
        json event = json::parse(line);  // throws on a torn or mixed line
        ASSERT_EQ(event.size(), 7u) << line;
        for (const char* key : {"timestamp", "upload", "client", "user"}) {
            ASSERT_TRUE(event[key].is_string()) << line;
        }
        ASSERT_EQ(event["timestamp"].get<std::string>().size(), 26u);
        ASSERT_EQ(event["pad"], padding);
        int c = event["c"];
        ASSERT_EQ(event["n"].get<int>(), next[c]) << "client " << c << " out of order";
        ++next[c];
    }
    for (int c = 0; c < clients; ++c) EXPECT_EQ(next[c], perClient);
}

TEST(Concurrency, UsersOfOneGroupTakeTurnsInTheFolder) {
    if (::geteuid() != 0) GTEST_SKIP() << "switching users needs root";
    // Ids that need no account on the machine.
    const gid_t group = 61000;
    const RunAs first{61001, group, 022};
    const RunAs second{61002, group, 022};
    TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);  // made private to root
    // The group's folder holds the data folder, which the first client makes.
    const std::string parent = dir.file("group");
    ASSERT_EQ(::mkdir(parent.c_str(), 0755), 0);
    ASSERT_EQ(::chown(parent.c_str(), 0, group), 0);
    ASSERT_EQ(::chmod(parent.c_str(), 02775), 0);
    const std::string data = parent + "/shared";
    auto event = [](const std::string& who) { return "{\"who\":\"" + who + "\"}\n"; };
    auto whoWrote = [&] {
        std::vector<std::string> who;
        for (const auto& line : heldLines(data)) who.push_back(json::parse(line)["who"]);
        return who;
    };
    auto stated = [&](const char* name) {
        struct stat st = {};
        EXPECT_EQ(::lstat((data + "/" + name).c_str(), &st), 0) << name;
        return st;
    };

    // The first run's upload fails and leaves its line in the send file; the
    // second comes within the minute, decides nothing, and starts a new
    // events file.
    ASSERT_TRUE(exitedCleanly(runClient(data, {}, event("first"), first).status));
    ASSERT_TRUE(exitedCleanly(runClient(data, {}, event("second"), second).status));
    EXPECT_EQ(whoWrote(), (std::vector<std::string>{"first", "second"}));
    struct stat folder = {};
    ASSERT_EQ(::lstat(data.c_str(), &folder), 0);
    EXPECT_EQ(folder.st_mode & 07777, 02775u) << "the data folder that a client made";
    EXPECT_EQ(folder.st_gid, group);
    const struct {
        const char* name;
        uid_t owner;
    } made[] = {{"registry.json", first.uid},
                {"qvevents.json.send", first.uid},
                {"qvevents.json", second.uid}};
    for (const auto& file : made) {
        struct stat st = stated(file.name);
        EXPECT_EQ(st.st_mode & 07777, 0660u) << file.name;
        EXPECT_EQ(st.st_uid, file.owner) << file.name;
        EXPECT_EQ(st.st_gid, group) << file.name;
    }

    // A file that its owner narrowed stays so: a member of the group who
    // cannot write it ends at the store with no line taken, and root's
    // client, which could widen it, leaves its mode alone.
    ASSERT_EQ(::chmod((data + "/registry.json").c_str(), 0640), 0);
    RunResult refused = runClient(data, {}, event("refused"), second);
    EXPECT_TRUE(aborted(refused.status));
    EXPECT_EQ(refused.output, "schema: 00000005\nbuild: 90\n");
    ASSERT_TRUE(exitedCleanly(runClient(data, {}, event("root")).status));
    EXPECT_EQ(stated("registry.json").st_mode & 07777, 0640u);
    EXPECT_EQ(whoWrote(), (std::vector<std::string>{"first", "second", "root"}));
}
