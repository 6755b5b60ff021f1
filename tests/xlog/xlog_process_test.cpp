// The log facility as a process sees it: each case runs xlog_probe fresh,
// with its own temp folder and settings, and reads the log file it leaves.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "probe_runner.h"

namespace {

namespace fs = std::filesystem;
using xlogtest::ProbeResult;
using xlogtest::ProbeRunner;

// A whole file line of `program`; the tag column is padded to at least 20
// characters.
std::regex fileLineOf(const std::string& program) {
    return std::regex(
        R"(\d+\.\d{6}\t\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3}\.\d{3}\t\d+\t<\d{5,}>\.devio\.)" +
        program + R"(\t[0-4]\t-[^\t]*-\s*\t\S+ .*)");
}
const std::regex fileLine = fileLineOf("xlogprobe");

long reportedOverruns(const ProbeResult& r) {
    static const std::regex report(
        R"(xLog overrun detected by reader, lost (\d+) messages around this time)");
    long total = 0;
    for (const auto& line : r.logLines) {
        std::smatch m;
        if (std::regex_search(line, m, report)) total += std::stol(m[1]);
    }
    return total;
}

size_t indexOf(const ProbeResult& r, const std::string& text) {
    for (size_t i = 0; i < r.logLines.size(); ++i)
        if (r.logLines[i].find(text) != std::string::npos) return i;
    return SIZE_MAX;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

TEST(XLogProcessTest, ManyThreadsEveryMessageOnceInThreadOrderNothingTorn) {
    constexpr int threads = 8, perThread = 3000;
    ProbeRunner runner;
    ProbeResult r = runner.run({"threads", std::to_string(threads), std::to_string(perThread)});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    ASSERT_EQ(r.logFiles.size(), 1u);

    // Messages the probe was told were lost must not appear; all others
    // must, once each, in each thread's order.
    std::set<std::pair<int, int>> lost;
    static const std::regex lostLine(R"(lost t=(\d+) i=(\d+))");
    for (const auto& line : lines(r.out)) {
        std::smatch m;
        if (std::regex_match(line, m, lostLine)) lost.insert({std::stoi(m[1]), std::stoi(m[2])});
    }
    EXPECT_EQ(static_cast<long>(lost.size()), r.value("lost"));
    EXPECT_EQ(reportedOverruns(r), static_cast<long>(lost.size()));

    static const std::regex message(
        R"(.*\tdevio::Probe::run msg t=(\d+) i=(\d+) padding-padding-padding-padding)");
    std::vector<int> next(threads, 0);
    size_t malformed = 0, seen = 0;
    for (const auto& line : r.logLines) {
        if (!std::regex_match(line, fileLine)) {
            ++malformed;
            ADD_FAILURE() << "malformed line: " << line;
            continue;
        }
        std::smatch m;
        if (line.find("msg t=") == std::string::npos) continue;
        ASSERT_TRUE(std::regex_match(line, m, message)) << "torn: " << line;
        int t = std::stoi(m[1]), i = std::stoi(m[2]);
        ASSERT_LT(t, threads);
        int& expected = next[static_cast<size_t>(t)];
        while (lost.count({t, expected}) != 0) ++expected;
        ASSERT_EQ(i, expected) << "thread " << t << " out of order or repeated";
        ++expected;
        ++seen;
    }
    EXPECT_EQ(malformed, 0u);
    EXPECT_EQ(seen + lost.size(), size_t{threads} * perThread);
}

TEST(XLogProcessTest, RingsGrowWithoutLossAndOldBuffersAreDeleted) {
    constexpr int steps = 4;
    ProbeRunner runner;
    ProbeResult r = runner.run({"growth", "300", std::to_string(steps)});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.value("lost"), 0);
    long sent = r.value("sent");
    // The burst is far larger than the first rings.
    EXPECT_GE(sent, 300 * 20);

    static const std::regex seq(R"(.*devio::Probe::growth seq=(\d+))");
    long next = 0;
    for (const auto& line : r.logLines) {
        std::smatch m;
        if (!std::regex_match(line, m, seq)) continue;
        ASSERT_EQ(std::stol(m[1]), next) << "lost or repeated";
        ++next;
    }
    EXPECT_EQ(next, sent);
    EXPECT_GE(r.countLines("xLog enlarged buffer from 300/30000 to 900/"), 1u);
    EXPECT_GE(r.countLines("xLog enlarged buffer"), size_t{steps});
    EXPECT_GE(r.countLines("xLog deleting old log buffer containing 300/30000"), 1u);
    EXPECT_GE(r.countLines("xLog deleting old log buffer"), size_t{steps - 1});
    EXPECT_EQ(r.countLines("overrun"), 0u);
}

// The debug channel on standard error, where the tests read it.
const std::pair<const std::string, std::string> channelOnStderr{"DEVIO_DEBUGCHANNEL", "stderr"};

TEST(XLogProcessTest, OverrunIsCountedAndReportedWithTheRightCount) {
    ProbeRunner runner;
    ProbeResult r = runner.run({"overrun", "100", "500"}, {channelOnStderr});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    long lost = r.value("lost");
    ASSERT_GT(lost, 300);
    EXPECT_EQ(reportedOverruns(r), lost);
    // The report comes before the first message stored after the loss.
    size_t report = indexOf(r, "xLog overrun detected");
    ASSERT_NE(report, SIZE_MAX);
    EXPECT_LT(report, indexOf(r, "devio::Probe::overrun after"));
    // It also reached the debug channel, being an error.
    EXPECT_NE(
        r.err.find(
            "ERROR - devio::LogBuffer::report_overruns xLog overrun detected by reader, lost"),
        std::string::npos);
    // The messages that were stored are all there.
    EXPECT_EQ(static_cast<long>(r.countLines("devio::Probe::overrun seq=")), 500 - lost);
}

std::string probeLines(const std::string& text) {
    std::string kept;
    for (const auto& line : lines(text))
        if (line.find("devio::Probe") != std::string::npos ||
            line.find("xAssert") != std::string::npos)
            kept += line + "\n";
    return kept;
}

std::string withoutHeader(const std::string& text) {
    std::string kept;
    for (const auto& line : lines(text)) {
        bool header = line.rfind("INFO - devio::xLogStartup ", 0) == 0 &&
                      line.find("procname=") == std::string::npos;
        if (!header) kept += line + "\n";
    }
    return kept;
}

TEST(XLogProcessTest, ConsoleLinesFollowLevelsTagsAndOutputs) {
    auto startupLine = [](int level, int output) {
        return "INFO - devio::xLogStartup procname=xlogprobe namespace=devio logginglevel=" +
               std::to_string(level) + " loggingoutput=" + std::to_string(output);
    };
    const std::string bigLine = "INFO - devio::Probe::formats " + std::string(1024 - 30 - 1, 'x');
    const std::string exitLine = "INFO - devio::LogBuffer::logthreadproc log thread exiting";
    const std::vector<std::string> errorsOnly = {
        "ERROR - devio::Probe::formats repeated name",
        "WARNING - devio::Probe::formats -hid- tagged warning",
        "ERROR - devio::xAssert probe.cpp(42): ASSERT FAILURE! Expression: 1 + 1 == 3",
    };
    struct Case {
        std::string name;
        std::string settingsFile;
        std::map<std::string, std::string> env;
        std::vector<std::string> err, out;
    };
    std::vector<Case> cases = {
        {"defaults", "", {}, {}, {}},
        {"plus hid clears exclude-all", "LogTags = +hid\n", {}, {}, {}},
        {"only hid above logginglevel", "LogTags = +bt\n", {{"DEVIO_LOGTAGS", "-* +hid"}}, {}, {}},
        {"levels up to logginglevel skip the filter", "", {{"DEVIO_LOGGINGLEVEL", "3"}}, {}, {}},
        {"standard output only, verbose",
         "loggingoutput = 1\nlogTagLevel = 4\nLogTags = -hid\n",
         {},
         {},
         {}},
    };
    // The log thread's exit line at INFO passes only where the filter lets
    // it: the filter holds until the tags are released after the thread.
    cases[0].err = {startupLine(1, 6), errorsOnly[0], errorsOnly[1], errorsOnly[2]};
    // Everything up to DEBUG, after the startup line of the level in force.
    auto everyLineAfter = [&](std::string startup) {
        return std::vector<std::string>{std::move(startup),
                                        bigLine,
                                        "INFO - devio::Probe::formats first\nsecond\nthird",
                                        errorsOnly[0],
                                        errorsOnly[1],
                                        "INFO - devio::Probe::formats -hid- tagged info",
                                        "INFO - devio::Probe::formats -bt- other info",
                                        "DEBUG - devio::Probe::formats untagged debug",
                                        errorsOnly[2],
                                        exitLine};
    };
    cases[1].err = everyLineAfter(startupLine(1, 6));
    cases[2].err = {startupLine(1, 6), errorsOnly[0], errorsOnly[1],
                    "INFO - devio::Probe::formats -hid- tagged info", errorsOnly[2]};
    cases[3].err = everyLineAfter(startupLine(3, 6));
    // "-hid" holds back hid above logginglevel only; logTagLevel 4 lets
    // VERBOSE through.
    cases[4].out = {bigLine,
                    "INFO - devio::Probe::formats first\nsecond\nthird",
                    errorsOnly[0],
                    errorsOnly[1],
                    "INFO - devio::Probe::formats -bt- other info",
                    "DEBUG - devio::Probe::formats untagged debug",
                    "VERBOSE - devio::Probe::formats verbose",
                    errorsOnly[2]};

    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ProbeRunner runner;
        runner.writeSettings(c.settingsFile);
        std::map<std::string, std::string> env = c.env;
        env.insert(channelOnStderr);
        ProbeResult r = runner.run({"formats"}, env);
        ASSERT_EQ(r.exitCode, 0) << r.err;
        std::string expectedErr, expectedOut;
        for (const auto& line : c.err) expectedErr += line + "\n";
        for (const auto& line : c.out) expectedOut += line + "\n";
        if (c.name == "standard output only, verbose") {
            // The header lines pass too; compare the probe's own lines.
            EXPECT_EQ(probeLines(r.out), probeLines(expectedOut));
            EXPECT_NE(r.out.find(startupLine(1, 1)), std::string::npos);
            EXPECT_EQ(r.err, "");
            EXPECT_TRUE(r.logFiles.empty()) << "file output is off";
            continue;
        }
        if (c.name == "defaults") {
            EXPECT_EQ(r.err, expectedErr);
        }
        // The other header lines (INFO, tag xLog) show wherever the filter
        // lets them through; the procname line always does.
        EXPECT_EQ(withoutHeader(r.err), expectedErr);
        EXPECT_EQ(r.out, "");
        ASSERT_EQ(r.logFiles.size(), 1u);
        // The file gets every level up to 4 whatever the console filter.
        for (int level = 0; level <= 4; ++level) {
            bool found = false;
            for (const auto& line : r.logLines)
                found |= line.find("\t" + std::to_string(level) + "\t-") != std::string::npos &&
                         line.find("devio::Probe::formats") != std::string::npos;
            EXPECT_TRUE(found) << "level " << level;
        }
        EXPECT_EQ(r.countLines("\t-hid-               \tdevio::Probe::formats tagged info"), 1u);
        EXPECT_EQ(r.countLines("devio::Probe::formats xxxx"), 1u);
        EXPECT_EQ(r.countLines("xxx..."), 1u);
        EXPECT_EQ(r.countLines("\tdevio::Probe::formats first"), 1u);
        EXPECT_EQ(r.countLines("\tdevio::Probe::formats second"), 1u);
        EXPECT_EQ(r.countLines("\tdevio::Probe::formats third"), 1u);
    }
}

