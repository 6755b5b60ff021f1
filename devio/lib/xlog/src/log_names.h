#pragma once

#include <string_view>

// Text helpers shared by the console and the file output: level names, the
// tag word at the front of a message, and the caller's name as printed.
// Pure functions; any thread.

namespace devio::xlog {

// "ERROR" .. "VERBOSE"; anything above 4 prints as "VERBOSE", below 0 as
// "ERROR".
const char* levelName(int level);

// If `format` begins with "-word- " (no blank or '%' inside, at least one
// character), returns the word and sets `prefixLength` to the length of the
// word with its hyphens and the blank. Otherwise returns an empty view and
// sets `prefixLength` to 0.
std::string_view tagFromFormat(const char* format, size_t& prefixLength);

// The caller's name as it is printed: from a full signature such as
// "bool __cdecl devio::Device::open(int) const" gives "devio::Device::open".
std::string_view cutFunctionName(std::string_view function);

// Drops a repeat of the caller's name at the start of `message` (callers
// often write "Class::method something"): the full name, or the class part
// and then the method, each only when followed by a blank.
std::string_view dropNameRepeat(std::string_view message, std::string_view name);

}  // namespace devio::xlog
