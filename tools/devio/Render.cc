#include "Render.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace devio_tool {

using nlohmann::json;

namespace {

std::string hex(unsigned value, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*X", digits, value);
    return text;
}

std::string text(const json& j, const char* key, const char* absent = "-") {
    const auto it = j.find(key);
    if (it == j.end() || it->is_null()) return absent;
    if (it->is_string()) return it->get<std::string>();
    return it->dump();
}

std::string batteryText(const json& device) {
    const auto b = device.find("battery");
    if (b == device.end()) return "-";
    return std::to_string(b->value("level", 0)) + "%";
}

// Floats as a person reads them: 1.5, 3.40282e+38.
std::string number(const json& value) {
    if (!value.is_number_float()) return value.dump();
    char text[32];
    std::snprintf(text, sizeof text, "%g", value.get<double>());
    return text;
}

std::string propertyValue(const json& p) {
    if (!p.contains("value")) return "?";
    return number(p["value"]) + " (" + number(p["min"]) + " .. " + number(p["max"]) + ")";
}

// Columns as wide as their widest cell, two blanks apart; the last one is
// not padded.
std::string table(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> width;
    for (const auto& row : rows) {
        width.resize(std::max(width.size(), row.size()));
        for (std::size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], row[c].size());
    }
    std::string out;
    for (const auto& row : rows) {
        for (std::size_t c = 0; c < row.size(); ++c) {
            out += row[c];
            if (c + 1 < row.size()) out += std::string(width[c] - row[c].size() + 2, ' ');
        }
        out += "\n";
    }
    return out;
}

std::string errorLines(const json& device) {
    std::string out;
    for (const auto& e : device.value("errors", json::array())) {
        out += "  ! " + e.value("what", "") + ": " + e.value("text", "") + "\n";
    }
    return out;
}

}  // namespace

std::string jsonLine(const json& j) {
    return j.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string renderList(const json& devices) {
    std::vector<std::vector<std::string>> rows{
        {"PATH", "BUS", "PID", "NAME", "TYPE", "CONNECTED", "BATTERY", "FIRMWARE"}};
    std::string errors;
    for (const auto& d : devices) {
        rows.push_back({d.value("path", ""),
                        std::to_string(d.value("bustype", -1)) + " " + d.value("bus", ""),
                        hex(d.value("pid", 0u), 4), text(d, "name", text(d, "product").c_str()),
                        text(d, "type"), d.value("connected", false) ? "yes" : "no", batteryText(d),
                        text(d, "firmware")});
        if (!d.value("errors", json::array()).empty()) {
            errors += d.value("path", "") + ":\n" + errorLines(d);
        }
    }
    if (devices.empty()) return "no devices\n";
    return table(rows) + errors;
}

std::string renderFriendlyName(const json& name) {
    return "friendly name: " + text(name, "name") + "\n" +
           "default name:  " + text(name, "default") + "\n" +
           "longest:       " + text(name, "max_length") + "\n";
}

std::string renderProperty(const json& p) {
    return p.value("name", "") + " = " + propertyValue(p) + "  [" + p.value("type", "") + ", id " +
           std::to_string(p.value("id", 0)) + "]\n";
}

std::string renderShow(const json& d) {
    std::vector<std::vector<std::string>> rows{
        {"path", d.value("path", "")},
        {"bus", std::to_string(d.value("bustype", -1)) + " " + d.value("bus", "")},
        {"product id", hex(d.value("pid", 0u), 4)},
        {"product", text(d, "product")},
        {"name", text(d, "name")},
        {"type", text(d, "type")},
        {"connected", d.value("connected", false) ? "yes" : "no"},
        {"wireless status", d.value("wireless_status", false) ? "reported" : "not reported"}};
    if (d.contains("friendly_name")) {
        const json& f = d["friendly_name"];
        rows.push_back({"friendly name", text(f, "name")});
        rows.push_back({"default name", text(f, "default")});
    }
    if (d.contains("battery")) {
        const json& b = d["battery"];
        rows.push_back({"battery", batteryText(d) + ", next " + text(b, "next_level") +
                                       "%, status " + text(b, "status")});
        if (b.contains("levels")) {
            rows.push_back({"battery capability", text(b, "levels") + " levels, flags " +
                                                      text(b, "flags") + ", life " +
                                                      text(b, "nominal_life") + ", critical " +
                                                      text(b, "critical_level") + "%"});
        }
    }
    if (d.contains("protocol")) {
        rows.push_back({"protocol", text(d["protocol"], "version") + ", target software " +
                                        text(d["protocol"], "target_sw")});
    }
    rows.push_back({"firmware", text(d, "firmware")});
    std::string out = table(rows);
    if (d.contains("firmware_info")) {
        const json& fw = d["firmware_info"];
        out += "firmware entities (unit " + hex(fw.value("unit_id", 0u), 8) + ", transport " +
               hex(fw.value("transport", 0u), 4) + "):\n";
        std::vector<std::vector<std::string>> entities{
            {"  #", "TYPE", "PREFIX", "VERSION", "BUILD", "RUNNING"}};
        for (const auto& e : fw["entities"]) {
            entities.push_back({"  " + text(e, "index"), text(e, "type"), text(e, "prefix"),
                                text(e, "version"), text(e, "build"),
                                e.value("running", false) ? "yes" : "no"});
        }
        out += table(entities);
    }
    const json props = d.value("properties", json::array());
    if (!props.empty()) {
        out += "properties:\n";
        for (const auto& p : props) out += "  " + renderProperty(p);
    }
    const json features = d.value("features", json::array());
    if (!features.empty()) {
        out += "features:\n";
        std::vector<std::vector<std::string>> rows2{{"  INDEX", "ID", "VERSION", "FLAGS"}};
        for (const auto& f : features) {
            std::string flags;
            if (f.value("obsolete", false)) flags += "obsolete ";
            if (f.value("hidden", false)) flags += "hidden ";
            if (f.value("engineering", false)) flags += "engineering ";
            if (!flags.empty()) flags.pop_back();
            rows2.push_back({"  " + text(f, "index"), hex(f.value("id", 0u), 4), text(f, "version"),
                             flags.empty() ? "-" : flags});
        }
        out += table(rows2);
    }
    return out + errorLines(d);
}

std::string renderEvent(const json& e) {
    std::string out =
        e.value("time", "") + "  " + e.value("event", "") + "  " + e.value("path", "");
    for (const auto& [key, value] : e.items()) {
        if (key == "time" || key == "event" || key == "path") continue;
        std::string shown = value.is_string()
                                ? value.get<std::string>()
                                : value.dump(-1, ' ', false, json::error_handler_t::replace);
        if (key == "pid" && value.is_number_unsigned()) shown = hex(value.get<unsigned>(), 4);
        out += "  " + key + "=" + shown;
    }
    return out + "\n";
}

}  // namespace devio_tool
