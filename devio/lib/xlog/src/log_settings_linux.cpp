#include <strings.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>

#include "log_settings.h"

namespace devio::xlog {

namespace {

constexpr size_t maxTagsLength = 1024;
const char* const valueNames[] = {"logging",     "logginglevel", "loggingoutput",
                                  "logTagLevel", "LogTags",      "debugchannel"};

std::string trim(const std::string& text) {
    size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return {};
    size_t last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

// Numbers may be written in decimal or, as registry tools show them, in hex
// with a 0x prefix. A leading zero is only a zero: "010" is ten, as a person
// editing the file means it, not eight.
std::optional<int> parseNumber(const std::string& text) {
    if (text.empty()) return std::nullopt;
    size_t digits = text[0] == '-' || text[0] == '+' ? 1 : 0;
    bool hex = text.size() > digits + 1 && text[digits] == '0' &&
               (text[digits + 1] == 'x' || text[digits + 1] == 'X');
    errno = 0;
    char* end = nullptr;
    long long value = std::strtoll(text.c_str(), &end, hex ? 16 : 10);
    if (errno != 0 || end == text.c_str() || *end != '\0') return std::nullopt;
    if (value < INT_MIN || value > static_cast<long long>(UINT_MAX)) return std::nullopt;
    return static_cast<int>(static_cast<unsigned>(value));
}

std::string settingsPath() {
    if (const char* config = std::getenv("XDG_CONFIG_HOME"); config != nullptr && *config == '/')
        return std::string(config) + "/vantrel/devio.conf";
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0')
        return std::string(home) + "/.config/vantrel/devio.conf";
    return {};
}

void readFile(LogSettings& settings) {
    std::string path = settingsPath();
    if (path.empty()) return;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        std::string text = trim(line);
        if (text.empty() || text[0] == '#') continue;
        size_t equals = text.find('=');
        if (equals == std::string::npos) continue;
        applyLogSetting(settings, trim(text.substr(0, equals)), trim(text.substr(equals + 1)));
    }
}

void readEnvironment(LogSettings& settings) {
    for (const char* name : valueNames) {
        std::string variable = "DEVIO_";
        for (const char* c = name; *c != '\0'; ++c)
            variable += static_cast<char>(*c >= 'a' && *c <= 'z' ? *c - 'a' + 'A' : *c);
        if (const char* value = std::getenv(variable.c_str()); value != nullptr)
            applyLogSetting(settings, name, value);
    }
}

}  // namespace

void applyLogSetting(LogSettings& settings, const std::string& name, const std::string& value) {
    if (strcasecmp(name.c_str(), "LogTags") == 0) {
        settings.LogTags = value.substr(0, maxTagsLength);
        return;
    }
    if (strcasecmp(name.c_str(), "debugchannel") == 0) {
        settings.debugchannel = value;
        return;
    }
    int* target = nullptr;
    if (strcasecmp(name.c_str(), "logging") == 0) target = &settings.logging;
    if (strcasecmp(name.c_str(), "logginglevel") == 0) target = &settings.logginglevel;
    if (strcasecmp(name.c_str(), "loggingoutput") == 0) target = &settings.loggingoutput;
    if (strcasecmp(name.c_str(), "logTagLevel") == 0) target = &settings.logTagLevel;
    if (target == nullptr) return;
    if (std::optional<int> number = parseNumber(value)) *target = *number;
}

LogSettings readLogSettings() {
    LogSettings settings;
    readFile(settings);
    readEnvironment(settings);
    return settings;
}

}  // namespace devio::xlog
