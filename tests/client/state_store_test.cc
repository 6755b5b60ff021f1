// The state store across processes: real files, real OFD locks, forked
// processes running the client's own store code.

#include "state_store.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "client_process.h"
#include "globals.h"
#include "settings.h"

using nlohmann::json;
using namespace qvtest;

namespace {

// Runs `body` in a child process (its own pausedByMe, its own descriptors)
// and returns the wait status; the body's result is the exit code.
template <typename Body>
int inChild(Body body) {
    pid_t pid = ::fork();
    if (pid == 0) ::_exit(body());
    int status = 0;
    ::waitpid(pid, &status, 0);
    return status;
}

class StateStore : public ::testing::Test {
protected:
    void SetUp() override { qv::setDataDir(dir.path()); }
    TempDir dir;
};

}  // namespace

TEST_F(StateStore, EightProcessesKeepPauseCountRight) {
    // Each process pauses and unpauses many times while reading ids; the odd
    // ones end paused. Lost updates would leave a count other than four.
    const int rounds = sanitized ? 60 : 200;
    std::string clientId = qv::getClientId();
    std::vector<pid_t> children;
    for (int i = 0; i < 8; ++i) {
        pid_t pid = ::fork();
        if (pid == 0) {
            bool ok = true;
            for (int r = 0; r < rounds; ++r) {
                qv::pause();
                ok = ok && qv::isPaused();
                ok = ok && qv::getClientId() == clientId;
                ok = ok && !qv::getUploadId().empty();
                qv::unpause();
            }
            if (i % 2 == 1) qv::pause();
            ::_exit(ok ? 0 : 1);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        EXPECT_TRUE(exitedCleanly(status));
    }
    EXPECT_EQ(qv::readOnly("PauseCount"), "4");
    EXPECT_TRUE(qv::isPaused());
    // One UploadId for all of them: it was created once, under the lock.
    std::string uploadId = qv::readOnly("UploadId");
    EXPECT_EQ(uploadId.size(), 36u);
    EXPECT_EQ(json::parse(readFile(dir.file("registry.json")))["UploadId"], uploadId);
}

TEST_F(StateStore, ValueTextFormsAndCounts) {
    std::string store = dir.file("registry.json");
    struct Case {
        const char* content;
        const char* value;
    } cases[] = {
        {R"({"MaxLineBuf":50})", "50"}, {R"({"MaxLineBuf":-1})", "4294967295"},
        {R"({"MaxLineBuf":7.9})", "7"}, {R"({"MaxLineBuf":true})", ""},
        {R"({"MaxLineBuf":null})", ""}, {R"({"MaxLineBuf":{"a":1}})", ""},
        {R"({"MaxLineBuf":"x"})", "x"},
    };
    for (const Case& c : cases) {
        writeFile(store, std::string(c.content) + "\n");
        EXPECT_EQ(qv::readOnly("MaxLineBuf"), c.value) << c.content;
        // A present key is not replaced by a default.
        EXPECT_EQ(qv::getSetting("MaxLineBuf", "20"), c.value) << c.content;
    }
    // The conversion of a setting's text, including its two failures.
    EXPECT_EQ(qv::settingFromText("42"), 42u);
    EXPECT_EQ(qv::settingFromText(" +42 lines"), 42u);
    EXPECT_EQ(qv::settingFromText("-1"), 4294967295u);
    EXPECT_EQ(qv::settingFromText("4294967295"), 4294967295u);
    EXPECT_THROW(qv::settingFromText("4294967296"), std::out_of_range);
    EXPECT_THROW(qv::settingFromText("99999999999999999999999"), std::out_of_range);
    for (const char* bad : {"", "x1", " ", "-", "+x"}) {
        try {
            qv::settingFromText(bad);
            ADD_FAILURE() << "accepted '" << bad << "'";
        } catch (const std::invalid_argument& e) {
            EXPECT_STREQ(e.what(), "invalid stoul argument");
        }
    }
    // The pause count's text: never below zero, and an unpause without a
    // pause of this process's own leaves the count alone yet asks for a
    // flush.
    EXPECT_EQ(qv::decrement("0"), "0");
    EXPECT_EQ(qv::decrement(""), "0");
    EXPECT_EQ(qv::increment(""), "1");
    EXPECT_EQ(qv::increment("41"), "42");
    EXPECT_TRUE(qv::unpause());
    EXPECT_EQ(qv::readOnly("PauseCount"), "");
}

TEST_F(StateStore, DamagedShrunkAndOversizedFiles) {
    std::string store = dir.file("registry.json");
    std::string oldId = qv::getClientId();

    // Garbage is an empty store: the next read makes a new identity.
    writeFile(store, "{\"ClientId\":\"" + oldId + "\",garbage");
    std::string newId = qv::getClientId();
    EXPECT_NE(newId, oldId);
    EXPECT_EQ(newId.size(), 36u);
    // So is JSON that isn't an object; the write replaces it.
    writeFile(store, "[1,2,3]\n");
    EXPECT_EQ(qv::readOnly("ClientId"), "");
    qv::setSetting("MaxLineBuf", "20");
    EXPECT_EQ(json::parse(readFile(store)), json::parse(R"({"MaxLineBuf":"20"})"));

    // 10 -> 9: one byte shorter, the leftover is the old newline.
    qv::setSetting("PauseCount", "10");
    qv::updateState("PauseCount", true, qv::decrement);
    std::string text = readFile(store);
    EXPECT_EQ(text.substr(text.size() - 2), "\n\n");
    EXPECT_EQ(qv::readOnly("PauseCount"), "9");
    EXPECT_EQ(qv::readOnly("MaxLineBuf"), "20");

    // A shrink by several bytes leaves a tail that spoils the next parse, and
    // the store reads as empty from then on.
    qv::setSetting("MinUploadSize", "1048576");
    qv::setSetting("MinUploadSize", "5");
    EXPECT_EQ(qv::readOnly("MinUploadSize"), "");
    EXPECT_EQ(qv::readOnly("PauseCount"), "");

    // Just below the limit is read (and is garbage, so empty); at the limit
    // the process ends.
    writeFile(store, std::string(qv::stateFileLimit - 1, 'x'));
    EXPECT_EQ(qv::readOnly("ClientId"), "");
    writeFile(store, std::string(qv::stateFileLimit, ' '));
    EXPECT_TRUE(aborted(inChild([] {
        qv::readOnly("ClientId");
        return 0;
    })));
    // A value that would take the file to the limit is not written.
    writeFile(store, "{}\n");
    std::string huge(qv::stateFileLimit, 'v');
    EXPECT_EQ(qv::setSetting("Huge", huge), huge);
    EXPECT_EQ(readFile(store), "{}\n");
    EXPECT_EQ(qv::readOnly("Huge"), "");
}

TEST_F(StateStore, RefusesSymbolicLinks) {
    // A link planted in the shared folder is never followed: the client
    // ends rather than write through it.
    std::string target = dir.file("elsewhere.json");
    writeFile(target, "{\"ClientId\":\"planted\"}\n");
    ASSERT_EQ(::symlink(target.c_str(), dir.file("registry.json").c_str()), 0);
    EXPECT_TRUE(aborted(inChild([] {
        qv::getClientId();
        return 0;
    })));
    EXPECT_EQ(readFile(target), "{\"ClientId\":\"planted\"}\n");
}
