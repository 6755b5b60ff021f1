// Several clients appending to one data folder at once: every line arrives
// whole, exactly once, and in its client's order.

#include <gtest/gtest.h>

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
