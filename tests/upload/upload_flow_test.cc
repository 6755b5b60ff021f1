// Whole uploads through the real client and the loopback HTTPS server:
// what reaches the server, the header, and what is left in the data folder.

#include <gtest/gtest.h>

#include <filesystem>

#include "md5.h"
#include "upload_support.h"

using nlohmann::json;
using namespace qvtest;

namespace {

// The header, to the byte: compact, keys in ascending byte order, settings
// as numbers, and the token "test" (upload id, client id, time to the tenth
// of a second) signed by "auth". The inventory's sections beside them are
// the inventory tests' to check.
void checkHeader(const std::string& text, const std::string& dataDir, int maxLineBuf = 20) {
    json header = json::parse(text);
    EXPECT_EQ(header.dump(), text);
    for (const char* inventory : {"vant", "video", "cpu", "monitors", "usb"}) {
        EXPECT_TRUE(header.contains(inventory)) << inventory;
    }
    json own = json::object();
    for (const char* key :
         {"auth", "clientid", "maxlastuploadseconds", "maxlinebuf", "maxpauseseconds",
          "minuploadsize", "test", "timeoutshutdownseconds", "uploadid", "version"}) {
        if (header.contains(key)) own[key] = header[key];
    }
    const std::string test = own.value("test", "");
    ASSERT_EQ(test.size(), 90u) << text;
    EXPECT_TRUE(matchesShape(test.substr(0, 36), guidShape)) << test;
    EXPECT_TRUE(matchesShape(test.substr(72), "dddd-dd-dd dd:dd:d")) << test;
    const std::string clientId = storedValue(dataDir, "ClientId");
    EXPECT_EQ(test.substr(36, 36), clientId);
    EXPECT_EQ(own, json({{"auth", qv::md5Hex(test)},
                         {"clientid", clientId},
                         {"maxlastuploadseconds", 259200u},
                         {"maxlinebuf", static_cast<unsigned>(maxLineBuf)},
                         {"maxpauseseconds", 7200u},
                         {"minuploadsize", 1048576u},
                         {"test", test},
                         {"timeoutshutdownseconds", 600u},
                         {"uploadid", test.substr(0, 36)},
                         {"version", "00000005"}}));
}

}  // namespace

TEST(UploadFlow, ServerGetsExactlyTheEventsFileAndTheHeader) {
    UploadBench bench;
    // First only write the events, in one flush at the end of input, to know
    // the file's bytes; then send it.
    seedStore(bench.data, {{"MaxLineBuf", "1000"}});
    ASSERT_TRUE(exitedCleanly(bench.run(eventInput("a", 600), {"--noupload"}).status));
    const std::string written = readFile(bench.eventsFile());
    ASSERT_EQ(numbersOf(readLines(bench.eventsFile()), "a"), range(0, 600));
    ASSERT_GT(written.size(), 4 * 16384u);
    const std::string idBefore = storedValue(bench.data, "UploadId");

    ASSERT_TRUE(exitedCleanly(bench.run(".OFF\n").status));
    auto uploads = bench.server.uploads();
    ASSERT_EQ(uploads.size(), 1u) << bench.server.connections();
    const StoredUpload& up = uploads[0];
    ASSERT_TRUE(up.meta["valid"]) << up.meta.dump();
    EXPECT_EQ(readFile(bench.dir.file("ingest/store/upload-000000/events.txt")), written);
    // One sync flush per block of the send file at least.
    EXPECT_GE(up.meta["sync_markers"].get<size_t>(), written.size() / 16384);
    checkHeader(up.headerText, bench.data, 1000);
    EXPECT_EQ(json::parse(up.headerText)["uploadid"], idBefore);
    EXPECT_EQ(json::parse(up.lines[0])["upload"], idBefore);

    // Delivered: a new upload id, no send file, no events left.
    const std::string idAfter = storedValue(bench.data, "UploadId");
    EXPECT_TRUE(matchesShape(idAfter, guidShape));
    EXPECT_NE(idAfter, idBefore);
    EXPECT_FALSE(std::filesystem::exists(bench.sendFile()));
    EXPECT_EQ(readFile(bench.eventsFile()), "");

    const std::string log = bench.traces();
    const std::string send = bench.sendFile();
    for (const std::string& text :
         {std::string("forcing after "), std::string("!!! UPLOAD !!!!"),
          std::string("bg get devio"), std::string("bg got devio"),
          "send file created by rename " + send + " returned 0,0",
          "upload complete, delete " + send, "sent normal send file " + send + " returned 0",
          std::string("CollectSystemData took ")}) {
        EXPECT_TRUE(traced(log, text)) << text << "\n" << log;
    }

    // Nothing new: the forced decision stamps LastUpload, and no request
    // goes out for an empty events file.
    const std::string stampBefore = storedValue(bench.data, "LastUpload");
    ASSERT_TRUE(exitedCleanly(bench.run(".OFF\n").status));
    EXPECT_TRUE(traced(bench.traces(), "events file is zero")) << bench.traces();
    EXPECT_EQ(bench.server.uploads().size(), 1u);
    EXPECT_NE(storedValue(bench.data, "LastUpload"), stampBefore);
}

TEST(UploadFlow, LeftoverSendFileGoesFirstThenTheNewEvents) {
    UploadBench bench;
    ASSERT_TRUE(exitedCleanly(bench.run(eventInput("old", 30), {"--noupload"}).status));
    std::filesystem::rename(bench.eventsFile(), bench.sendFile());

    // Lines and ".OFF" in one run: --noupload keeps the flushes along the
    // way from deciding, and ".OFF" uploads all the same.
    ASSERT_TRUE(exitedCleanly(bench.run(eventInput("new", 75) + ".OFF\n", {"--noupload"}).status));
    auto uploads = bench.server.uploads();
    ASSERT_EQ(uploads.size(), 2u) << bench.server.connections();
    checkHeader(uploads[0].headerText, bench.data);
    EXPECT_EQ(numbersOf(uploads[0].lines, "old"), range(0, 30));
    EXPECT_TRUE(numbersOf(uploads[0].lines, "new").empty());
    EXPECT_EQ(numbersOf(uploads[1].lines, "new"), range(0, 75));
    EXPECT_TRUE(numbersOf(uploads[1].lines, "old").empty());
    // One header, built before the rotation, travels with both.
    EXPECT_EQ(uploads[0].headerText, uploads[1].headerText);
    EXPECT_FALSE(std::filesystem::exists(bench.sendFile()));

    const std::string log = bench.traces();
    EXPECT_TRUE(traced(log, "send file exists already " + bench.sendFile())) << log;
    EXPECT_TRUE(traced(log, "sent first of 2")) << log;
    EXPECT_TRUE(traced(log, "sent second of 2")) << log;
}
