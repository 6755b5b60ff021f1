// The upload decision through the real client: each run ends its input with
// a soft request, so exactly one unforced decision follows its one flush.
// Times are set by writing LastUpload and LastPause into the store, never
// by waiting.

#include <gtest/gtest.h>

#include <ctime>

#include "upload_support.h"

using nlohmann::json;
using namespace qvtest;

namespace {

// Traces that any decision past the one-minute check writes.
bool decided(const std::string& log) {
    return traced(log, "TIME qualifies") || traced(log, "SIZE qualifies") ||
           traced(log, "too small, too early") || traced(log, "forcing after");
}

// Seconds from now back to a day on the other side of the last change of
// daylight saving time in the zone that TZ names; 0 when there is none
// within a year.
double agoAcrossDaylightSaving() {
    ::tzset();
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    const int season = local.tm_isdst;
    for (int days = 1; days <= 366; ++days) {
        const std::time_t then = now - days * 86400;
        ::localtime_r(&then, &local);
        if (local.tm_isdst != season) return days * 86400.0;
    }
    return 0;
}

}  // namespace

TEST(UploadDecision, FirstDecisionUploadsAndNoneFollowsWithinAMinute) {
    UploadBench bench;
    ASSERT_TRUE(exitedCleanly(bench.run(eventInput("a", 3)).status));
    EXPECT_TRUE(traced(bench.traces(), "TIME qualifies for upload")) << bench.traces();
    ASSERT_EQ(bench.server.uploads().size(), 1u);
    const std::string stamp = storedValue(bench.data, "LastUpload");
    ASSERT_FALSE(stamp.empty());

    // Right after it, and 30 seconds after it: no decision, no trace, the
    // stamp untouched, the lines kept for later.
    for (double ago : {-1.0, 30.0}) {
        if (ago >= 0) patchStore(bench.data, {{"LastUpload", stampAgo(ago)}});
        const std::string before = storedValue(bench.data, "LastUpload");
        ASSERT_TRUE(exitedCleanly(bench.run(eventInput("b", 3)).status));
        EXPECT_FALSE(decided(bench.traces())) << bench.traces();
        EXPECT_EQ(storedValue(bench.data, "LastUpload"), before);
        EXPECT_EQ(bench.server.uploads().size(), 1u);
    }
    EXPECT_EQ(numbersOf(readLines(bench.eventsFile()), "b"), (std::vector<int>{0, 1, 2, 0, 1, 2}));
}

TEST(UploadDecision, TooSmallTooEarlyTheTwoMinuteFloorTheSizeLimitAndDaylightSaving) {
    UploadBench bench;
    const std::string ninetyAgo = stampAgo(90);
    seedStore(bench.data, {{"LastUpload", ninetyAgo}});
    ASSERT_TRUE(exitedCleanly(bench.run(eventInput("a", 3)).status));
    EXPECT_TRUE(traced(bench.traces(), "too small, too early (")) << bench.traces();
    EXPECT_EQ(storedValue(bench.data, "LastUpload"), ninetyAgo);
    EXPECT_TRUE(bench.server.uploads().empty());

    // A setting of 60 acts as 120, and the header says 120.
    patchStore(bench.data, {{"MaxLastUploadSeconds", "60"}, {"LastUpload", stampAgo(100)}});
    ASSERT_TRUE(exitedCleanly(bench.run(eventInput("b", 3)).status));
    EXPECT_TRUE(traced(bench.traces(), "too small, too early (")) << bench.traces();
    EXPECT_TRUE(bench.server.uploads().empty());

    patchStore(bench.data, {{"LastUpload", stampAgo(130)}});
    ASSERT_TRUE(exitedCleanly(bench.run(eventInput("c", 3)).status));
    EXPECT_TRUE(traced(bench.traces(), "TIME qualifies for upload")) << bench.traces();
    auto uploads = bench.server.uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(json::parse(uploads[0].headerText)["maxlastuploadseconds"], 120);
    EXPECT_EQ(storedValue(bench.data, "MaxLastUploadSeconds"), "60");
    EXPECT_EQ(uploads[0].lines.size(), 9u);

    // Still early, exactly MinUploadSize bytes qualify and one byte less
    // does not. No input at all: the end of input alone asks for the
    // decision.
    const std::string content = eventInput("pre", 40);
    writeFile(bench.eventsFile(), content);
    patchStore(bench.data, {{"MinUploadSize", std::to_string(content.size() + 1)},
                            {"LastUpload", stampAgo(90)}});
    ASSERT_TRUE(exitedCleanly(bench.run("").status));
    EXPECT_FALSE(traced(bench.traces(), "SIZE qualifies")) << bench.traces();
    EXPECT_TRUE(traced(bench.traces(), "too small, too early (")) << bench.traces();
    EXPECT_EQ(bench.server.uploads().size(), 1u);

    patchStore(bench.data, {{"MinUploadSize", std::to_string(content.size())}});
    ASSERT_TRUE(exitedCleanly(bench.run("").status));
    EXPECT_TRUE(traced(bench.traces(), "SIZE qualifies for upload")) << bench.traces();
    uploads = bench.server.uploads();
    ASSERT_EQ(uploads.size(), 2u);
    EXPECT_EQ(uploads[1].meta["event_bytes"], content.size());

    // A LastUpload on the other side of a change of daylight saving time
    // counts the seconds that really passed, not an hour more or less: with
    // MaxLastUploadSeconds half an hour beyond them it is too early, and the
    // trace says how long ago. Sydney's summer is Berlin's winter, so most
    // days the two look back across opposite changes.
    for (const char* zone : {"Europe/Berlin", "Australia/Sydney"}) {
        ScopedEnv tz("TZ", zone);
        const double ago = agoAcrossDaylightSaving();
        ASSERT_GT(ago, 0) << zone << ": no daylight saving time (zone data missing?)";
        patchStore(bench.data,
                   {{"MinUploadSize", "1048576"},
                    {"MaxLastUploadSeconds", std::to_string(static_cast<long>(ago) + 1800)},
                    {"LastUpload", stampAgo(ago)}});
        ASSERT_TRUE(exitedCleanly(bench.run(eventInput(zone, 3)).status));
        const std::string log = bench.traces();
        const std::string early = "too small, too early (";
        const size_t at = log.find(early);
        ASSERT_NE(at, std::string::npos) << zone << "\n" << log;
        // The trace shows six digits, so to the hundred seconds.
        EXPECT_NEAR(std::stod(log.substr(at + early.size())), ago, 600) << zone;
    }
    EXPECT_EQ(bench.server.uploads().size(), 2u);
}

