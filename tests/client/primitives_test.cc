// MD5, GUID text and timestamps: checked against RFC 1321's vectors, the
// system's md5sum, and the calendar.

#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <random>
#include <set>
#include <vector>

#include "client_process.h"
#include "guid.h"
#include "md5.h"
#include "timestamp.h"

namespace {

std::string md5sumOf(const std::string& data) {
    char name[] = "/tmp/qvclient-md5-XXXXXX";
    int fd = ::mkstemp(name);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(::write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
    ::close(fd);
    std::string command = std::string("md5sum ") + name;
    FILE* pipe = ::popen(command.c_str(), "r");
    char out[64] = {};
    EXPECT_EQ(std::fread(out, 1, 32, pipe), 32u);
    ::pclose(pipe);
    ::unlink(name);
    return std::string(out, 32);
}

}  // namespace

TEST(Md5, RfcVectorsAndBlockBoundaries) {
    const std::pair<const char*, const char*> rfc[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"1234567890123456789012345678901234567890123456789012345678901234567890123456789"
         "0",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (auto& [text, digest] : rfc) EXPECT_EQ(qv::md5Hex(text), digest) << text;

    // Every length around the padding boundaries (55/56/64 bytes and their
    // multiples), with all byte values, against the system's tool.
    std::string data;
    for (int i = 0; i < 200; ++i) data += static_cast<char>((i * 37 + 11) & 0xFF);
    for (size_t len : {1u, 55u, 56u, 57u, 63u, 64u, 65u, 119u, 120u, 127u, 128u, 129u, 200u}) {
        std::string part = data.substr(0, len);
        EXPECT_EQ(qv::md5Hex(part), md5sumOf(part)) << len;
    }
}

TEST(Md5, TwentyFourCharacterBase64) {
    // md5("") = d41d8cd98f00b204e9800998ecf8427e; base64 of those 16 bytes is
    // "1B2M2Y8AsgTpgAmY7PhCfg==", and the client writes the last group over
    // two zero bytes instead of padding.
    EXPECT_EQ(qv::md5Base64(""), "1B2M2Y8AsgTpgAmY7PhCfgAA");
    // md5("abc") = 900150983cd24fb0d6963f7d28e17f72 -> "kAFQmDzST7DWlj99KOF/cg=="
    EXPECT_EQ(qv::md5Base64("abc"), "kAFQmDzST7DWlj99KOF/cgAA");
    for (std::string name : {"root", "a user with spaces", "\xc3\xa9t\xc3\xa9"}) {
        std::string text = qv::md5Base64(name);
        EXPECT_EQ(text.size(), 24u);
        EXPECT_EQ(text.substr(22), "AA");
        EXPECT_TRUE(qvtest::matchesShape(text, std::string(24, 'b'))) << text;
    }
}

TEST(Guid, TextFormAndUniqueness) {
    std::set<std::string> seen;
    for (int i = 0; i < 2000; ++i) {
        std::string id = qv::newGuidText();
        ASSERT_TRUE(qvtest::matchesShape(id, qvtest::guidShape)) << id;
        // Memory order: the version nibble is the high half of byte 7, which
        // prints as the first digit of the third group's second byte.
        EXPECT_EQ(id[16], '4') << id;
        EXPECT_NE(std::string("89ab").find(id[19]), std::string::npos) << id;
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 2000u);
}

TEST(Timestamp, TextAndReadBack) {
    // 2017-06-01 22:07:41 UTC is 1496354861 s after the epoch.
    std::uint64_t ticks = 1496354861ull * 10000000 + 1234567;
    EXPECT_EQ(qv::timestampText(ticks), "2017-06-01 22:07:41.123456");
    EXPECT_EQ(qv::timestampText(0), "1970-01-01 00:00:00.000000");
    EXPECT_EQ(qv::nowTimestamp().size(), 26u);
    EXPECT_EQ(qv::ticksToMs(ticks, ticks + 59999), 5);
    EXPECT_EQ(qv::ticksToMs(ticks + 59999, ticks), -5);

    // Only differences mean anything, and they come out exact, across a
    // day, a month and a year boundary.
    const std::uint64_t second = 10000000;
    double base = qv::readTimestamp(qv::timestampText(ticks));
    for (std::uint64_t later : {1ull, 61ull, 86400ull, 86400ull * 31, 86400ull * 366}) {
        double then = qv::readTimestamp(qv::timestampText(ticks + later * second));
        EXPECT_NEAR(then - base, static_cast<double>(later), 1e-6) << later;
    }
    EXPECT_NEAR(
        qv::readTimestamp("2017-06-01 22:07:41.5") - qv::readTimestamp("2017-06-01 22:07:41"), 0.5,
        1e-9);
}

TEST(Timestamp, SameTextAsTheCalendarFunctions) {
    // The date part is kept from one call to the next; stepping forward
    // within a second, across seconds, and jumping back must each give what
    // gmtime_r and strftime give.
    auto reference = [](std::uint64_t ticks) {
        std::time_t seconds = static_cast<std::time_t>(ticks / 10000000);
        std::tm utc{};
        ::gmtime_r(&seconds, &utc);
        char text[64];
        size_t n = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &utc);
        std::snprintf(text + n, sizeof text - n, ".%06lu",
                      static_cast<unsigned long>((ticks % 10000000) / 10));
        return std::string(text);
    };
    const std::uint64_t second = 10000000;
    std::vector<std::uint64_t> ticks;
    const std::uint64_t bases[] = {0, 1496354861 * second, 1704067199 * second, 4102444799 * second,
                                   253402300799 * second};
    const std::uint64_t steps[] = {0, 9, 10, 9999990, second - 1, second, 61 * second};
    for (std::uint64_t base : bases) {
        for (std::uint64_t step : steps) ticks.push_back(base + step);
        ticks.push_back(base + 3);  // back into an earlier second
    }
    std::mt19937_64 random(7);
    for (int i = 0; i < 2000; ++i) ticks.push_back(random() % (253402300800ull * second));
    for (std::uint64_t t : ticks) EXPECT_EQ(qv::timestampText(t), reference(t)) << t;
}
