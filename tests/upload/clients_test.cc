// Several clients on one data folder, uploading against a server that fails
// now and then. The events file is renamed under its lock while the others
// append to it: whatever happens, every line must end up on the server or
// still in the data folder, and none twice, except where a retry sends an
// upload again under its old upload id after the server kept it but the
// client never saw the answer.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <thread>

#include "shared_file.h"
#include "upload_support.h"

using nlohmann::json;
using namespace qvtest;

namespace {

using LineId = std::pair<std::string, int>;

LineId idOf(const std::string& line) {
    json event = json::parse(line);
    return {event["tag"].get<std::string>(), event["n"].get<int>()};
}

// One client per tag, each in rounds of `count` lines.
void runRound(UploadBench& bench, int round, int clients, int count) {
    std::vector<std::unique_ptr<ClientProcess>> running;
    std::vector<std::string> logs;
    for (int k = 0; k < clients; ++k) {
        logs.push_back(bench.dir.file("client" + std::to_string(k) + "-" + std::to_string(round)));
        running.push_back(std::make_unique<ClientProcess>(
            bench.data, std::vector<std::string>{"--debugout", logs.back()}));
    }
    for (int k = 0; k < clients; ++k) {
        running[k]->send(eventInput("c" + std::to_string(k), count, round * 1000));
    }
    // The end of input is a soft request, which a worker still busy with an
    // upload would miss, losing what came in meanwhile: end each client once
    // its worker is idle again.
    for (int k = 0; k < clients; ++k) ASSERT_TRUE(waitWorkerIdle(logs[k], count - 1)) << k;
    for (auto& client : running) client->closeInput();
    for (auto& client : running) EXPECT_TRUE(exitedCleanly(client->wait()));
}

}  // namespace

TEST(ConcurrentClients, EveryLineEndsOnTheServerOrInTheDataFolderOnce) {
    UploadBench bench;
    bench.server.control({{"cycle", json::array({{{"mode", "ok"}},
                                                 {{"mode", "reset"}},
                                                 {{"mode", "drop"}},
                                                 {{"mode", "ok"}, {"status", 500}},
                                                 {{"mode", "reset"}},
                                                 {{"mode", "ok"}}})}});
    const int rounds = sanitized ? 6 : 12;
    const int clients = 4;
    const int count = 50;
    for (int round = 0; round < rounds; ++round) {
        // A fresh minute for every round: its first decision uploads.
        patchStore(bench.data, {{"LastUpload", nullptr}});
        runRound(bench, round, clients, count);
        if (HasFatalFailure()) return;
    }

    std::map<LineId, int> inFolder;
    for (const auto& file : {bench.eventsFile(), bench.sendFile()}) {
        for (const auto& line : readLines(file)) ++inFolder[idOf(line)];
    }
    // For each line on the server: the upload ids it came with, and whether
    // every copy but the last went to a server that dropped its reply.
    std::map<LineId, std::vector<std::string>> sentWith;
    std::map<LineId, int> dropped;
    const auto uploads = bench.server.uploads();
    for (const auto& upload : uploads) {
        ASSERT_TRUE(upload.meta["valid"]) << upload.meta.dump();
        const std::string uploadId = upload.meta["uploadid"];
        for (const auto& line : upload.lines) {
            sentWith[idOf(line)].push_back(uploadId);
            if (upload.meta["mode"] == "drop") ++dropped[idOf(line)];
        }
    }

    int lost = 0;
    for (int k = 0; k < clients; ++k) {
        for (int round = 0; round < rounds; ++round) {
            for (int i = 0; i < count; ++i) {
                LineId id{"c" + std::to_string(k), round * 1000 + i};
                const int folder = inFolder.count(id) ? inFolder[id] : 0;
                const auto& sent = sentWith[id];
                if (folder + sent.size() == 0) ++lost;
                EXPECT_LE(folder, 1) << id.first << " " << id.second;
                // Copies beyond the first are retries of a dropped reply,
                // under the same upload id; a copy kept in the folder too
                // must be one whose reply was dropped.
                const int repeats = static_cast<int>(sent.size()) - 1 + folder;
                EXPECT_LE(repeats, dropped[id] > 0 ? dropped[id] : 0)
                    << id.first << " " << id.second;
                EXPECT_EQ(std::set<std::string>(sent.begin(), sent.end()).size(),
                          sent.empty() ? 0u : 1u)
                    << id.first << " " << id.second;
            }
        }
    }
    EXPECT_EQ(lost, 0);
    const std::string connections = bench.server.connections();
    EXPECT_NE(connections.find("reset inside the body"), std::string::npos) << connections;
    EXPECT_NE(connections.find("reply dropped"), std::string::npos) << connections;
    EXPECT_GE(uploads.size(), static_cast<size_t>(rounds / 2));
}

TEST(ConcurrentClients, RenameWaitsForAWriterThatHoldsTheEventsFileLock) {
    UploadBench bench;
    std::filesystem::create_directories(bench.data);
    writeFile(bench.eventsFile(), eventInput("w", 3));
    // Play another client in the middle of a drain: hold the lock.
    int fd = qv::openShared(bench.eventsFile(), O_RDWR | O_APPEND);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(qv::lockRange(fd), 0);

    ClientProcess client(bench.data, {"--debugout", bench.log});
    client.send(".OFF\n");
    ASSERT_TRUE(
        waitFor([&] { return traced(bench.traces(), "bg got devio"); }, std::chrono::seconds(30)));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_FALSE(std::filesystem::exists(bench.sendFile())) << "renamed under a writer's lock";

    // The drain finishes, then lets go: its lines go with this upload.
    const std::string more = eventInput("w", 2, 3);
    ASSERT_EQ(::write(fd, more.data(), more.size()), static_cast<ssize_t>(more.size()));
    qv::unlockRange(fd);
    ::close(fd);
    ASSERT_TRUE(exitedCleanly(client.wait()));

    auto uploads = bench.server.uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(numbersOf(uploads[0].lines, "w"), (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_TRUE(
        traced(bench.traces(), "send file created by rename " + bench.sendFile() + " returned 0,0"))
        << bench.traces();
}
