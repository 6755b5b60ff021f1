#include "log_names.h"

namespace devio::xlog {

const char* levelName(int level) {
    static const char* const names[] = {"ERROR", "WARNING", "INFO", "DEBUG", "VERBOSE"};
    if (level < 0) return names[0];
    if (level > 4) return names[4];
    return names[level];
}

std::string_view tagFromFormat(const char* format, size_t& prefixLength) {
    prefixLength = 0;
    if (format == nullptr || format[0] != '-') return {};
    size_t i = 1;
    // A '%' would make the formatted text differ from the format, so such a
    // word cannot be cut from the message by length.
    while (format[i] != '\0' && format[i] != '-' && format[i] != ' ' && format[i] != '%') ++i;
    if (i == 1 || format[i] != '-' || format[i + 1] != ' ') return {};
    prefixLength = i + 2;
    return std::string_view(format + 1, i - 1);
}

std::string_view cutFunctionName(std::string_view function) {
    size_t end = function.size();
    // Skip one balanced argument list at the end, and whatever qualifiers
    // (" const") follow it.
    size_t close = function.rfind(')');
    if (close != std::string_view::npos) {
        int depth = 0;
        for (size_t i = close + 1; i-- > 0;) {
            if (function[i] == ')') {
                ++depth;
            } else if (function[i] == '(' && --depth == 0) {
                end = i;
                break;
            }
        }
    }
    size_t start = function.substr(0, end).find_last_of(" *");
    start = start == std::string_view::npos ? 0 : start + 1;
    return function.substr(start, end - start);
}

namespace {

bool dropWord(std::string_view& message, std::string_view word) {
    if (word.empty() || message.size() <= word.size()) return false;
    if (message.substr(0, word.size()) != word || message[word.size()] != ' ') return false;
    message.remove_prefix(word.size() + 1);
    return true;
}

}  // namespace

std::string_view dropNameRepeat(std::string_view message, std::string_view name) {
    if (dropWord(message, name)) return message;
    size_t colons = name.rfind("::");
    if (colons == std::string_view::npos) return message;
    dropWord(message, name.substr(0, colons));
    dropWord(message, name.substr(colons + 2));
    return message;
}

}  // namespace devio::xlog
