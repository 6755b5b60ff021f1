#pragma once

// What one upload carries from the decision to the transport: the header
// being collected and the path of the events file. Lives for one upload, on
// the worker.

#include <nlohmann/json.hpp>
#include <string>

namespace qv {

struct UploadContext {
    nlohmann::json header = nlohmann::json::object();
    std::string eventsPath;
};

}  // namespace qv
