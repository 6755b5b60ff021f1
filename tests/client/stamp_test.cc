// The quick stamping road against the plain one (nlohmann json parse, four
// keys set, dump): byte for byte on the lines it takes, and never taking a
// line the parser refuses. Once on a corpus of awkward lines and their
// mutations, and once end to end through the real binary.

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <random>

#include "client_process.h"
#include "event_text.h"
#include "md5.h"

using namespace qvtest;

namespace {

// The straightforward road. nullopt when the line is no object (or null),
// as the client drops it; dump() may throw on stamps that aren't UTF-8.
std::optional<std::string> plainStamp(const std::string& line, const qv::Stamps& stamps) {
    nlohmann::json event;
    try {
        event = nlohmann::json::parse(line);
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
    if (!event.is_object() && !event.is_null()) return std::nullopt;
    event["timestamp"] = std::string(stamps.timestamp);
    event["upload"] = std::string(stamps.upload);
    event["client"] = std::string(stamps.client);
    event["user"] = std::string(stamps.user);
    return event.dump();
}

std::string printable(const std::string& bytes) {
    std::string out;
    for (unsigned char c : bytes) {
        if (c >= 0x20 && c < 0x7F && c != '\\') {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", c);
            out += hex;
        }
    }
    return out;
}

// Compares the two roads on one line; true when the quick one took it.
bool compareRoads(const std::string& line, const qv::Stamps& stamps) {
    qv::EventScan scan;
    bool quick = qv::scanEvent(line, scan);
    std::optional<std::string> plain;
    bool plainThrew = false;
    try {
        plain = plainStamp(line, stamps);
    } catch (const nlohmann::json::exception&) {
        plainThrew = true;
    }
    if (!quick) return false;
    if (plainThrew) {
        EXPECT_THROW(qv::writeStamped(scan, stamps), nlohmann::json::exception) << printable(line);
        return true;
    }
    EXPECT_TRUE(plain.has_value()) << "taken, but the parser refuses it: " << printable(line);
    if (plain) {
        EXPECT_EQ(qv::writeStamped(scan, stamps), *plain) << printable(line);
    }
    return true;
}

std::string nested(int depth) {
    return "{\"a\":" + std::string(static_cast<std::size_t>(depth), '[') +
           std::string(static_cast<std::size_t>(depth), ']') + "}";
}

// Lines of the shapes the application sends, which must take the quick road.
const std::vector<std::string> quickLines = {
    "{}",
    R"({"event":"feature_used","feature":"zoom","n":12,"duration_ms":5,"view":"main"})",
    " \t{ \"b\" : 1 ,\r\"a\" : -2 } \r",
    R"({"a":true,"b":false,"c":null})",
    R"({"z":{"y":{"x":1,"w":[1,{"b":2,"a":1}]}},"a":[]})",
    R"({"dup":1,"dup":2})",
    R"({"dup":{"a":1},"x":0,"dup":"s"})",
    R"({"k":{"d":1,"d":[2]},"k":{"e":3,"d":4,"e":5}})",
    R"({"upload":"x","timestamp":5,"client":[1],"user":{},"a":1})",
    R"({"timestamp0":1,"time":2,"uploads":3,"use":4,"userx":5,"clien":6,"clients":7})",
    "{\"\xC3\xA9\":\"\xC3\xBC\",\"\x7F\":\"\x7F\",\"z\":\"\xE2\x82\xAC\"}",
    "{\"emoji\":\"\xF0\x9F\x98\x80\",\"max\":\"\xF4\x8F\xBF\xBF\",\"e0\":\"\xE0\xA0\x80\"}",
    R"({"B":1,"a":2,"_":3,"Z":4,"~":5,"0":6})",
    R"({"n":123456789012345678,"m":-123456789012345678,"z":0,"o":-1})",
    R"({"a":[ 1 , [ ] , { } , "x" , [[null]] ]})",
    R"({"":""})",
    nested(30),
};

// Lines the quick road must leave to the general one: either refused by
// the parser, or printed differently from how they are written.
const std::vector<std::string> generalLines = {
    R"({"a":"\u00e9"})",
    R"({"a":"\""})",
    R"({"a":"\/"})",
    R"({"a\u0000b":1})",
    R"({"a":"\ud83d\ude00"})",
    R"({"a":"\ud83d"})",
    R"({"a":1.5})",
    R"({"a":1e5})",
    R"({"a":1.0})",
    R"({"a":-0})",
    R"({"a":1E400})",
    R"({"a":-1e-400})",
    R"({"a":1234567890123456789})",
    R"({"a":18446744073709551615})",
    R"({"a":18446744073709551616})",
    R"({"a":-9223372036854775809})",
    "null",
    " null ",
    "[1,2]",
    "3",
    "\"text\"",
    "true",
    "\xEF\xBB\xBF{\"a\":1}",
    R"({"a":01})",
    R"({"a":+1})",
    R"({"a":.5})",
    R"({"a":1.})",
    R"({"a":-})",
    R"({"a":tru})",
    R"({"a":truee})",
    R"({"a":nul})",
    R"({"a" 1})",
    R"({"a":1,})",
    R"({,})",
    R"({"a":1}})",
    R"({"a":1} x)",
    R"({"a":1}{})",
    R"({'a':1})",
    R"({a:1})",
    R"({"a":[1,2,]})",
    R"({"a":[,]})",
    R"({"a":[1 2]})",
    R"({"a":[1,2})",
    R"({"a":{"b":1})",
    "{\"a\":\"\xC0\x80\"}",
    "{\"a\":\"\xC1\xBF\"}",
    "{\"a\":\"\xE0\x9F\xBF\"}",
    "{\"a\":\"\xED\xA0\x80\"}",
    "{\"a\":\"\xF0\x8F\xBF\xBF\"}",
    "{\"a\":\"\xF4\x90\x80\x80\"}",
    "{\"a\":\"\xF5\x80\x80\x80\"}",
    "{\"a\":\"\xFF\"}",
    "{\"a\":\"\x80\"}",
    "{\"a\":\"\xE2\x82\"}",
    "{\"a\":\"\xE2\x82",
    "{\"a\":\"tab\there\"}",
    "{\"a\":\"line\x1F\"}",
    std::string("{\"a\":\"nul\0\"}", 11),
    std::string("{\"a\":1}\0", 8),
    "{\"a\":1}\f",
    "\f{\"a\":1}",
    "   ",
    "",
    "{",
    "{\"a\"",
    "{\"a\":",
    "{\"a\":\"x",
    nested(40),
    nested(600),
};

