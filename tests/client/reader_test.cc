// The reader end to end through the real binary: identity lines, command
// line, dot-commands and input files. What it stamps and drops is the
// stamping test's business.

#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "client_process.h"

using nlohmann::json;
using namespace qvtest;

TEST(Reader, IdentityLinesFirstRunStoreAndSwitches) {
    TempDir dir;
    // --version: identity lines only, yet the store gets its ClientId.
    RunResult version = runClient(dir.path(), {"--version"}, "{}\n");
    ASSERT_TRUE(exitedCleanly(version.status));
    std::string id = storedValue(dir.path(), "ClientId");
    EXPECT_TRUE(matchesShape(id, guidShape)) << id;
    EXPECT_EQ(version.output, "schema: 00000005\nbuild: 90\nclientId: " + id + "\n");
    EXPECT_EQ(readFile(dir.file("qvevents.json")), "");

    // The first full run keeps the identity and writes every setting with
    // its default; UploadId waits for the first event. No upload decision,
    // so the store holds only what the start writes.
    RunResult run = runClient(dir.path(), {"--noupload"}, "");
    ASSERT_TRUE(exitedCleanly(run.status));
    EXPECT_EQ(run.output, "schema: 00000005\nbuild: 90\nclientId: " + id + "\nstarting\n");
    json store = json::parse(readFile(dir.file("registry.json")));
    EXPECT_EQ(store, json::parse(R"({"ClientId":")" + id + R"(","MaxLastUploadSeconds":"259200",
        "MaxLineBuf":"20","MaxPauseSeconds":"7200","MinUploadSize":"1048576",
        "TimeoutShutdownSeconds":"600"})"));
    EXPECT_EQ(readFile(dir.file("registry.json")), store.dump() + "\n");

    // The second character is not looked at; single-hyphen names are unknown
    // and ignored, as are names of two characters.
    RunResult other = runClient(dir.path(), {"-xversion"}, "");
    EXPECT_EQ(other.output.find("starting"), std::string::npos);
    for (std::string sw : {"-version", "-noupload", "--", "-?", "--unknown"}) {
        RunResult switched = runClient(dir.path(), {sw}, "{\"s\":1}\n");
        EXPECT_TRUE(exitedCleanly(switched.status)) << sw;
        EXPECT_NE(switched.output.find("starting\n"), std::string::npos) << sw;
    }
    EXPECT_EQ(heldLines(dir.path()).size(), 5u);
    EXPECT_TRUE(matchesShape(storedValue(dir.path(), "UploadId"), guidShape));

    // A lone "-" cannot be cut and ends the client abnormally.
    EXPECT_TRUE(aborted(runClient(dir.path(), {"-"}, "").status));

    // --debugout appends, starting with its own line; -ydebugout is the same
    // switch.
    std::string log = dir.file("debug.log");
    runClient(dir.path(), {"--debugout", log}, "{\"d\":1}\n.EOF\n");
    runClient(dir.path(), {"-ydebugout", log}, "not json\n");
    std::string traces = readFile(log);
    for (const char* expected :
         {"STARTUP DEBUG LOG\n", "got a line (7): '{\"d\":1}'\n", "got eof\n",
          "json parse exception\n", "EXITTING READER\n", "EXITTING CLIENT\n", "bg start\n",
          "bg flush to file 0\n", "bg upload= 1\n", "fg linebuffer: 1\n"}) {
        EXPECT_NE(traces.find(expected), std::string::npos) << expected;
    }
    size_t second = traces.find("STARTUP DEBUG LOG", 1);
    EXPECT_NE(second, std::string::npos) << "log was not appended to";
    // A debug log that cannot be opened costs nothing.
    RunResult noLog = runClient(dir.path(), {"--debugout", dir.file("no/such/dir/log")}, "{}\n");
    EXPECT_TRUE(exitedCleanly(noLog.status));
}

