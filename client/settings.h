#pragma once

// The five settings: their store keys and defaults, and how their text
// becomes a number.

#include <cstdint>
#include <string>

namespace qv {

inline constexpr const char* keyMaxLineBuf = "MaxLineBuf";
inline constexpr const char* keyMaxPauseSeconds = "MaxPauseSeconds";
inline constexpr const char* keyMaxLastUploadSeconds = "MaxLastUploadSeconds";
inline constexpr const char* keyMinUploadSize = "MinUploadSize";
inline constexpr const char* keyTimeoutShutdownSeconds = "TimeoutShutdownSeconds";

// Base-10 conversion as strtoul does it on a 32-bit unsigned long: leading
// blanks and a sign are accepted, trailing characters ignored. No digits
// throws std::invalid_argument("invalid stoul argument"); a value beyond 32
// bits throws std::out_of_range("stoul argument out of range").
std::uint32_t settingFromText(const std::string& text);

// Reads the five settings from the store in their fixed order, writing the
// defaults of missing ones, and raises MaxLineBuf to at least 2. A value
// that isn't a number throws, which ends the client at start.
void loadSettings();

}  // namespace qv
