#pragma once

// The tables that map rows of the machine inventory to keys of the upload
// header, with the conversion each key's text goes through.

#include <nlohmann/json.hpp>

#include "rows.h"

namespace qv::inventory {

enum class Conversion {
    None,
    Mebibytes,     // decimal bytes to decimal mebibytes
    VersionMajor,  // first of three point-separated parts
    VersionMinor,
    VersionBuild,
    Date,      // management date text to 2017-06-01T22:07:41.123456Z
    FirstTwo,  // "64-bit" to "64"
};

struct KeyRule {
    const char* key;
    const char* property;
    Conversion conversion;
};

// Sets on `target` the key of every rule whose property the row has and
// whose text converts; the others are left out.
void applyTable(const Row& row, const KeyRule* rules, std::size_t count, nlohmann::json& target);

template <std::size_t N>
void applyTable(const Row& row, const KeyRule (&rules)[N], nlohmann::json& target) {
    applyTable(row, rules, N, target);
}

inline constexpr KeyRule kVideoKeys[] = {
    {"vidcompat", "adaptercompatibility", Conversion::None},
    {"vidram", "adapterram", Conversion::Mebibytes},
    {"vidbits", "currentbitsperpixel", Conversion::None},
    {"vidhorz", "currenthorizontalresolution", Conversion::None},
    {"vidvert", "currentverticalresolution", Conversion::None},
    {"vidref", "currentrefreshrate", Conversion::None},
    {"vidname", "name", Conversion::None},
    {"vidproc", "videoprocessor", Conversion::None},
};

inline constexpr KeyRule kOperatingSystemKeys[] = {
    {"osmajor", "version", Conversion::VersionMajor},
    {"osminor", "version", Conversion::VersionMinor},
    {"osbuild", "version", Conversion::VersionBuild},
    {"boottime", "lastbootuptime", Conversion::Date},
    {"installtime", "installdate", Conversion::Date},
    {"locale", "locale", Conversion::None},
    {"osbitness", "osarchitecture", Conversion::FirstTwo},
    {"oslanguage", "oslanguage", Conversion::None},
    {"codepage", "codeset", Conversion::None},
};

inline constexpr KeyRule kComputerKeys[] = {
    {"tzoffset", "currenttimezone", Conversion::None},
    {"manufacturer", "manufacturer", Conversion::None},
    {"model", "model", Conversion::None},
    {"physmem", "totalphysicalmemory", Conversion::Mebibytes},
};

inline constexpr KeyRule kProcessorKeys[] = {
    {"name", "name", Conversion::None},
    {"description", "description", Conversion::None},
    {"characteristics", "characteristics", Conversion::None},
    {"family", "family", Conversion::None},
    {"level", "level", Conversion::None},
    {"loadpercentage", "loadpercentage", Conversion::None},
    {"manufacturer", "manufacturer", Conversion::None},
    {"currentclockspeed", "currentclockspeed", Conversion::None},
    {"maxclockspeed", "maxclockspeed", Conversion::None},
    {"numberofcores", "numberofcores", Conversion::None},
};

}  // namespace qv::inventory
