// The machine on disk as the binding enumerates it, the description format's
// refusals, and the devio-sim tool.

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "Base/ErrorRecord.h"
#include "DescriptionJson.h"
#include "SimHost.h"

namespace simtest {
namespace {

// Every layout is accepted by the binding, collection by collection, with
// the facts that the combiner needs.
TEST(Machine, LayoutsAcceptedByTheBinding) {
    const char* const split = R"([{"usage_page": "0xFF00", "usage": 1, "report_id": 16, "size": 7},
        {"usage_page": "0xFF00", "usage": 2, "report_id": 17, "size": 20}])";
    const char* const masked = R"([{"usage_page": "0xFF43", "usage": "0x0301", "report_id": 16,
        "size": 7}, {"usage_page": "0xFF43", "usage": "0x0302", "report_id": 17, "size": 20}])";
    struct Layout {
        const char* name;
        const char* collections;  // JSON, empty for the default
        const char* bus;
        // The physical location that names the interfaces, stable across
        // replugs.
        const char* location;
        std::vector<std::string> suffixes;
        std::vector<int> ids;
        int expected;
        std::vector<int> sizes;
    };
    const Layout layouts[] = {
        {"long", "", "usb", "usb-sim-1-1/input0", {""}, {2}, 2, {20}},
        {"bluetooth",
         "",
         "bluetooth",
         "bt-00:1a:7d:da:71:13-00:1f:20:b0:21:01",
         {""},
         {2},
         2,
         {20}},
        {"split", split, "usb", "usb-sim-1-1/input0", {"#col1", "#col2"}, {1, 2}, 3, {7, 20}},
        {"masked", masked, "usb", "usb-sim-1-1/input0", {"#col1", "#col2"}, {1, 2}, 3, {7, 20}},
    };
    for (const Layout& l : layouts) {
        SCOPED_TRACE(l.name);
        std::string device = R"({"id": "dev", "name": "Sim Device", "pid": "0xB021", "bus": ")" +
                             std::string(l.bus) + "\"";
        if (*l.collections != 0) device += std::string(", \"collections\": ") + l.collections;
        SimMachine sim(R"({"devices": [)" + device + "}]}");
        const auto found = sim.bus()->devices();
        ASSERT_EQ(found.size(), l.suffixes.size());
        for (std::size_t i = 0; i < found.size(); ++i) {
            SCOPED_TRACE(i);
            // Paths are lower case, whatever the case of the machine's folder.
            std::string want = sim.machine().devRoot() + "/hidraw@" + l.location + l.suffixes[i];
            for (char& c : want) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            EXPECT_EQ(found[i]->path(), want);
            ASSERT_TRUE(found[i]->open()) << devio::error_record().err;
            EXPECT_EQ(found[i]->pid(), 0xB021);
            EXPECT_EQ(found[i]->name(), "Sim Device");
            EXPECT_EQ(found[i]->collection_id(), l.ids[i]);
            EXPECT_EQ(found[i]->collections_expected(), l.expected);
            EXPECT_EQ(found[i]->max_report_size(), l.sizes[i]);
            EXPECT_EQ(found[i]->combine_key(), found[0]->combine_key());
            found[i]->close();
        }
    }
}

// On a device in pieces an answer goes out on the collection that fits it.
TEST(Machine, PiecesCarryAnswersThatFitThem) {
    SimMachine sim(R"({"devices": [{"id": "dev", "pid": "0xB021", "collections": [
        {"usage_page": "0xFF00", "usage": 1, "report_id": 16, "size": 7},
        {"usage_page": "0xFF00", "usage": 2, "report_id": 17, "size": 20}]}]})");
    Host shortHost(sim, sim.path(0, "#col1")), longHost(sim, sim.path(0, "#col2"));
    ASSERT_TRUE(shortHost.open());
    ASSERT_TRUE(longHost.open());
    EXPECT_EQ(shortHost.exchange({0x10, 0xFF, 0x00, 0x1A, 0, 0, 0x21}),
              Bytes({0x10, 0xFF, 0x00, 0x1A, 4, 0, 0x21}));
    ASSERT_TRUE(shortHost.write({0x10, 0xFF, 0x02, 0x1A, 0, 0, 0}));
    const Bytes fw = longHost.next().value_or(Bytes{});
    ASSERT_EQ(fw.size(), 20u);
    EXPECT_EQ(fw[0], 0x11);
    EXPECT_EQ(shortHost.pending(), 0u);
}

