#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace devio_tool {

// Text forms of what --json prints. Each takes the JSON of DeviceFacts (or of
// a watch event) and gives lines ending in a newline.
std::string renderList(const nlohmann::json& devices);
std::string renderShow(const nlohmann::json& device);
std::string renderEvent(const nlohmann::json& event);
std::string renderProperty(const nlohmann::json& property);
std::string renderFriendlyName(const nlohmann::json& name);

// JSON on one line. Text the device sent that is not UTF-8 is replaced, not
// refused.
std::string jsonLine(const nlohmann::json& j);

}  // namespace devio_tool