const qv::Stamps plainStamps = {"2024-05-06 07:08:09.123456",
                                "0123abcd-4567-89ef-0123-456789abcdef",
                                "fedcba98-7654-3210-fedc-ba9876543210", "abcdefghijklmnopqrstuvAA"};

}  // namespace

TEST(Stamping, QuickRoadMatchesTheParserOnAwkwardLines) {
    // Stamps from a hand-edited store: quotes, escapes, control and
    // non-ASCII characters, and none at all.
    const std::string awkwardUpload = "a\"b\\c\x01\x7F\xC3\xA9";
    const std::string awkwardClient = "\xE2\x80\xA8";
    const qv::Stamps awkwardStamps = {"2024-05-06 07:08:09.123456", awkwardUpload, awkwardClient,
                                      ""};
    const std::string brokenUpload = "\xFF";
    const qv::Stamps brokenStamps = {"2024-05-06 07:08:09.123456", brokenUpload, "c", "u"};

    for (const qv::Stamps& stamps : {plainStamps, awkwardStamps, brokenStamps}) {
        for (const std::string& line : quickLines) {
            EXPECT_TRUE(compareRoads(line, stamps)) << "not taken: " << printable(line);
        }
        for (const std::string& line : generalLines) {
            EXPECT_FALSE(compareRoads(line, stamps)) << "taken: " << printable(line);
        }
    }

    // Mutations of every line in both lists: bytes replaced, inserted and
    // removed, drawn from those that make JSON awkward.
    const std::string alphabet =
        std::string("\"\\{}[],: \t\r01-9.eE+ntfulrsa\x7F\x80\xBF\xC0\xC2\xC3") +
        "\xE0\xED\xF0\xF4\xF5\xFF" + std::string(1, '\0') + "\x1F";
    std::mt19937 random(20240506);
    std::vector<std::string> seeds = quickLines;
    seeds.insert(seeds.end(), generalLines.begin(), generalLines.end());
    std::size_t taken = 0;
    std::size_t tried = 0;
    for (int round = 0; round < 200; ++round) {
        for (const std::string& seed : seeds) {
            std::string line = seed;
            int edits = 1 + static_cast<int>(random() % 3);
            for (int e = 0; e < edits; ++e) {
                std::size_t at = line.empty() ? 0 : random() % (line.size() + 1);
                char c = alphabet[random() % alphabet.size()];
                switch (random() % 3) {
                    case 0:
                        if (at < line.size()) line[at] = c;
                        break;
                    case 1:
                        line.insert(at, 1, c);
                        break;
                    default:
                        if (at < line.size()) line.erase(at, 1);
                        break;
                }
            }
            ++tried;
            if (compareRoads(line, plainStamps)) ++taken;
        }
    }
    // Most mutants are no JSON at all; enough of them must still take the
    // quick road for the comparison to bite.
    EXPECT_GT(taken, tried / 40) << taken << " of " << tried;
}

