// The pure parts of the log facility: names, tag words, the tag filter, the
// settings source and the file's line format.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>

#include "log_file.h"
#include "log_names.h"
#include "log_settings.h"
#include "tag_filter.h"

namespace {

namespace fs = std::filesystem;
using namespace devio::xlog;

TEST(LogNamesTest, FunctionNamesTagWordsAndRepeats) {
    struct {
        const char* function;
        const char* name;
    } names[] = {
        {"devio::DeviceManager::config_set", "devio::DeviceManager::config_set"},
        {"bool __cdecl devio::Device::open(int, std::vector<int>)", "devio::Device::open"},
        {"void devio::Device::f(void (*)(int)) const", "devio::Device::f"},
        {"devio::Feature* devio::Device::feature(int)", "devio::Device::feature"},
        {"main", "main"},
        {"", ""},
    };
    for (const auto& n : names) EXPECT_EQ(cutFunctionName(n.function), n.name) << n.function;

    struct {
        const char* format;
        const char* tag;
        size_t prefix;
    } tags[] = {
        {"-api- enter", "api", 6}, {"-connect- %d", "connect", 10},
        {"-hid-", "", 0},          {"-- x", "", 0},
        {"-a b- x", "", 0},        {"-%s- x", "", 0},
        {"plain", "", 0},          {"-bt-  two", "bt", 5},
    };
    for (const auto& t : tags) {
        size_t prefix = 99;
        EXPECT_EQ(tagFromFormat(t.format, prefix), t.tag) << t.format;
        EXPECT_EQ(prefix, t.prefix) << t.format;
    }

    const char* name = "devio::Device::open";
    EXPECT_EQ(dropNameRepeat("devio::Device::open failed", name), "failed");
    EXPECT_EQ(dropNameRepeat("devio::Device open failed", name), "failed");
    EXPECT_EQ(dropNameRepeat("devio::Device failed", name), "failed");
    EXPECT_EQ(dropNameRepeat("open failed", name), "failed");
    EXPECT_EQ(dropNameRepeat("opened ok", name), "opened ok");
    EXPECT_EQ(dropNameRepeat("devio::Device::open", name), "devio::Device::open");

    EXPECT_STREQ(levelName(0), "ERROR");
    EXPECT_STREQ(levelName(3), "DEBUG");
    EXPECT_STREQ(levelName(4), "VERBOSE");
    EXPECT_STREQ(levelName(9), "VERBOSE");
}

TEST(TagFilterTest, TokensApplyInOrder) {
    struct {
        const char* tokens;
        const char* describe;
        std::vector<std::pair<const char*, bool>> passes;
    } cases[] = {
        // No tokens: everything above the unconditional level is held back.
        {"", " -*", {{"hid", false}, {"api", false}}},
        // One token clears the default exclusion, so every tag passes.
        {"+hid", " +hid", {{"hid", true}, {"api", true}, {"bt", true}}},
        {"-* +hid", " -* +hid", {{"hid", true}, {"api", false}}},
        {"-bt", " -bt", {{"bt", false}, {"hid", true}}},
        {"+hid -hid", " -hid", {{"hid", false}, {"api", true}}},
        {"-hid +hid -* +api", " -* +api", {{"api", true}, {"hid", false}}},
        {"junk  + - +x", " +x", {{"x", true}, {"y", true}}},
    };
    for (const auto& c : cases) {
        TagFilter filter;
        filter.configure(c.tokens);
        EXPECT_EQ(filter.describe(), c.describe) << c.tokens;
        for (const auto& [tag, expected] : c.passes)
            EXPECT_EQ(filter.passes(tag), expected) << c.tokens << " " << tag;
    }
}

class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = getenv(name)) old_ = old, had_ = true;
        if (value != nullptr)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }
    ~ScopedEnv() {
        if (had_)
            setenv(name_.c_str(), old_.c_str(), 1);
        else
            unsetenv(name_.c_str());
    }

private:
    std::string name_, old_;
    bool had_ = false;
};

TEST(LogSettingsTest, FileThenEnvironmentOverDefaults) {
    fs::path dir = fs::temp_directory_path() / ("xlog_settings_" + std::to_string(getpid()));
    fs::create_directories(dir / "vantrel");
    ScopedEnv config("XDG_CONFIG_HOME", dir.c_str());
    ScopedEnv noLogging("DEVIO_LOGGING", nullptr);
    ScopedEnv noLevel("DEVIO_LOGGINGLEVEL", nullptr);
    ScopedEnv noOutput("DEVIO_LOGGINGOUTPUT", nullptr);
    ScopedEnv noTagLevel("DEVIO_LOGTAGLEVEL", nullptr);
    ScopedEnv noTags("DEVIO_LOGTAGS", nullptr);

    LogSettings defaults = readLogSettings();
    EXPECT_EQ(defaults.logging, 1);
    EXPECT_EQ(defaults.logginglevel, 1);
    EXPECT_EQ(defaults.loggingoutput, 6);
    EXPECT_EQ(defaults.logTagLevel, 3);
    EXPECT_FALSE(defaults.LogTags.has_value());

    std::ofstream(dir / "vantrel" / "devio.conf") << "# comment\n"
                                                  << "LOGGINGLEVEL = 3\n"
                                                  << "loggingoutput=0x5\n"
                                                  << "logTagLevel = many\n"
                                                  << "LogTags =  -* +hid  \n"
                                                  << "unknown = 7\n"
                                                  << "no equals sign\n";
    LogSettings fromFile = readLogSettings();
    EXPECT_EQ(fromFile.logginglevel, 3);
    EXPECT_EQ(fromFile.loggingoutput, 5);
    EXPECT_EQ(fromFile.logTagLevel, 3) << "a value that isn't a number keeps the default";
    EXPECT_EQ(fromFile.LogTags.value_or("?"), "-* +hid");

    ScopedEnv level("DEVIO_LOGGINGLEVEL", "0");
    ScopedEnv tags("DEVIO_LOGTAGS", "+bt");
    ScopedEnv logging("DEVIO_LOGGING", "0");
    LogSettings fromEnv = readLogSettings();
    EXPECT_EQ(fromEnv.logginglevel, 0);
    EXPECT_EQ(fromEnv.loggingoutput, 5);
    EXPECT_EQ(fromEnv.logging, 0);
    EXPECT_EQ(fromEnv.LogTags.value_or("?"), "+bt");

    LogSettings longTags;
    applyLogSetting(longTags, "LogTags", std::string(3000, 'x'));
    EXPECT_EQ(longTags.LogTags->size(), 1024u);
    fs::remove_all(dir);
}