// A stand-in for the systemd journal: a datagram socket where the journal's
// would be, for a probe that sees `runDir` as /run.
class FakeJournal {
public:
    explicit FakeJournal(const fs::path& runDir) {
        fs::create_directories(runDir / "systemd" / "journal");
        std::string path = (runDir / "systemd" / "journal" / "socket").string();
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
        if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            ADD_FAILURE() << "cannot bind " << path;
    }
    ~FakeJournal() { close(fd_); }

    // Each record as its fields. A field is "NAME=value\n", or, for a value
    // that holds a newline, "NAME\n", the length in 64 bits little-endian,
    // the value and "\n".
    std::vector<std::map<std::string, std::string>> records() const {
        std::vector<std::map<std::string, std::string>> out;
        std::vector<char> buffer(1 << 16);
        for (ssize_t n; (n = recv(fd_, buffer.data(), buffer.size(), 0)) > 0;) {
            std::string_view rest(buffer.data(), static_cast<size_t>(n));
            std::map<std::string, std::string>& fields = out.emplace_back();
            while (!rest.empty()) {
                size_t end = rest.find('\n');
                std::string_view head = rest.substr(0, end);
                if (size_t equals = head.find('='); equals != std::string_view::npos) {
                    fields[std::string(head.substr(0, equals))] = head.substr(equals + 1);
                    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
                    continue;
                }
                uint64_t length = 0;
                if (end == std::string_view::npos || rest.size() < end + 9) break;
                std::memcpy(&length, rest.data() + end + 1, 8);
                if (rest.size() < end + 9 + length) break;
                fields[std::string(head)] = rest.substr(end + 9, length);
                rest.remove_prefix(std::min(rest.size(), end + 10 + length));
            }
        }
        return out;
    }

private:
    int fd_ = -1;
};