TEST(Machine, PlugWhileRunningTakesTheLowestFreeNode) {
    SimMachine sim(
        R"({"devices": [{"id": "a", "pid": "0xB001"}, {"id": "b", "pid": "0xB002", "plugged": false},
                                   {"id": "c", "pid": "0xB003"}]})");
    EXPECT_EQ(sim.machine().hidrawOf("b"), -1);
    EXPECT_EQ(sim.bus()->devices().size(), 2u);
    ASSERT_EQ(sim.command("unplug a"), "ok");
    ASSERT_EQ(sim.command("plug b"), "ok");
    EXPECT_EQ(sim.machine().hidrawOf("b"), 0);
    const auto found = sim.bus()->devices();
    ASSERT_EQ(found.size(), 2u);
    ASSERT_TRUE(found[0]->open());
    EXPECT_EQ(found[0]->pid(), 0xB002);
    found[0]->close();
}

TEST(Machine, RefusedDescriptionsNameTheField) {
    const std::pair<const char*, const char*> refused[] = {
        {"{", "not JSON"},
        {R"({"devices": [{"pid": 1}]})", "devices[0]: needs an id"},
        {R"({"devices": [{"id": "a"}, {"id": "a"}]})", "used twice"},
        {R"({"devices": [{"id": "a", "pid": "0xZZ"}]})", "devices[0].pid"},
        {R"({"devices": [{"id": "a", "pid": 70000}]})", "out of range"},
        {R"({"devices": [{"id": "a", "vxp": "3.0"}]})", "devices[0].vxp"},
        {R"({"devices": [{"id": "a", "collections": [{"report_id": 17}, {"report_id": 17}]}]})",
         "report id used twice"},
        {R"({"receivers": [{"id": "r", "devices": [{"id": "k"}]}]})", "needs a qid"},
        {R"({"receivers": [{"id": "r", "pid": "0xA104", "devices": [{"id": "k", "qid": 1,
            "slot": 2}]}]})",
         "outside the receiver"},
        {R"({"devices": [{"id": "a", "entities": [{"prefix": "ABCD"}]}]})", "prefix"},
    };
    for (const auto& [json, complaint] : refused) {
        try {
            devio_sim::parseMachine(json);
            ADD_FAILURE() << "accepted: " << json;
        } catch (const std::runtime_error& e) {
            EXPECT_NE(std::string(e.what()).find(complaint), std::string::npos)
                << e.what() << " for " << json;
        }
    }
}

// The tool serves a machine, says where it is, takes commands on its control
// socket, and stops on "quit" or on SIGTERM, unplugging everything.
TEST(Tool, ServesTakesCommandsAndStopsOnQuitOrSigterm) {
    for (const bool quit : {true, false}) {
        SCOPED_TRACE(quit ? "quit" : "SIGTERM");
        char pattern[] = "/tmp/devio-sim-tool-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        const std::string dir = pattern;
        std::ofstream(dir + "/machine.json")
            << R"({"devices": [{"id": "mouse", "pid": "0xC08B"}]})";
        const std::string out = dir + "/out.txt";
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            std::freopen(out.c_str(), "w", stdout);
            std::freopen("/dev/null", "r", stdin);
            ::execl(DEVIO_SIM_TOOL, DEVIO_SIM_TOOL, "serve", (dir + "/machine.json").c_str(),
                    (dir + "/m").c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        const auto ctl = [&](const std::string& line) {
            const std::string cmd =
                std::string(DEVIO_SIM_TOOL) + " ctl " + dir + "/m " + line + " >/dev/null 2>&1";
            return std::system(cmd.c_str());
        };
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (ctl("list") != 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(20ms);
        EXPECT_EQ(ctl("fault mouse drop 1"), 0);
        EXPECT_NE(ctl("fault nobody drop 1"), 0);
        EXPECT_TRUE(std::filesystem::is_socket(dir + "/m/dev/hidraw0"));
        if (quit) {
            EXPECT_EQ(ctl("quit"), 0);
        } else {
            ::kill(pid, SIGTERM);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        std::ifstream printed(out);
        std::string first;
        std::getline(printed, first);
        EXPECT_EQ(first, "export DEVIO_SYSFS_ROOT=" + dir + "/m/sys");
        // Unplugged on the way out: the class holds no node any more.
        EXPECT_FALSE(std::filesystem::exists(dir + "/m/sys/class/hidraw/hidraw0"));
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
}

}  // namespace
}  // namespace simtest
