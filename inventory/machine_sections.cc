// Video controllers, operating system, computer and processors, each from
// one query through its key table, then the monitors.

#include "drm_displays.h"
#include "header_sections.h"
#include "key_tables.h"
#include "rows.h"

namespace qv::inventory {

namespace {

using nlohmann::json;

// A section of one element per row.
json listSection(const Rows& rows, const KeyRule* rules, std::size_t count) {
    json list = json::array();
    for (const Row& row : rows) {
        json element = json::object();
        applyTable(row, rules, count, element);
        list.push_back(std::move(element));
    }
    return {{"a", std::move(list)}};
}

// Keys on the header itself, from the first row. A source that yields no
// row gives no keys.
void topLevelKeys(const Rows& rows, const KeyRule* rules, std::size_t count, json& header) {
    if (!rows.empty()) applyTable(rows.front(), rules, count, header);
}

void addMonitors(json& header) {
    json list = json::array();
    for (const std::string& card : drmCards()) {
        for (const DisplayMode& mode : activeDisplays(card)) {
            list.push_back({{"vidhorz", mode.width}, {"vidvert", mode.height}});
        }
    }
    header["monitors"] = {{"a", std::move(list)}};
}

}  // namespace

void addMachineSections(json& header) {
    header["video"] = listSection(query("select * from Win32_VideoController"), kVideoKeys,
                                  std::size(kVideoKeys));
    topLevelKeys(query("select * from Win32_OperatingSystem"), kOperatingSystemKeys,
                 std::size(kOperatingSystemKeys), header);
    header["ostype"] = "linux";
    topLevelKeys(query("select * from Win32_ComputerSystem"), kComputerKeys,
                 std::size(kComputerKeys), header);
    header["cpu"] = listSection(query("select * from Win32_Processor"), kProcessorKeys,
                                std::size(kProcessorKeys));
    addMonitors(header);
}

}  // namespace qv::inventory
