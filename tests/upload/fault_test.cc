// The server's faults and replies, and where each leaves the events: the
// send file kept for a retry, merged back behind newer events, or deleted
// because the exchange counts as delivered. And the settings each reply
// changes.

#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "upload_support.h"

using nlohmann::json;
using namespace qvtest;
namespace fs = std::filesystem;

namespace {

// The result the rotation traced for its one transfer, or -1.
int tracedResult(const UploadBench& bench) {
    const std::string prefix = "sent normal send file " + bench.sendFile() + " returned ";
    const std::string log = bench.traces();
    auto at = log.find(prefix);
    if (at == std::string::npos) return -1;
    return std::stoi(log.substr(at + prefix.size()));
}

struct TransportFault {
    const char* name;
    IngestOptions options;
    std::set<int> results;  // libcurl codes that this fault may give
    bool serverStores;      // the server kept the upload though the client failed
    bool recovers;          // the server can be switched to answer normally
    bool foreignCa = false;
};

void PrintTo(const TransportFault& fault, std::ostream* out) {
    *out << fault.name;
}

class TransportFaults : public ::testing::TestWithParam<TransportFault> {};

}  // namespace

TEST_P(TransportFaults, SendFileStaysAndGoesWithTheNextUpload) {
    const TransportFault& fault = GetParam();
    UploadBench bench(fault.options);
    TempDir trusted;
    if (fault.foreignCa) {
        makeForeignCertificates(trusted.path());
        ::setenv("VANTSHRD_CA_FILE", (trusted.path() + "/ca.pem").c_str(), 1);
    }
    seedStore(bench.data, {{"MaxLineBuf", "1000"}});

    ASSERT_TRUE(exitedCleanly(bench.run(eventInput("a", 30) + ".OFF\n", {"--noupload"}).status));
    int result = tracedResult(bench);
    EXPECT_TRUE(fault.results.count(result)) << "result " << result << "\n" << bench.traces();
    EXPECT_FALSE(traced(bench.traces(), "upload complete, delete"));

    // Kept whole, the upload id not renewed, LastUpload moved all the same.
    const auto kept = readLines(bench.sendFile());
    EXPECT_EQ(numbersOf(kept, "a"), range(0, 30));
    const std::string uploadId = storedValue(bench.data, "UploadId");
    EXPECT_EQ(json::parse(kept[0])["upload"], uploadId);
    EXPECT_FALSE(storedValue(bench.data, "LastUpload").empty());
    const size_t storedBefore = bench.server.uploads().size();
    EXPECT_EQ(storedBefore, fault.serverStores ? 1u : 0u) << bench.server.connections();

    if (fault.recovers) {
        // The next upload sends the old file first, then the new events, and
        // the retry carries the same upload id.
        bench.server.control({{"mode", "ok"}});
        ASSERT_TRUE(
            exitedCleanly(bench.run(eventInput("b", 20) + ".OFF\n", {"--noupload"}).status));
        EXPECT_TRUE(traced(bench.traces(), "sent second of 2")) << bench.traces();
        auto uploads = bench.server.uploads();
        ASSERT_EQ(uploads.size(), storedBefore + 2);
        const auto& retry = uploads[storedBefore];
        EXPECT_EQ(numbersOf(retry.lines, "a"), range(0, 30));
        EXPECT_EQ(json::parse(retry.headerText)["uploadid"], uploadId);
        EXPECT_EQ(numbersOf(uploads[storedBefore + 1].lines, "b"), range(0, 20));
        EXPECT_FALSE(fs::exists(bench.sendFile()));
        EXPECT_NE(storedValue(bench.data, "UploadId"), uploadId);
    } else {
        // Failing again: the old events go back behind the newer ones and the
        // next try has one file.
        ASSERT_TRUE(
            exitedCleanly(bench.run(eventInput("b", 20) + ".OFF\n", {"--noupload"}).status));
        const std::string log = bench.traces();
        EXPECT_TRUE(traced(log, "send file exists already " + bench.sendFile())) << log;
        EXPECT_TRUE(log.find("bg unlock complete", log.find("send file exists already")) !=
                    std::string::npos)
            << log;
        EXPECT_FALSE(fs::exists(bench.sendFile()));
        auto lines = readLines(bench.eventsFile());
        ASSERT_EQ(lines.size(), 50u);
        EXPECT_EQ(numbersOf({lines.begin(), lines.begin() + 20}, "b"), range(0, 20));
        EXPECT_EQ(numbersOf({lines.begin() + 20, lines.end()}, "a"), range(0, 30));
        EXPECT_TRUE(bench.server.uploads().empty());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, TransportFaults,
    ::testing::Values(TransportFault{"refused", {.mode = "refuse"}, {7}, false, false},
                      TransportFault{"silent", {.mode = "silent"}, {28}, false, true},
                      TransportFault{"reset", {.mode = "reset"}, {55, 56}, false, true},
                      TransportFault{"reply_dropped", {.mode = "drop"}, {52}, true, true},
                      TransportFault{"untrusted_ca", {}, {60}, false, false, true}),
    [](const auto& param) { return std::string(param.param.name); });

namespace {

struct Reply {
    const char* name;
    int status;
    const char* body;
    bool traced;  // "exception processing returned json"
    json store;   // settings expected in the store afterwards
};

void PrintTo(const Reply& reply, std::ostream* out) {
    *out << reply.name;
}

class Replies : public ::testing::TestWithParam<Reply> {};

// The store is rewritten without truncation, so a reply that shortens a
// stored value by two digits or more leaves a tail that empties the store at
// the next read; the replies here keep the lengths.
const json defaults = {{"MaxLastUploadSeconds", "259200"},
                       {"MaxLineBuf", "1000"},
                       {"MaxPauseSeconds", "7200"},
                       {"MinUploadSize", "1048576"},
                       {"TimeoutShutdownSeconds", "600"}};

json with(json patch) {
    json all = defaults;
    all.update(patch);
    return all;
}

}  // namespace

TEST_P(Replies, AnyCompletedExchangeIsDeliveredAndItsSettingsTaken) {
    const Reply& reply = GetParam();
    UploadBench bench({.status = reply.status, .reply = reply.body});
    seedStore(bench.data, {{"MaxLineBuf", "1000"}});
    ASSERT_TRUE(exitedCleanly(bench.run(eventInput("a", 30) + ".OFF\n", {"--noupload"}).status));

    const std::string log = bench.traces();
    EXPECT_EQ(tracedResult(bench), 0) << log;
    EXPECT_EQ(traced(log, "exception processing returned json"), reply.traced) << log;
    EXPECT_TRUE(traced(log, "upload complete, delete " + bench.sendFile())) << log;
    EXPECT_FALSE(fs::exists(bench.sendFile()));

    auto uploads = bench.server.uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].meta["status"], reply.status);
    EXPECT_EQ(numbersOf(uploads[0].lines, "a"), range(0, 30));
    EXPECT_NE(storedValue(bench.data, "UploadId"), json::parse(uploads[0].headerText)["uploadid"]);
    for (const auto& [key, value] : reply.store.items()) {
        EXPECT_EQ(storedValue(bench.data, key), value) << key;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Server, Replies,
    ::testing::Values(
        Reply{"not_found", 404, "", true, defaults},
        Reply{"error_with_settings", 500,
              R"({"MaxLineBuf":"5000","MinUploadSize":"4096000","Other":"1"})", false,
              with({{"MaxLineBuf", "5000"}, {"MinUploadSize", "4096000"}})},
        Reply{"all_five",
              200,
              R"({"MaxLastUploadSeconds":"360000","MaxLineBuf":"3000","MaxPauseSeconds":"9900",)"
              R"("MinUploadSize":"2000000","TimeoutShutdownSeconds":"400"})",
              false,
              {{"MaxLastUploadSeconds", "360000"},
               {"MaxLineBuf", "3000"},
               {"MaxPauseSeconds", "9900"},
               {"MinUploadSize", "2000000"},
               {"TimeoutShutdownSeconds", "400"}}},
        Reply{"not_json", 200, "not json", true, defaults},
        Reply{"array", 200, "[]", false, defaults},
        Reply{"keys_are_exact", 200, R"({"maxlinebuf":"50","MINUPLOADSIZE":"7"})", false, defaults},
        // Taken in their fixed order up to the first bad one: its text is
        // stored, the ones after it are not.
        Reply{"stops_at_a_bad_number", 200,
              R"({"MinUploadSize":"5","MaxLineBuf":"x100","MaxLastUploadSeconds":"999999"})", true,
              with({{"MaxLastUploadSeconds", "999999"}, {"MaxLineBuf", "x100"}})}),
    [](const auto& param) { return std::string(param.param.name); });

