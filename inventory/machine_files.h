#pragma once

// Where the machine inventory reads its facts, and small readers of the
// kernel's text files. Every root can be pointed at a prepared tree through
// the environment, so that tests read a machine of their own.

#include <optional>
#include <string>
#include <vector>

namespace qv::inventory {

std::string procRoot();   // VANTSHRD_PROC_ROOT, else /proc
std::string sysfsRoot();  // VANTSHRD_SYSFS_ROOT, else /sys
std::string drmRoot();    // VANTSHRD_DRM_ROOT, else <sysfs root>/class/drm

// The file's first line without its end and surrounding blanks; nothing when
// the file cannot be read or that line is empty. Attribute files of sysfs
// are one line.
std::optional<std::string> firstLine(const std::string& path);

// The whole file, or nothing; bounded, since kernel text files are small.
std::optional<std::string> fileText(const std::string& path);

// What follows `label` on the first line of the file that begins with it
// ("btime " in /proc/stat, "MemTotal:" in /proc/meminfo); nothing when no
// line does.
std::optional<std::string> labelledValue(const std::string& path, const std::string& label);

// The names in a directory in byte order, without "." and ".."; empty when
// it cannot be read.
std::vector<std::string> directoryNames(const std::string& path);

// `text` without leading and trailing blanks.
std::string trimmed(const std::string& text);

// The decimal number at the start of `text` (after blanks), or nothing.
std::optional<unsigned long long> leadingNumber(const std::string& text);

// The whole of `text` as a hexadecimal number of at most four digits, with
// or without "0x" in front (sysfs writes ids both ways), or nothing.
std::optional<unsigned> hexId(const std::string& text);

}  // namespace qv::inventory
