#include "timestamp.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <sstream>

namespace qv {

std::uint64_t nowTicks() {
    auto since = std::chrono::system_clock::now().time_since_epoch();
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(since).count();
    return static_cast<std::uint64_t>(ns / 100);
}

std::int64_t ticksToMs(std::uint64_t from, std::uint64_t to) {
    return (static_cast<std::int64_t>(to) - static_cast<std::int64_t>(from)) / 10000;
}

std::string timestampText(std::uint64_t ticks) {
    std::time_t seconds = static_cast<std::time_t>(ticks / 10000000);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    char text[64];
    size_t n = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &utc);
    std::snprintf(text + n, sizeof text - n, ".%06lu",
                  static_cast<unsigned long>((ticks % 10000000) / 10));
    return text;
}

std::string nowTimestamp() {
    return timestampText(nowTicks());
}

double readTimestamp(const std::string& text) {
    std::string date = text;
    double fraction = 0.0;
    auto dot = text.find('.');
    if (dot != std::string::npos) {
        fraction = std::strtod(text.c_str() + dot, nullptr);
        date = text.substr(0, dot);
    }
    std::tm local{};
    std::istringstream in(date);
    in.imbue(std::locale::classic());
    in >> std::get_time(&local, "%Y-%m-%d %H:%M:%S");
    local.tm_isdst = -1;
    return static_cast<double>(std::mktime(&local)) + fraction;
}

}  // namespace qv
