#include <cctype>

#include "readers.h"
#include "rows.h"

namespace qv::inventory {

namespace {

struct Source {
    const char* wql;
    Rows (*read)();
};

const Source kSources[] = {
    {"select * from Win32_VideoController", videoControllerRows},
    {"select * from Win32_OperatingSystem", operatingSystemRows},
    {"select * from Win32_ComputerSystem", computerSystemRows},
    {"select * from Win32_Processor", processorRows},
};

bool sameText(const std::string& a, const char* b) {
    std::size_t i = 0;
    for (; i < a.size() && b[i] != '\0'; ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    }
    return i == a.size() && b[i] == '\0';
}

}  // namespace

// The query language is not case-sensitive.
Rows query(const std::string& wql) {
    for (const Source& source : kSources) {
        if (sameText(wql, source.wql)) return source.read();
    }
    return {};
}

}  // namespace qv::inventory