TEST(Stamping, ClientWritesWhatTheParserWouldThroughBothRoads) {
    TempDir dir;
    std::vector<std::string> lines;
    for (const auto* list : {&quickLines, &generalLines}) {
        for (const std::string& line : *list) {
            // Lines that would end or cut the input, and nesting beyond the
            // client's own limit, are the reader's tests' business.
            if (line.find('\n') != std::string::npos || line.size() > 500) continue;
            if (!line.empty() && line[0] == '.') continue;
            lines.push_back(line);
        }
    }
    std::string input;
    for (const std::string& line : lines) input += line + "\n";
    std::string log = dir.file("debug.log");
    RunResult run = runClient(dir.path(), {"--noupload", "--debugout", log}, input);
    ASSERT_TRUE(exitedCleanly(run.status)) << run.status;

    struct passwd* entry = ::getpwuid(::geteuid());
    std::string user = qv::md5Base64(entry != nullptr ? entry->pw_name : "");
    std::string upload = storedValue(dir.path(), "UploadId");
    std::string client = storedValue(dir.path(), "ClientId");
    ASSERT_TRUE(matchesShape(upload, guidShape)) << upload;

    std::vector<std::string> written = readLines(dir.file("qvevents.json"));
    std::size_t next = 0;
    std::size_t dropped = 0;
    for (const std::string& line : lines) {
        if (line.empty()) continue;
        if (!plainStamp(line, plainStamps)) {
            ++dropped;
            continue;
        }
        ASSERT_LT(next, written.size()) << "missing: " << printable(line);
        // The time is the client's own; everything else must be as the
        // parser makes it.
        std::string timestamp = nlohmann::json::parse(written[next])["timestamp"];
        EXPECT_TRUE(matchesShape(timestamp, timestampShape)) << timestamp;
        qv::Stamps stamps = {timestamp, upload, client, user};
        EXPECT_EQ(written[next], plainStamp(line, stamps).value_or("")) << printable(line);
        ++next;
    }
    EXPECT_EQ(next, written.size());

    std::string trace = readFile(log);
    std::size_t refused = 0;
    for (std::size_t at = 0; (at = trace.find("json parse exception\n", at)) != std::string::npos;
         ++at) {
        ++refused;
    }
    EXPECT_EQ(refused, dropped);
    EXPECT_GT(dropped, 40u);
}