TEST(XLogProcessTest, DebugChannelIsTheJournalAtDebugPriorityQuietOnTheTerminal) {
    ProbeRunner runner;
    ProbeResult quiet = runner.run({"formats"});
    ASSERT_EQ(quiet.exitCode, 0) << quiet.err;
    EXPECT_EQ(quiet.err, "");
    EXPECT_EQ(quiet.out, "");
    EXPECT_EQ(quiet.countLines("devio::Probe::formats untagged debug"), 1u);

    // Where there is no journal, and where there is one.
    fs::path run = runner.dir() / "run";
    fs::create_directories(run);
    runner.mountOverRun(run);
    ProbeResult none = runner.run({"formats"});
    if (none.exitCode == ProbeRunner::cannotMountRun)
        GTEST_SKIP() << "a journal of our own needs a mount namespace (root)";
    ASSERT_EQ(none.exitCode, 0) << none.err;
    EXPECT_EQ(none.err, "");
    FakeJournal journal(run);
    ProbeResult r = runner.run({"formats"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.err, "");
    std::vector<std::string> seen;
    for (auto& fields : journal.records()) {
        EXPECT_EQ(fields["PRIORITY"], "7") << fields["MESSAGE"];
        seen.push_back(fields["DEVIO_TAG"] + ": " + fields["MESSAGE"]);
    }
    EXPECT_EQ(seen, (std::vector<std::string>{
                        "xLog: INFO - devio::xLogStartup procname=xlogprobe namespace=devio "
                        "logginglevel=1 loggingoutput=6",
                        "Probe: ERROR - devio::Probe::formats repeated name",
                        "hid: WARNING - devio::Probe::formats -hid- tagged warning",
                        "Untagged: ERROR - devio::xAssert probe.cpp(42): ASSERT FAILURE! "
                        "Expression: 1 + 1 == 3",
                    }));
}

TEST(XLogProcessTest, MessagesReachTheFileAsVsnprintfFormatsThemWithStringsTakenAtTheCall) {
    ProbeRunner runner;
    ProbeResult r = runner.run({"conversions"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    std::vector<std::string> expected;
    for (const auto& line : lines(r.out))
        if (line.rfind("expect=", 0) == 0) expected.push_back(line.substr(7));
    ASSERT_EQ(expected.size(), 7u);
    std::vector<std::string> logged;
    for (const auto& line : r.logLines) {
        size_t at = line.find("\tdevio::Probe::conversions ");
        if (at == std::string::npos) continue;
        EXPECT_TRUE(std::regex_match(line, fileLine)) << line;
        logged.push_back(line.substr(at + std::string("\tdevio::Probe::conversions ").size()));
    }
    ASSERT_EQ(logged.size(), expected.size());
    for (size_t i = 0; i + 1 < expected.size(); ++i) EXPECT_EQ(logged[i], expected[i]);
    // The tag word leaves the message for the tag column.
    EXPECT_EQ("-hid- " + logged.back(), expected.back());
    EXPECT_EQ(r.countLines("\t-hid-               \tdevio::Probe::conversions conv tagged"), 1u);
    EXPECT_EQ(r.countLines("conv /dev/hidraw3 index 7 feature 0x1d4b returned -1"), 1u);
}

TEST(XLogProcessTest, LoggingOffMeansNoFileAndNoThread) {
    std::vector<std::pair<std::string, std::map<std::string, std::string>>> ways = {
        {"logging = 0\n", {}},
        {"logging = 1\n", {{"DEVIO_LOGGING", "0"}}},
    };
    for (const auto& [file, env] : ways) {
        ProbeRunner runner;
        runner.writeSettings(file);
        ProbeResult r = runner.run({"disabled"}, env);
        ASSERT_EQ(r.exitCode, 0) << r.err;
        EXPECT_EQ(r.value("result"), 1);
        EXPECT_EQ(r.value("logThreads"), 0);
        EXPECT_FALSE(fs::exists(runner.logFolder()));
        EXPECT_EQ(r.err, "");
    }
}

TEST(XLogProcessTest, ShutdownWritesStraightToTheFile) {
    ProbeRunner runner;
    ProbeResult r = runner.run({"shutdown"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.value("logThreadsBefore"), 1);
    EXPECT_EQ(r.value("logThreadsAfter"), 0);
    // The process left without any exit handling; the line is there anyway.
    size_t after = indexOf(r, "devio::Probe::shutdown after");
    ASSERT_NE(after, SIZE_MAX);
    EXPECT_LT(indexOf(r, "devio::Probe::shutdown before"), indexOf(r, "_shutdown set to true"));
    EXPECT_LT(indexOf(r, "log thread exiting"),
              indexOf(r, "logging is now direct to file, all tags enabled"));
    EXPECT_LT(indexOf(r, "logging is now direct to file"), after);
    for (const auto& line : r.logLines) EXPECT_TRUE(std::regex_match(line, fileLine)) << line;

    // Logging that first starts during exit starts no thread: the header and
    // the line go straight to the file.
    ProbeRunner exitRunner;
    ProbeResult late = exitRunner.run({"exitonly"});
    ASSERT_EQ(late.exitCode, 0) << late.err;
    ASSERT_EQ(late.logFiles.size(), 1u);
    ASSERT_FALSE(late.logLines.empty()) << "an empty file";
    EXPECT_NE(late.logLines[0].find("\tdevio::xLogStartup ----"), std::string::npos);
    EXPECT_NE(indexOf(late, "first line at exit"), SIZE_MAX);
    EXPECT_EQ(late.countLines("log thread exiting"), 0u) << "a log thread started at exit";
    for (const auto& line : late.logLines) EXPECT_TRUE(std::regex_match(line, fileLine)) << line;
}

TEST(XLogProcessTest, ForkedChildWritesThroughAndExitsWithoutHanging) {
    ProbeRunner runner;
    ProbeResult r = runner.run({"fork"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.value("childFinished"), 1);
    std::string childPid = "\t" + std::to_string(r.value("childPid")) + "\t";
    size_t child = indexOf(r, "devio::Probe::forked child says hi");
    ASSERT_NE(child, SIZE_MAX);
    EXPECT_NE(r.logLines[child].find(childPid), std::string::npos) << r.logLines[child];
    EXPECT_EQ(r.countLines("devio::Probe::forked parent after"), 1u);
    EXPECT_EQ(r.countLines("devio::Probe::forked parent before"), 1u)
        << "the child must not write the parent's records";
}

// The facade's exit sequence logs into the buffer, before the log ends, in
// whichever order the process destroys the two.
TEST(XLogProcessTest, AtExitTheFacadeLogsIntoTheBufferAndTheLogEndsLast) {
    const std::pair<const char*, const char*> programs[] = {
        {EXIT_PROBE_DEVIO_FIRST, "exitprobedeviofirst"},
        {EXIT_PROBE_XLOG_FIRST, "exitprobexlogfirst"},
    };
    for (const auto& [program, name] : programs) {
        SCOPED_TRACE(name);
        const std::regex line = fileLineOf(name);
        const std::string startLine = "INFO - devio::xLogStartup procname=" + std::string(name) +
                                      " namespace=devio logginglevel=1 loggingoutput=6\n";
        ProbeRunner runner;
        runner.useProgram(program);
        ProbeResult r = runner.run({"devices"}, {channelOnStderr});
        ASSERT_EQ(r.exitCode, 0) << r.err;
        EXPECT_EQ(r.value("manager"), 1);
        // The tag filter holds to the end: nothing of the exit on the console.
        EXPECT_EQ(r.err, startLine);
        ASSERT_EQ(r.logFiles.size(), 1u);
        size_t previous = 0;
        for (const char* text :
             {"procname=", "before the manager", "creating cdevio DeviceManager",
              "returning from main", "CDevio::~CDevio", "DeviceManager::~DeviceManager() ... end.",
              "log thread exiting", "logging is now direct to file"}) {
            size_t at = indexOf(r, text);
            ASSERT_NE(at, SIZE_MAX) << text;
            EXPECT_GT(at, previous) << text;
            previous = at;
        }
        EXPECT_EQ(previous + 1, r.logLines.size()) << r.logLines.back();
        for (const auto& text : r.logLines) EXPECT_TRUE(std::regex_match(text, line)) << text;

        // A program that only links the facade has logged before main: the
        // library's features say at start-up that they are linked in. Its
        // exit runs the same order.
        ProbeRunner silentRunner;
        silentRunner.useProgram(program);
        ProbeResult silent = silentRunner.run({"silent"}, {channelOnStderr});
        ASSERT_EQ(silent.exitCode, 0) << silent.err;
        EXPECT_EQ(silent.err, startLine);
        ASSERT_EQ(silent.logFiles.size(), 1u);
        previous = 0;
        for (const char* text : {"procname=", "Devio: Feature0000 included", "CDevio::~CDevio",
                                 "log thread exiting", "logging is now direct to file"}) {
            size_t at = indexOf(silent, text);
            ASSERT_NE(at, SIZE_MAX) << text;
            EXPECT_GT(at, previous) << text;
            previous = at;
        }
        for (const auto& text : silent.logLines) EXPECT_TRUE(std::regex_match(text, line)) << text;
    }
}

void touch(const fs::path& path, std::chrono::hours age) {
    std::ofstream(path) << "old\n";
    fs::last_write_time(path, fs::file_time_type::clock::now() - age);
}

TEST(XLogProcessTest, PurgeCountsAgeFromTheNewestFileOfThisProgramOnly) {
    using std::chrono::hours;
    const hours day(24);
    ProbeRunner runner;
    fs::path folder = runner.logFolder();
    fs::create_directories(folder);
    // At startup the fresh file is the newest. Ages are half a day off the
    // whole day, since the file system stamps the fresh file with a coarser
    // clock than the one used here.
    struct Old {
        std::string name;
        hours age;
        bool survives;
    } files[] = {
        {"xlog_20200101_000000_1_xlogprobe_devio.dblog", 3 * day + hours(12), true},
        {"xlog_20200101_000000_2_xlogprobe_devio.dblog", 8 * day + hours(12), false},
        {"xlog_20200101_000000_3_xlogprobe_devio.dblog", 200 * day + hours(12), false},
        {"xlog_20200101_000000_4_otherprog_devio.dblog", 300 * day, true},
        {"xlog_20200101_000000_5_xlogprobe_other.dblog", 300 * day, true},
        {"notes_xlogprobe_devio.dblog", 300 * day, true},
    };
    for (const Old& f : files) touch(folder / f.name, f.age);
    ProbeResult r = runner.run({"log"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    for (const Old& f : files) EXPECT_EQ(fs::exists(folder / f.name), f.survives) << f.name;
    EXPECT_EQ(r.countLines("Purging 8 day old log file"), 1u);
    EXPECT_EQ(r.countLines("Purging 200 day old log file"), 1u);
    EXPECT_EQ(r.countLines("Keeping 3 day old log file"), 1u);
    EXPECT_EQ(r.countLines("Keeping 0 day old log file"), 1u);

    // A folder whose newest file is itself months old: age still counts from
    // it, not from today.
    fs::path old = runner.dir() / "old";
    fs::create_directories(old);
    touch(old / "xlog_a_oldprog_devio.dblog", 100 * day);
    touch(old / "xlog_b_oldprog_devio.dblog", 106 * day);
    touch(old / "xlog_c_oldprog_devio.dblog", 107 * day + hours(1));
    ProbeResult purge = runner.run({"purge", old.string() + "/", "oldprog"});
    ASSERT_EQ(purge.exitCode, 0) << purge.err;
    EXPECT_TRUE(fs::exists(old / "xlog_a_oldprog_devio.dblog"));
    EXPECT_TRUE(fs::exists(old / "xlog_b_oldprog_devio.dblog"));
    EXPECT_FALSE(fs::exists(old / "xlog_c_oldprog_devio.dblog"));
}

TEST(XLogProcessTest, NoUsableFolderStillLogsToTheConsole) {
    ProbeRunner runner;
    std::string longTemp = "/" + std::string(300, 'd');
    ProbeResult r =
        runner.run({"log"}, {{"TMPDIR", longTemp}, {"DEVIO_LOGTAGS", "+Probe"}, channelOnStderr});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(
        r.err.find(
            "ERROR - devio::XLogPlatformSpecific::logFolder Could not get path for log files"),
        std::string::npos);
    EXPECT_NE(r.err.find("ERROR - devio::xLogStartup Could not create log file"),
              std::string::npos);
    EXPECT_NE(r.err.find("INFO - devio::Probe::log hello"), std::string::npos);
    EXPECT_FALSE(fs::exists(runner.logFolder()));
}

}  // namespace
