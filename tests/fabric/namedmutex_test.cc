// NamedMutex between threads and between real processes.

#include "Base/NamedMutex.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <thread>

extern char** environ;

namespace {

using namespace std::chrono_literals;

// Lock files go to a private directory, never to the machine's.
class NamedMutexTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/nmtest.XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        ::setenv("DEVIO_LOCK_DIR", dir_.c_str(), 1);
        name_ = "devio_0x" + std::to_string(::getpid()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name();
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    // Starts the holder; returns once it holds the mutex.
    void startHolder() {
        int toChild[2], fromChild[2];
        ASSERT_EQ(::pipe(toChild), 0);
        ASSERT_EQ(::pipe(fromChild), 0);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_adddup2(&fa, toChild[0], 0);
        posix_spawn_file_actions_adddup2(&fa, fromChild[1], 1);
        posix_spawn_file_actions_addclose(&fa, toChild[1]);
        posix_spawn_file_actions_addclose(&fa, fromChild[0]);
        const std::string exe = HOLDER_PATH;
        char* argv[] = {const_cast<char*>(exe.c_str()), const_cast<char*>(name_.c_str()), nullptr};
        ASSERT_EQ(::posix_spawn(&child_, exe.c_str(), &fa, nullptr, argv, environ), 0);
        posix_spawn_file_actions_destroy(&fa);
        ::close(toChild[0]);
        ::close(fromChild[1]);
        stdin_ = toChild[1];
        char buf[8] = {};
        ASSERT_EQ(::read(fromChild[0], buf, 7), 7);
        EXPECT_STREQ(buf, "locked\n");
        ::close(fromChild[0]);
    }

    int reap() {
        int status = 0;
        ::waitpid(child_, &status, 0);
        ::close(stdin_);
        return status;
    }

    // Locks in a thread of this process; the future is ready once it holds.
    std::future<void> lockInThread(devio::NamedMutex& m, std::atomic<bool>& held) {
        return std::async(std::launch::async, [&m, &held] {
            m.lock();
            held = true;
            m.unlock();
        });
    }

    std::string dir_, name_;
    pid_t child_ = -1;
    int stdin_ = -1;
};

// A second process holds the mutex until it lets go, or until it is killed.
TEST_F(NamedMutexTest, ExcludesSecondProcessUntilItLetsGoOrDies) {
    devio::NamedMutex mine(name_, false);
    for (const bool killed : {false, true}) {
        SCOPED_TRACE(killed ? "killed" : "lets go");
        startHolder();
        std::atomic<bool> held{false};
        auto done = lockInThread(mine, held);
        EXPECT_EQ(done.wait_for(300ms), std::future_status::timeout);
        EXPECT_FALSE(held);
        if (killed) {
            ::kill(child_, SIGKILL);
        } else {
            ::close(stdin_);
            stdin_ = -1;
        }
        ASSERT_EQ(done.wait_for(10s), std::future_status::ready);
        EXPECT_TRUE(held);
        const int status = reap();
        EXPECT_EQ(WIFSIGNALED(status) != 0, killed);
    }
}

// Two threads on one object and two objects of one name never overlap, and
// the owning thread may lock again.
TEST_F(NamedMutexTest, ExcludesThreadsAndNests) {
    devio::NamedMutex a(name_, false);
    devio::NamedMutex b(name_, false);
    std::atomic<int> inside{0};
    std::atomic<int> worst{0};
    int counter = 0;
    auto work = [&](devio::NamedMutex& m) {
        for (int i = 0; i < 2000; ++i) {
            m.lock();
            m.lock();
            const int now = ++inside;
            worst = std::max(worst.load(), now);
            ++counter;
            --inside;
            m.unlock();
            m.unlock();
        }
    };
    std::thread t1(work, std::ref(a)), t2(work, std::ref(a)), t3(work, std::ref(b));
    t1.join();
    t2.join();
    t3.join();
    EXPECT_EQ(worst.load(), 1);
    EXPECT_EQ(counter, 6000);
}

// A mutex without a name is none: it leaves no lock file. A named one may
// be taken at construction, and is released at destruction.
TEST_F(NamedMutexTest, TakenAtConstructionReleasedAtDestruction) {
    { devio::NamedMutex none("", false); }
    EXPECT_TRUE(std::filesystem::is_empty(dir_));
    auto guard = std::make_unique<devio::NamedMutex>(name_, true);
    devio::NamedMutex other(name_, false);
    std::atomic<bool> held{false};
    auto done = lockInThread(other, held);
    EXPECT_EQ(done.wait_for(200ms), std::future_status::timeout);
    guard.reset();
    ASSERT_EQ(done.wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(held);
}

}  // namespace