TEST(Reader, DotCommands) {
    TempDir dir;
    // ".EOFX" ends like ".EOF": nothing after it is read.
    runClient(dir.path(), {}, "{\"n\":1}\n.EOFX\n{\"n\":2}\n");
    EXPECT_EQ(heldLines(dir.path()).size(), 1u);
    // ".OFFICE" ends like ".OFF", and the hard request writes everything.
    runClient(dir.path(), {}, "{\"n\":3}\n.OFFICE\n{\"n\":4}\n");
    EXPECT_EQ(heldLines(dir.path()).size(), 2u);

    // ".UNPAUSE" without a pause changes nothing.
    runClient(dir.path(), {}, ".UNPAUSE\n");
    EXPECT_EQ(storedValue(dir.path(), "PauseCount"), "");
    EXPECT_EQ(storedValue(dir.path(), "LastPause"), "");

    // Two pauses count once, the second restamps LastPause; words after the
    // command are allowed, and the line is then dropped as an event.
    std::string log = dir.file("debug.log");
    runClient(dir.path(), {"--debugout", log}, ".PAUSE with words\n");
    std::string firstPause = storedValue(dir.path(), "LastPause");
    EXPECT_TRUE(matchesShape(firstPause, timestampShape)) << firstPause;
    EXPECT_EQ(storedValue(dir.path(), "PauseCount"), "1");
    EXPECT_NE(readFile(log).find("json parse exception"), std::string::npos);
    usleep(2000);
    runClient(dir.path(), {}, ".PAUSE\n.PAUSE\n");
    EXPECT_EQ(storedValue(dir.path(), "PauseCount"), "2");
    EXPECT_GT(storedValue(dir.path(), "LastPause"), firstPause);
    // One client: pause, unpause, pause again, unpause. Back to where it was.
    runClient(dir.path(), {}, ".PAUSE\n.UNPAUSE\n.PAUSE\n.UNPAUSE\n.UNPAUSE\n");
    EXPECT_EQ(storedValue(dir.path(), "PauseCount"), "2");
    EXPECT_EQ(heldLines(dir.path()).size(), 2u);
}

TEST(Reader, InputFiles) {
    TempDir dir;
    writeFile(dir.file("first.txt"), "{\"from\":\"first\"}\n");
    writeFile(dir.file("second.txt"), "{\"from\":\"second\"}\n{\"from\":\"second\",\"n\":2}\n");
    // A later file replaces an earlier one; standard input is not read.
    RunResult run = runClient(dir.path(), {dir.file("first.txt"), dir.file("second.txt")},
                              "{\"from\":\"stdin\"}\n");
    ASSERT_TRUE(exitedCleanly(run.status));
    auto lines = heldLines(dir.path());
    ASSERT_EQ(lines.size(), 2u);
    for (auto& line : lines) EXPECT_EQ(json::parse(line)["from"], "second");

    // A missing file: the client starts, finds its input failed and ends.
    RunResult missing = runClient(dir.path(), {dir.file("missing.txt")}, "{}\n");
    EXPECT_TRUE(exitedCleanly(missing.status));
    EXPECT_NE(missing.output.find("starting\n"), std::string::npos);
    EXPECT_EQ(heldLines(dir.path()).size(), 2u);
}

TEST(Reader, BadSettingsAtStart) {
    TempDir dir;
    // Letters where a number belongs end the client at start, after the
    // identity lines and before "starting".
    writeFile(dir.file("registry.json"), "{\"MaxLineBuf\":\"many\"}\n");
    RunResult letters = runClient(dir.path(), {}, "");
    EXPECT_TRUE(aborted(letters.status));
    EXPECT_EQ(letters.output.find("starting"), std::string::npos);
    // Digits with trailing text and hand-edited numbers are accepted.
    writeFile(dir.file("registry.json"), "{\"MaxLineBuf\":\"30 lines\",\"MinUploadSize\":5}\n");
    EXPECT_TRUE(exitedCleanly(runClient(dir.path(), {}, "").status));
    // A setting beyond 32 bits is out of range.
    writeFile(dir.file("registry.json"), "{\"MaxPauseSeconds\":\"4294967296\"}\n");
    EXPECT_TRUE(aborted(runClient(dir.path(), {}, "").status));
}