TEST(LogSettingsTest, NumbersAreDecimalOrHexWithItsPrefixNeverOctal) {
    // 3 is the default that a refused value keeps.
    const std::pair<const char*, int> forms[] = {
        {"010", 10},  {"08", 8},    {"0", 0},           {"4", 4},  {"-1", -1},
        {"0x10", 16}, {"0X1f", 31}, {"0xffffffff", -1}, {"0x", 3}, {"0b1", 3},
        {"1e3", 3},   {"12abc", 3}, {"0x1g", 3},        {"", 3},   {"4294967296", 3},
    };
    for (const auto& [text, expected] : forms) {
        LogSettings settings;
        applyLogSetting(settings, "logTagLevel", text);
        EXPECT_EQ(settings.logTagLevel, expected) << '"' << text << '"';
    }
}

std::vector<std::string> readLines(const fs::path& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

TEST(LogFileTest, LineFormatSplitAndCut) {
    fs::path path =
        fs::temp_directory_path() / ("xlog_file_" + std::to_string(getpid()) + ".dblog");
    fs::remove(path);
    {
        // Wall clock 2001-02-03 04:05:06.789012 UTC at monotonic 1,000,000.
        ScopedEnv tz("TZ", "UTC");
        tzset();
        LogFile file(1000000, 981173106789012ULL, 4242, "proc", "devio");
        ASSERT_TRUE(file.open(path.string()));
        file.writeRecord(3500000, 77, 2, "-api-", "bool devio::Device::open(int)",
                         "devio::Device::open started");
        file.writeRecord(3500001, 123456, 4, "-Device-", "devio::Device::read",
                         "one\ntwo\nthree\n");
        file.writeRecord(3500002, 1, 0, "-x-", "f", std::string(1100, 'y'));
        // Back from a 30 s suspend: the date follows the wall clock.
        file.setWallOffset(981173106789012LL - 1000000 + 30000000);
        file.writeRecord(3500003, 1, 2, "-x-", "f", "resumed");
        file.flush();
    }
    tzset();
    std::vector<std::string> lines = readLines(path);
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(
        lines[5],
        "2.500003\t2001/02/03 04:05:39.289.015\t4242\t<00001>.devio.proc\t2\t-x-              "
        "   \tf resumed");
    EXPECT_EQ(
        lines[0],
        "2.500000\t2001/02/03 04:05:09.289.012\t4242\t<00077>.devio.proc\t2\t-api-               \t"
        "devio::Device::open started");
    std::regex prefix(
        R"(2\.500001\t2001/02/03 04:05:09\.289\.013\t4242\t<123456>\.devio\.proc\t4\t-Device-            \tdevio::Device::read (one|two|three))");
    for (size_t i = 1; i <= 3; ++i) EXPECT_TRUE(std::regex_match(lines[i], prefix)) << lines[i];
    EXPECT_EQ(lines[1].substr(lines[1].size() - 3), "one");
    EXPECT_EQ(lines[3].substr(lines[3].size() - 5), "three");
    // Cut to 1,024 bytes with its newline, ending in "...".
    EXPECT_EQ(lines[4].size(), 1023u);
    EXPECT_EQ(lines[4].substr(lines[4].size() - 4), "y...");
    fs::remove(path);
}

TEST(LogFileTest, WithoutFileNothingHappens) {
    LogFile file(0, 0, 1, "p", "devio");
    EXPECT_FALSE(file.isOpen());
    file.writeRecord(1, 1, 1, "-t-", "f", "m");
    file.flush();
    // A link planted where the file should go is not followed.
    fs::path dir = fs::temp_directory_path() / ("xlog_link_" + std::to_string(getpid()));
    fs::create_directories(dir);
    fs::create_symlink(dir / "target", dir / "log.dblog");
    EXPECT_FALSE(file.open((dir / "log.dblog").string()));
    EXPECT_FALSE(fs::exists(dir / "target"));
    fs::remove_all(dir);
}

}  // namespace

namespace {

TEST(LogFileTest, SecondsColumnIsWhatPercentFPrints) {
    std::vector<uint64_t> micros = {0,
                                    1,
                                    9,
                                    999999,
                                    1000000,
                                    1000001,
                                    1234567,
                                    86400000000ull,
                                    (1ull << 50) - 1,
                                    1ull << 50,
                                    ~0ull - 5};
    std::mt19937_64 random(7);
    for (int i = 0; i < 100000; ++i) micros.push_back(random() >> (random() % 64));
    for (uint64_t m : micros) {
        char expected[64], ours[48];
        std::snprintf(expected, sizeof expected, "%f", static_cast<double>(m) / 1e6);
        formatSeconds(m, ours, sizeof ours);
        ASSERT_STREQ(ours, expected) << m;
    }
}

}  // namespace
