#include "machine_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <memory>
#include <sstream>

namespace qv::inventory {

namespace {

// Larger than any file the inventory reads (/proc/cpuinfo of a few hundred
// processors stays well below); a longer one is cut, not read whole.
constexpr std::size_t kMaxFileBytes = 4 * 1024 * 1024;

std::string rootFrom(const char* variable, const std::string& fallback) {
    const char* value = std::getenv(variable);
    return value != nullptr && *value != '\0' ? value : fallback;
}

}  // namespace

std::string procRoot() {
    return rootFrom("VANTSHRD_PROC_ROOT", "/proc");
}

std::string sysfsRoot() {
    return rootFrom("VANTSHRD_SYSFS_ROOT", "/sys");
}

std::string drmRoot() {
    return rootFrom("VANTSHRD_DRM_ROOT", sysfsRoot() + "/class/drm");
}

std::string trimmed(const std::string& text) {
    const char* blanks = " \t\r\n";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Read in small pieces: files under /proc/sys refuse a read much larger
// than their content.
std::optional<std::string> fileText(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string text;
    char buffer[16384];
    while (text.size() < kMaxFileBytes) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        text.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return text;
}

std::optional<std::string> firstLine(const std::string& path) {
    const auto text = fileText(path);
    if (!text) return std::nullopt;
    std::string line = trimmed(text->substr(0, text->find('\n')));
    if (line.empty()) return std::nullopt;
    return line;
}

std::optional<std::string> labelledValue(const std::string& path, const std::string& label) {
    const auto text = fileText(path);
    if (!text) return std::nullopt;
    std::istringstream lines(*text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(label, 0) == 0) return line.substr(label.size());
    }
    return std::nullopt;
}

std::vector<std::string> directoryNames(const std::string& path) {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path.c_str()), ::closedir);
    if (!dir) return names;
    while (const dirent* entry = ::readdir(dir.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<unsigned long long> leadingNumber(const std::string& text) {
    const std::string t = trimmed(text);
    unsigned long long value = 0;
    const auto [end, ec] = std::from_chars(t.data(), t.data() + t.size(), value);
    if (ec != std::errc() || end == t.data()) return std::nullopt;
    return value;
}

std::optional<unsigned> hexId(const std::string& text) {
    const std::string digits = text.rfind("0x", 0) == 0 ? text.substr(2) : text;
    unsigned value = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, ec] = std::from_chars(digits.data(), end, value, 16);
    if (ec != std::errc() || stop != end || digits.empty() || digits.size() > 4) {
        return std::nullopt;
    }
    return value;
}

}  // namespace qv::inventory
