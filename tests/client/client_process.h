#pragma once

// Test support: runs the real qvclient binary in its own process against a
// throw-away data folder, and reads back what it left on disk.

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace qvtest {

// Sanitizer builds run the client several times slower; stress tests scale
// their counts down there and keep the full counts in the normal build.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif

// Sets an environment variable while it lives, and so for every client
// started meanwhile; then puts back what was there.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::string& value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name_;
    std::string old_;
    bool had_ = false;
};

// A fresh folder under $TMPDIR, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Another user for a client: the child takes these ids (the group as its
// only group) and this umask between fork and exec. Needs root.
struct RunAs {
    uid_t uid;
    gid_t gid;
    mode_t umask;
};

// One running qvclient with a pipe on its standard input and its standard
// output collected.
class ClientProcess {
public:
    // Starts the binary with VANTSHRD_DIR=dataDir and the given arguments,
    // as this process's user unless `as` names another.
    ClientProcess(const std::string& dataDir, const std::vector<std::string>& args,
                  const std::optional<RunAs>& as = std::nullopt);
    ~ClientProcess();
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    // send() fails the test when the client stops reading; trySend() says so.
    void send(const std::string& text);
    bool trySend(const std::string& text);
    void closeInput();
    // Waits for the end; returns the wait status. Fails the test after
    // `limit`, killing the process.
    int wait(std::chrono::seconds limit = std::chrono::seconds(120));
    const std::string& output() const { return output_; }

private:
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
    std::string output_;
};

struct RunResult {
    int status = 0;
    std::string output;
};

// Runs the client on `input` (closed after writing) and waits for it.
RunResult runClient(const std::string& dataDir, const std::vector<std::string>& args,
                    const std::string& input, const std::optional<RunAs>& as = std::nullopt);

bool exitedCleanly(int status);  // exit code 0
bool aborted(int status);        // ended by a signal

std::string readFile(const std::string& path);
// first, first + 1, ... : `count` numbers.
std::vector<int> range(int first, int count);
void writeFile(const std::string& path, const std::string& content);
std::vector<std::string> readLines(const std::string& path);
size_t countLines(const std::string& path);

// Every event line the data folder still holds, oldest first: an upload that
// failed leaves its lines in the send file, which is older than the events
// file. Tests run with an upload address that refuses at once.
std::vector<std::string> heldLines(const std::string& dataDir);

// Waits until `predicate` holds, polling; false after `limit`.
template <typename Predicate>
bool waitFor(Predicate predicate, std::chrono::milliseconds limit) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > end) return false;
        struct timespec pause = {0, 20 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    return true;
}

// Waits until the client behind `debugLog` has queued `events` events and
// its worker sits in its wait (its last trace is "bg wait_for") for a while,
// so that ending its input now cannot race a drain.
bool waitWorkerIdle(const std::string& debugLog, size_t events,
                    std::chrono::milliseconds limit = std::chrono::milliseconds(60000));

// True when `text` has the form of `shape`, character by character: 'h' a
// lower-case hex digit, 'd' a decimal digit, 'b' a base64 character, and
// any other character itself.
bool matchesShape(const std::string& text, const std::string& shape);
inline const std::string guidShape = "hhhhhhhh-hhhh-hhhh-hhhh-hhhhhhhhhhhh";
inline const std::string timestampShape = "dddd-dd-dd dd:dd:dd.dddddd";

// The store's value of `key` in the data folder's registry.json, or "".
std::string storedValue(const std::string& dataDir, const std::string& key);

}  // namespace qvtest
