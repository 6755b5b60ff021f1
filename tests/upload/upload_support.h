#pragma once

// Test support shared by the upload tests: a data folder with an ingest
// server beside it, prepared state, and the client's traces.

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "client_process.h"
#include "ingest_process.h"

namespace qvtest {

// A timestamp text of the client's form, `seconds` before now (negative:
// after now).
std::string stampAgo(double seconds);

// Writes registry.json as the client would, holding exactly `values`.
void seedStore(const std::string& dataDir, const nlohmann::json& values);

// Changes registry.json between runs: each key of `patch` is set, or
// removed when its value is null.
void patchStore(const std::string& dataDir, const nlohmann::json& patch);

// `count` event lines {"tag":tag,"n":i}, each with a newline, padded so
// that the file they make spans several compression blocks.
std::string eventInput(const std::string& tag, int count, int first = 0);

// The "n" values of events with `tag` among stamped lines.
std::vector<int> numbersOf(const std::vector<std::string>& lines, const std::string& tag);

// True when `log` holds `text` as (the start of) one of its lines.
bool traced(const std::string& log, const std::string& text);

// A temp folder with a data folder, a debug log path and a server.
struct UploadBench {
    explicit UploadBench(const IngestOptions& options = {});
    TempDir dir;
    std::string data;
    std::string log;
    IngestServer server;

    std::string eventsFile() const { return data + "/qvevents.json"; }
    std::string sendFile() const { return data + "/qvevents.json.send"; }
    std::string traces() const { return readFile(log); }  // of the last run
    // Runs the client on `input` with a fresh --debugout log and any extra
    // arguments.
    RunResult run(const std::string& input, const std::vector<std::string>& extra = {});
};

}  // namespace qvtest