TEST(ReplySettings, TakeEffectInTheRunningClientAtOnce) {
    UploadBench bench({.reply = R"({"MaxLineBuf":"50"})"});
    // The 21st line asks for a flush; the first decision uploads, and the
    // reply raises MaxLineBuf, so the next 40 lines wait for ".OFF".
    ClientProcess client(bench.data, {"--debugout", bench.log});
    client.send(eventInput("a", 21));
    ASSERT_TRUE(waitFor([&] { return traced(bench.traces(), "CollectSystemData took"); },
                        std::chrono::seconds(60)))
        << bench.traces();
    EXPECT_EQ(storedValue(bench.data, "MaxLineBuf"), "50");
    client.send(eventInput("b", 40) + ".OFF\n");
    ASSERT_TRUE(exitedCleanly(client.wait()));

    auto uploads = bench.server.uploads();
    ASSERT_EQ(uploads.size(), 2u);
    EXPECT_EQ(json::parse(uploads[0].headerText)["maxlinebuf"], 20);
    EXPECT_EQ(json::parse(uploads[1].headerText)["maxlinebuf"], 50);
    EXPECT_EQ(numbersOf(uploads[0].lines, "a"), range(0, 21));
    EXPECT_EQ(numbersOf(uploads[1].lines, "b"), range(0, 40));
    // Two flushes: the 21st line's and the final one. Under the old value
    // the 21st line of the second batch would have asked for another.
    const std::string log = bench.traces();
    size_t flushes = 0;
    for (auto at = log.find("bg flush to file"); at != std::string::npos;
         at = log.find("bg flush to file", at + 1)) {
        ++flushes;
    }
    EXPECT_EQ(flushes, 2u) << log;
}

TEST(ReplySettings, ANumberForAStringHoldsTheStoreLockForTheRestOfTheRun) {
    UploadBench bench({.reply = R"({"MaxLineBuf":50})"});
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(exitedCleanly(bench.run(eventInput("a", 5) + ".OFF\n").status));
    auto took = std::chrono::steady_clock::now() - start;

    const std::string log = bench.traces();
    EXPECT_TRUE(traced(log, "exception processing returned json")) << log;
    EXPECT_TRUE(traced(log, "upload complete, delete " + bench.sendFile())) << log;
    EXPECT_FALSE(fs::exists(bench.sendFile()));
    EXPECT_EQ(storedValue(bench.data, "MaxLineBuf"), "20");
    // The renewal of the upload id had to wait out its lock attempts on the
    // lock the failed transaction kept, then went ahead without it.
    auto uploads = bench.server.uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_NE(storedValue(bench.data, "UploadId"), json::parse(uploads[0].headerText)["uploadid"]);
    EXPECT_GT(took, std::chrono::seconds(50));
}
