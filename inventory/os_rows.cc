// The operating system: the kernel's release stands for the version (its
// first three point-separated parts are major, minor and build), the
// machine's word size for the architecture, the locale of the session that
// runs the client for locale, language and code set.

#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "machine_files.h"
#include "readers.h"

namespace qv::inventory {

namespace {

// Management date text in UTC: yyyymmddHHMMSS.ffffff+000.
std::string managementDate(std::time_t when) {
    std::tm tm{};
    if (::gmtime_r(&when, &tm) == nullptr) return "";
    char text[96];
    std::snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d.000000+000", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    return text;
}

void addBootTime(Row& row) {
    const auto seconds = leadingNumber(labelledValue(procRoot() + "/stat", "btime ").value_or(""));
    if (seconds) row["lastbootuptime"] = managementDate(static_cast<std::time_t>(*seconds));
}

// Word sizes of the architectures whose names do not say it.
std::string architecture(const std::string& machine) {
    if (machine.find("64") != std::string::npos || machine == "s390x") return "64-bit";
    return "32-bit";
}

// The first of the variables that is set and not empty.
std::string firstSet(std::initializer_list<const char*> names) {
    for (const char* name : names) {
        const char* value = std::getenv(name);
        if (value != nullptr && *value != '\0') return value;
    }
    return "";
}

// "de_CH.UTF-8@euro": the name without code set and modifier, and the code
// set.
void splitLocale(const std::string& locale, std::string& name, std::string& codeset) {
    name = locale.substr(0, locale.find_first_of(".@"));
    const auto dot = locale.find('.');
    codeset =
        dot == std::string::npos ? "" : locale.substr(dot + 1, locale.find('@', dot) - dot - 1);
}

void addLocale(Row& row) {
    std::string name, codeset, ignored;
    splitLocale(firstSet({"LC_ALL", "LC_CTYPE", "LANG"}), name, codeset);
    if (!name.empty()) row["locale"] = name;
    if (!codeset.empty()) row["codeset"] = codeset;
    splitLocale(firstSet({"LC_ALL", "LC_MESSAGES", "LANG"}), name, ignored);
    if (!name.empty()) row["oslanguage"] = name;
}

}  // namespace

Rows operatingSystemRows() {
    Row row;
    if (const auto release = firstLine(procRoot() + "/sys/kernel/osrelease")) {
        row["version"] = *release;
    }
    utsname names{};
    if (::uname(&names) == 0) row["osarchitecture"] = architecture(names.machine);
    addBootTime(row);
    addLocale(row);
    return {row};
}

}  // namespace qv::inventory
