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
    // Every event line is stamped, and lines come many to the second: the
    // date and time of day are formatted once a second, per thread.
    thread_local std::time_t cachedSeconds = -1;
    thread_local char cachedText[64];
    thread_local std::size_t cachedLength = 0;
    auto seconds = static_cast<std::time_t>(ticks / 10000000);
    if (seconds != cachedSeconds) {
        std::tm utc{};
        ::gmtime_r(&seconds, &utc);
        cachedLength = std::strftime(cachedText, sizeof cachedText, "%Y-%m-%d %H:%M:%S", &utc);
        cachedSeconds = seconds;
    }
    // ".%06lu" of the microseconds, which are always below 1,000,000.
    auto micros = static_cast<unsigned>((ticks % 10000000) / 10);
    char fraction[7] = {'.'};
    for (int i = 6; i > 0; --i, micros /= 10) fraction[i] = static_cast<char>('0' + micros % 10);
    std::string text;
    text.reserve(cachedLength + sizeof fraction);
    text.append(cachedText, cachedLength);
    text.append(fraction, sizeof fraction);
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
    // Standard time for every date: the shift from UTC is then the same on
    // both sides of a difference, also when daylight saving time began or
    // ended between the two stamps. Left to mktime (-1), a summer stamp
    // would be read an hour off a winter one.
    local.tm_isdst = 0;
    return static_cast<double>(std::mktime(&local)) + fraction;
}

}  // namespace qv
