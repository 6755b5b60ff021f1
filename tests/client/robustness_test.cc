// Hostile input never brings the client down: it drops what it cannot use
// and goes on with the next line.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>

#include "client_process.h"

using nlohmann::json;
using namespace qvtest;

TEST(Robustness, BadInputIsDroppedAndTheClientGoesOn) {
    TempDir dir;
    std::mt19937 random(20240611);
    std::string garbage;
    for (int i = 0; i < 200000; ++i) garbage += static_cast<char>(random() & 0xFF);

    std::string input;
    int good = 0;
    auto addGood = [&] { input += "{\"good\":" + std::to_string(good++) + "}\n"; };
    const std::vector<std::string> bad = {
        "{\"a\":",                            // cut short
        "{\"a\":1}}",                         // trailing junk
        "{'a':1}",                            // not JSON quotes
        std::string("{\"a\":\"x\0y\"}", 11),  // NUL inside a string
        std::string("{\"a\":1}\0", 8),        // NUL after the object
        "{\"a\":\"\xff\xfe\"}",               // invalid UTF-8
        "{\"a\":\"\xc3\"}",                   // truncated UTF-8
        "{\"a\":\"\\ud800\"}",                // lone surrogate escape
        std::string(1 << 20, '['),            // deep nesting, 1 MB
        "{\"a\":" + std::string(100000, '[') + std::string(100000, ']') + "}",
        "[" + std::string(1 << 20, '1') + "]",  // 1 MB array
        "1e999999",                             // number out of range
        "{\"a\":1e999999}",
        "\"" + std::string(1 << 20, 'x'),  // 1 MB unterminated string
        ".",
        "..EOF",
    };
    for (const auto& line : bad) {
        input += line + "\n";
        addGood();
    }
    // Binary garbage, in lines of whatever length its newlines give.
    input += garbage + "\n";
    addGood();
    // A valid 1 MB event is kept whole.
    input += "{\"big\":\"" + std::string(1 << 20, 'b') + "\"}\n";
    addGood();
    input += ".OFF\n";

    RunResult run =
        runClient(dir.path(), {"--noupload", "--debugout", dir.file("debug.log")}, input);
    ASSERT_TRUE(exitedCleanly(run.status)) << run.status;

    // ".OFF" decides to upload even with --noupload; the refused upload keeps
    // the lines in the send file.
    auto lines = heldLines(dir.path());
    int seen = 0;
    bool sawBig = false;
    for (const auto& line : lines) {
        json event = json::parse(line);
        if (event.contains("good")) {
            EXPECT_EQ(event["good"], seen++);
        } else if (event.contains("big")) {
            sawBig = event["big"].get<std::string>().size() == (1u << 20);
        }
    }
    EXPECT_EQ(seen, good);
    EXPECT_TRUE(sawBig);
}
