#pragma once

#include <optional>
#include <string>

// The log facility's settings, read once when the first message is logged.
// A value that is missing or unreadable keeps its default.

namespace devio::xlog {

struct LogSettings {
    int logging = 1;                     // non-zero enables the whole facility
    int logginglevel = 1;                // at or below: passes the tag filter unconditionally
    int loggingoutput = 6;               // bit 0 standard output, bit 1 debug channel, bit 2 file
    int logTagLevel = 3;                 // highest level for standard output and debug channel
    std::optional<std::string> LogTags;  // tag filter tokens, at most 1,024 bytes
    // Where the debug channel goes: "stderr" for standard error, anything
    // else (or nothing) the platform's own channel.
    std::string debugchannel;
};

// Reads "$XDG_CONFIG_HOME/vantrel/devio.conf" (else "~/.config/vantrel/
// devio.conf"): lines of "name = value", names matched without regard to
// case, '#' starting a comment line. Each value may then be overridden by the
// environment variable DEVIO_<NAME> (the name in upper case).
LogSettings readLogSettings();

// Applies one "name = value" pair; unknown names and values that are not
// numbers where a number is wanted are ignored. Exposed for the reader above.
void applyLogSetting(LogSettings& settings, const std::string& name, const std::string& value);

}  // namespace devio::xlog
