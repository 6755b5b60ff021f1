#include "xlog.h"

#include <cstdarg>
#include <cstdio>

#include "log_clock.h"
#include "log_config.h"
#include "log_format.h"
#include "log_names.h"
#include "log_platform.h"
#include "log_process.h"

namespace devio {

namespace {

constexpr size_t bufferSize = 1024;

// The console line: "LEVEL - name -tag- message", or without the tag part
// when the message had no tag word of its own.
void writeConsole(int outputs, int level, const char* function, std::string_view tag, bool ownTag,
                  std::string_view message) {
    std::string_view name = xlog::cutFunctionName(function);
    message = xlog::dropNameRepeat(message, name);
    if (!message.empty() && message.back() == '\n') message.remove_suffix(1);
    char line[bufferSize];
    int n = ownTag ? std::snprintf(line, sizeof line, "%s - %.*s -%.*s- %.*s\n",
                                   xlog::levelName(level), static_cast<int>(name.size()),
                                   name.data(), static_cast<int>(tag.size()), tag.data(),
                                   static_cast<int>(message.size()), message.data())
                   : std::snprintf(line, sizeof line, "%s - %.*s %.*s\n", xlog::levelName(level),
                                   static_cast<int>(name.size()), name.data(),
                                   static_cast<int>(message.size()), message.data());
    if (n < 0) return;
    size_t length = static_cast<size_t>(n);
    if (length >= sizeof line) {
        // Cut, but still a whole line.
        length = sizeof line - 1;
        line[length - 1] = '\n';
    }
    if (outputs & 1) {
        std::fwrite(line, 1, length, stdout);
        if (xlog::isShutDown()) std::fflush(stdout);
    }
    if (outputs & 2) XLogPlatformSpecific::debugOutput(tag, line, length);
}

}  // namespace

bool xLog(const char* tag, int level, const char* function, const char* format, ...) {
    xlog::ensureStarted();
    xlog::LogConfig& config = xlog::logConfig();
    if (!config.enabled.load(std::memory_order_relaxed)) return true;

    int outputs = config.loggingoutput.load(std::memory_order_relaxed);
    bool toConsole =
        (outputs & 3) != 0 && level <= config.logTagLevel.load(std::memory_order_relaxed);
    bool toFile = (outputs & 4) != 0 && level <= xlog::LogConfig::fileLevel;

    size_t prefixLength = 0;
    std::string_view ownTag = xlog::tagFromFormat(format, prefixLength);
    std::string_view effectiveTag =
        !ownTag.empty() ? ownTag : std::string_view(tag != nullptr ? tag : "");
    if (function == nullptr) function = "";

    if (toConsole && !effectiveTag.empty() && !config.tags.released()) {
        config.tags.noteSeen(effectiveTag, toFile);
        // Errors and warnings never pay for the tag test.
        if (level > config.logginglevel.load(std::memory_order_relaxed) &&
            !config.tags.passes(effectiveTag))
            toConsole = false;
    }
    if (!toConsole && !toFile) return true;
    // The time of the call, taken only for a message that goes somewhere.
    uint64_t now = xlog::monotonicMicros();

    char buffer[bufferSize];
    va_list args;
    va_start(args, format);
    int nBuf = xlog::formatMessage(buffer, sizeof buffer, format, args);
    va_end(args);
    if (nBuf < 0) {
        xAssert(false, "nBuf >= 0", __FILE__, __LINE__);
        if (XLogPlatformSpecific::debuggerPresent()) XLogPlatformSpecific::debugBreak();
        buffer[0] = '\0';
        nBuf = 0;
    }
    size_t length =
        static_cast<size_t>(nBuf) < sizeof buffer ? static_cast<size_t>(nBuf) : sizeof buffer - 1;
    std::string_view message(buffer, length);
    message.remove_prefix(prefixLength < length ? prefixLength : length);

    bool stored = true;
    if (toFile)
        stored = xlog::logBufferWrite(now, XLogPlatformSpecific::threadId(), level, function,
                                      effectiveTag, message);
    if (toConsole) writeConsole(outputs, level, function, effectiveTag, !ownTag.empty(), message);
    return stored;
}

bool xAssert(bool condition, const char* expression, const char* file, int line) {
    if (condition) return false;
    xLog("Untagged", 0, "devio::xAssert", "%s(%d): ASSERT FAILURE! Expression: %s\n", file, line,
         expression);
    return true;
}

}  // namespace devio
