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

TEST(Md5, HexAndTwentyFourCharacterBase64) {
    // RFC 1321's texts, and every length around the padding boundaries
    // (55/56/64 bytes and their multiples) with all byte values, against
    // the system's tool.
    std::vector<std::string> inputs = {
        "",
        "a",
        "abc",
        "message digest",
        "abcdefghijklmnopqrstuvwxyz",
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
        "12345678901234567890123456789012345678901234567890123456789012345678901234567890"};
    std::string data;
    for (int i = 0; i < 200; ++i) data += static_cast<char>((i * 37 + 11) & 0xFF);
    for (size_t len : {1u, 55u, 56u, 57u, 63u, 64u, 65u, 119u, 120u, 127u, 128u, 129u, 200u}) {
        inputs.push_back(data.substr(0, len));
    }
    for (const std::string& in : inputs) EXPECT_EQ(qv::md5Hex(in), md5sumOf(in)) << in.size();
    EXPECT_EQ(qv::md5Hex("abc"), "900150983cd24fb0d6963f7d28e17f72");

    // base64 of md5("") is "1B2M2Y8AsgTpgAmY7PhCfg==", and the client
    // writes the last group over two zero bytes instead of padding.
    EXPECT_EQ(qv::md5Base64(""), "1B2M2Y8AsgTpgAmY7PhCfgAA");
    // md5("abc") = 900150983cd24fb0d6963f7d28e17f72 -> "kAFQmDzST7DWlj99KOF/cg=="
    EXPECT_EQ(qv::md5Base64("abc"), "kAFQmDzST7DWlj99KOF/cgAA");
    // A user name in UTF-8 whose digest needs both '+' and '/'.
    EXPECT_EQ(qv::md5Base64("\xc3\xa9"), "Zt3Nl8/eq7L2+4qZm0vHbwAA");
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

TEST(Timestamp, TextAsTheCalendarFunctionsAndReadBack) {
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

    // Read back, only differences mean anything, and they come out exact,
    // across a day, a month and a year boundary.
    std::uint64_t start = 1496354861ull * second + 1234567;
    EXPECT_EQ(qv::ticksToMs(start, start + 59999), 5);
    EXPECT_EQ(qv::ticksToMs(start + 59999, start), -5);
    double base = qv::readTimestamp(qv::timestampText(start));
    for (std::uint64_t later : {1ull, 61ull, 86400ull, 86400ull * 31, 86400ull * 366}) {
        double then = qv::readTimestamp(qv::timestampText(start + later * second));
        EXPECT_NEAR(then - base, static_cast<double>(later), 1e-6) << later;
    }
    EXPECT_NEAR(
        qv::readTimestamp("2017-06-01 22:07:41.5") - qv::readTimestamp("2017-06-01 22:07:41"), 0.5,
        1e-9);

    // In a zone with daylight saving time the read-back keeps one shift all
    // year: each hour of 2024 and the second before it, so both sides of
    // both changes. Sydney has its summer in January; Dublin's standard time
    // is its summer time.
    for (const char* zone :
         {"Europe/Berlin", "America/New_York", "Australia/Sydney", "Europe/Dublin"}) {
        qvtest::ScopedEnv tz("TZ", zone);
        ::tzset();
        const std::time_t year = 1704067200;  // 2024-01-01 00:00:00 UTC
        std::set<int> seasons;
        std::set<double> shifts;
        for (std::time_t hour = year; hour < year + 366 * 86400; hour += 3600) {
            for (std::time_t t : {hour - 1, hour}) {
                std::tm local{};
                ::localtime_r(&t, &local);
                seasons.insert(local.tm_isdst);
                const auto at = static_cast<std::uint64_t>(t) * second;
                shifts.insert(qv::readTimestamp(qv::timestampText(at)) - static_cast<double>(t));
            }
        }
        EXPECT_EQ(seasons.size(), 2u) << zone << ": no daylight saving time (zone data missing?)";
        EXPECT_EQ(shifts.size(), 1u)
            << zone << ": shifts from " << *shifts.begin() << " to " << *shifts.rbegin();
    }
    ::tzset();
}