TEST(UploadDecision, PauseHoldsUntilUnpausedAndOffForcesPastIt) {
    UploadBench bench;
    // Paused an hour ago by some client: held, however old the pause.
    seedStore(bench.data, {{"PauseCount", "1"}, {"LastPause", stampAgo(3600)}});
    for (int run = 0; run < 2; ++run) {
        ASSERT_TRUE(exitedCleanly(bench.run(eventInput("held", 2, 2 * run)).status));
        EXPECT_FALSE(decided(bench.traces())) << bench.traces();
    }
    EXPECT_TRUE(bench.server.uploads().empty());
    EXPECT_EQ(storedValue(bench.data, "LastUpload"), "");
    EXPECT_EQ(storedValue(bench.data, "PauseCount"), "1");

    // ".OFF" goes past the pause, and the pause stays.
    ASSERT_TRUE(exitedCleanly(bench.run(".OFF\n").status));
    ASSERT_EQ(bench.server.uploads().size(), 1u);
    EXPECT_EQ(numbersOf(bench.server.uploads()[0].lines, "held"), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(storedValue(bench.data, "PauseCount"), "1");

    // No LastPause: the decision gives back this client's pause, which it
    // doesn't have, so the count stays and nothing is sent.
    patchStore(bench.data, {{"LastPause", nullptr}, {"LastUpload", nullptr}});
    ASSERT_TRUE(exitedCleanly(bench.run(eventInput("x", 2)).status));
    EXPECT_EQ(storedValue(bench.data, "PauseCount"), "1");
    EXPECT_EQ(bench.server.uploads().size(), 1u);

    // A LastPause lying MaxPauseSeconds in this client's future resets the
    // count, and the decision goes on.
    patchStore(bench.data, {{"LastPause", stampAgo(-(7200 + 60))}});
    ASSERT_TRUE(exitedCleanly(bench.run(eventInput("y", 2)).status));
    EXPECT_EQ(storedValue(bench.data, "PauseCount"), "0");
    EXPECT_TRUE(traced(bench.traces(), "TIME qualifies for upload")) << bench.traces();
    EXPECT_EQ(bench.server.uploads().size(), 2u);
}

TEST(UploadDecision, OwnPauseEndsWithUnpauseAndNoUploadWaitsForOff) {
    UploadBench bench;
    ASSERT_TRUE(exitedCleanly(bench.run(".PAUSE\n" + eventInput("p", 3) + ".UNPAUSE\n").status));
    EXPECT_EQ(storedValue(bench.data, "PauseCount"), "0");
    auto uploads = bench.server.uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(numbersOf(uploads[0].lines, "p"), (std::vector<int>{0, 1, 2}));

    // --noupload: flushes decide nothing, ".OFF" uploads all the same.
    patchStore(bench.data, {{"LastUpload", nullptr}});
    ASSERT_TRUE(exitedCleanly(bench.run(eventInput("q", 3), {"--noupload"}).status));
    EXPECT_FALSE(decided(bench.traces())) << bench.traces();
    EXPECT_EQ(storedValue(bench.data, "LastUpload"), "");
    ASSERT_TRUE(exitedCleanly(bench.run(".OFF\n", {"--noupload"}).status));
    uploads = bench.server.uploads();
    ASSERT_EQ(uploads.size(), 2u);
    EXPECT_EQ(numbersOf(uploads[1].lines, "q"), (std::vector<int>{0, 1, 2}));
}
