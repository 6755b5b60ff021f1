#pragma once

// The client's process-wide words. The foreground sets most of them once at
// start; the settings may be changed by the worker when a server reply
// carries new values, so every word that both threads touch is atomic. The
// orderings are relaxed: a stale read only moves a flush to the next line.

#include <atomic>
#include <cstdint>
#include <string>

namespace qv {

inline constexpr const char* schema = "00000005";
inline constexpr int build = 90;

// Where the data folder lives unless VANTSHRD_DIR names another one.
inline constexpr const char* defaultDataDir = "/var/lib/vantshrd/";
inline constexpr const char* eventsFileName = "qvevents.json";
inline constexpr const char* stateFileName = "registry.json";

// Set once by initPaths(), before any other thread exists.
extern std::string dataDir;     // always ends with '/'
extern std::string eventsPath;  // dataDir + "qvevents.json"
extern std::string statePath;   // dataDir + "registry.json"

extern std::string userName;  // the effective user's name; never sent as it is
extern std::string userHash;  // value of the event key "user"

extern std::atomic<bool> noUpload;
extern std::atomic<bool> running;
extern std::atomic<std::uint32_t> pausedByMe;

// The five settings, loaded from the state store at start (see settings.h).
extern std::atomic<std::uint32_t> maxLineBuf;
extern std::atomic<std::uint32_t> maxPauseSeconds;
extern std::atomic<std::uint32_t> maxLastUploadSeconds;
extern std::atomic<std::uint32_t> minUploadSize;
extern std::atomic<std::uint32_t> timeoutShutdownSeconds;
// timeoutShutdownSeconds / 20, recomputed on every reader pass; read by nobody.
extern std::atomic<std::uint32_t> timeoutShutdownTicks;

// Reads VANTSHRD_DIR (else the default), fills dataDir, eventsPath and
// statePath, and creates the folder if it is missing.
void initPaths();

// Points the client at another data folder; `dir` need not end with '/'.
void setDataDir(const std::string& dir);

// Creates the data folder, ignoring failure: it usually exists already.
void makeDataDir();

}  // namespace qv
