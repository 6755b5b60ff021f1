#include "log_file.h"

#include <ctime>
#include <new>

#include "log_format.h"
#include "log_names.h"
#include "log_platform.h"

namespace devio::xlog {

LogFile::LogFile(uint64_t startMicros, uint64_t startWallMicros, uint32_t processId,
                 std::string processName, std::string nameSpace)
    : startMicros_(startMicros),
      wallOffset_(static_cast<int64_t>(startWallMicros - startMicros)),
      processId_(processId),
      processName_(std::move(processName)),
      nameSpace_(std::move(nameSpace)) {}

LogFile::~LogFile() {
    if (file_ != nullptr) std::fclose(file_);
}

bool LogFile::open(const std::string& path) {
    std::lock_guard lock(mutex_);
    file_ = XLogPlatformSpecific::openLogFile(path);
    return file_ != nullptr;
}

void LogFile::formatDate(uint64_t timeMicros, char* out, size_t size) {
    uint64_t wall = timeMicros + static_cast<uint64_t>(wallOffset_.load(std::memory_order_relaxed));
    auto second = static_cast<int64_t>(wall / 1000000);
    if (second != cachedSecond_) {
        std::tm local{};
        XLogPlatformSpecific::localTime(second, local);
        std::strftime(cachedDate_, sizeof cachedDate_, "%Y/%m/%d %H:%M:%S", &local);
        cachedSecond_ = second;
    }
    unsigned micros = static_cast<unsigned>(wall % 1000000);
    formatText(out, size, "%s.%03u.%03u", cachedDate_, micros / 1000, micros % 1000);
}

void formatSeconds(uint64_t micros, char* out, size_t size) {
    // A whole number of microseconds printed with "%f" is its seconds, a
    // point and six digits, as long as the double holds it exactly; the
    // integers are much cheaper to print. Beyond that, and for a time before
    // the start (which wraps), "%f" itself.
    constexpr uint64_t exact = uint64_t{1} << 50;
    if (micros < exact)
        formatText(out, size, "%llu.%06llu", static_cast<unsigned long long>(micros / 1000000),
                   static_cast<unsigned long long>(micros % 1000000));
    else
        std::snprintf(out, size, "%f", static_cast<double>(micros) / 1e6);
}

void LogFile::writeRecord(uint64_t timeMicros, uint32_t threadId, int level, std::string_view tag,
                          std::string_view function, std::string_view message) {
    std::lock_guard lock(mutex_);
    if (file_ == nullptr) return;
    std::string_view name = cutFunctionName(function);
    message = dropNameRepeat(message, name);
    // A message that ends its last line needs no empty line after it.
    if (!message.empty() && message.back() == '\n') message.remove_suffix(1);

    char date[64];
    formatDate(timeMicros, date, sizeof date);
    char seconds[48];
    formatSeconds(timeMicros - startMicros_, seconds, sizeof seconds);
    // One byte more than the longest line, so that a line of exactly
    // maxLine bytes is not taken for a cut one.
    char line[maxLine + 1];
    size_t pos = 0;
    for (;;) {
        size_t end = message.find('\n', pos);
        std::string_view part =
            message.substr(pos, end == std::string_view::npos ? end : end - pos);
        int n = formatText(line, sizeof line, "%s\t%s\t%d\t<%05d>.%s.%s\t%d\t%-20.*s\t%.*s %.*s\n",
                           seconds, date, static_cast<int>(processId_), static_cast<int>(threadId),
                           nameSpace_.c_str(), processName_.c_str(), level,
                           static_cast<int>(tag.size()), tag.data(), static_cast<int>(name.size()),
                           name.data(), static_cast<int>(part.size()), part.data());
        if (n < 0) {
            std::fputs("xLog fputs == 0\n", file_);
        } else {
            size_t length = static_cast<size_t>(n);
            if (length > maxLine) {
                line[maxLine - 4] = '.';
                line[maxLine - 3] = '.';
                line[maxLine - 2] = '.';
                line[maxLine - 1] = '\n';
                length = maxLine;
            }
            std::fwrite(line, 1, length, file_);
        }
        if (end == std::string_view::npos) break;
        pos = end + 1;
    }
}

void LogFile::resetAfterFork(uint32_t processId) {
    new (&mutex_) std::mutex;
    processId_ = processId;
    // Lines the parent's log thread had formatted but not yet flushed are in
    // our copy of the stream's buffer; the parent writes them, so the child
    // must drop them or they would reach the file twice.
    if (file_ != nullptr) XLogPlatformSpecific::discardUnwritten(file_);
}

void LogFile::setWallOffset(int64_t offsetMicros) {
    wallOffset_.store(offsetMicros, std::memory_order_relaxed);
}

void LogFile::flush() {
    std::lock_guard lock(mutex_);
    if (file_ != nullptr) std::fflush(file_);
}

}  // namespace devio::xlog
