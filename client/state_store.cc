#include "state_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "globals.h"
#include "guid.h"
#include "shared_file.h"
#include "timestamp.h"

namespace qv {

namespace {

using nlohmann::json;

// A failed read of the state file leaves the client without its identity
// and settings; going on would hand out fresh ids under the same name, so
// the process ends here with a message instead.
[[noreturn]] void readFailure() {
    std::fprintf(stderr, "qvclient: cannot read %s: %s\n", statePath.c_str(), std::strerror(errno));
    std::abort();
}

// A hand-edited number still counts as a setting; any other non-string is
// no value at all.
std::string textForm(const json& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_number_unsigned()) {
        return std::to_string(static_cast<std::uint32_t>(value.get<std::uint64_t>()));
    }
    if (value.is_number_integer()) {
        return std::to_string(static_cast<std::uint32_t>(value.get<std::int64_t>()));
    }
    if (value.is_number_float()) {
        double d = value.get<double>();
        if (!std::isfinite(d) || std::fabs(d) >= 9.2e18) return "0";
        return std::to_string(static_cast<std::uint32_t>(static_cast<std::int64_t>(d)));
    }
    return "";
}

int lockStateFile(int fd) {
    // Ten bounded calls, then on without the lock: a stuck lock must not stop
    // the flow of events.
    for (int call = 0; call < 10; ++call) {
        if (lockRange(fd) == 0) return 0;
    }
    return -1;
}

}  // namespace

std::string updateState(const std::string& key, bool force, const StateTransform& transform) {
    makeDataDir();
    int fd = openShared(statePath, O_RDWR | O_CREAT);
    if (fd < 0) sharedFileFailure(statePath, errno);
    // The lock's range and every read and write name their offsets, so the
    // descriptor's own position never matters and is never moved.
    bool locked = lockStateFile(fd) == 0;

    char buffer[stateFileLimit + 1];
    ssize_t got = ::pread(fd, buffer, stateFileLimit, 0);
    if (got < 0) readFailure();
    if (static_cast<std::size_t>(got) >= stateFileLimit) {
        std::fprintf(stderr, "qvclient: %s has reached %zu bytes\n", statePath.c_str(),
                     stateFileLimit);
        std::abort();
    }
    buffer[got] = '\0';

    // Empty, damaged or foreign content is an empty store.
    json store;
    try {
        store = json::parse(buffer, buffer + got);
    } catch (const std::exception&) {
        store = nullptr;
    }
    if (!store.is_object()) store = nullptr;

    bool missing = true;
    std::string value;
    if (store.is_object()) {
        auto it = store.find(key);
        if (it != store.end()) {
            missing = false;
            value = textForm(*it);
        }
    }

    if (transform && (force || missing)) {
        value = transform(value);
        store[key] = value;
        std::string text = store.dump() + "\n";
        // The file is never truncated, so a shorter text leaves the tail of
        // the old one behind it. A text at the limit is not written at all:
        // every later read would end the process.
        if (text.size() < stateFileLimit) {
            ::pwrite(fd, text.data(), text.size(), 0);
        }
        missing = false;
    }

    if (locked) unlockRange(fd);
    ::close(fd);
    return missing ? std::string() : value;
}

std::string getClientId() {
    return updateState("ClientId", false, [](const std::string&) { return newGuidText(); });
}

std::string getUploadId() {
    return updateState("UploadId", false, [](const std::string&) { return newGuidText(); });
}

std::string newUploadId() {
    return updateState("UploadId", true, [](const std::string&) { return newGuidText(); });
}

std::string getSetting(const std::string& key, const std::string& defaultValue) {
    return updateState(key, false, [&](const std::string&) { return defaultValue; });
}

std::string setSetting(const std::string& key, const std::string& value) {
    return updateState(key, true, [&](const std::string&) { return value; });
}

std::string readOnly(const std::string& key) {
    return updateState(key, false, nullptr);
}

std::string increment(const std::string& old) {
    int count = old.empty() ? 0 : std::atoi(old.c_str());
    return std::to_string(count + 1);
}

std::string decrement(const std::string& old) {
    int count = old.empty() ? 0 : std::atoi(old.c_str());
    return std::to_string(count > 0 ? count - 1 : 0);
}

void pause() {
    updateState("LastPause", true, [](const std::string&) { return nowTimestamp(); });
    if (pausedByMe == 0) {
        pausedByMe = 1;
        updateState("PauseCount", true, increment);
    }
}

bool unpause() {
    if (pausedByMe == 0) return true;
    pausedByMe = 0;
    return std::atoi(updateState("PauseCount", true, decrement).c_str()) == 0;
}

bool isPaused() {
    return std::atoi(readOnly("PauseCount").c_str()) > 0;
}

}  // namespace qv
