#pragma once

#include <optional>
#include <string>
#include <vector>

namespace devio_tool {

// What the user asked for, as read from the command line.
struct Options {
    std::string command;  // list, show, watch, name, property; empty for the tool's own help
    std::vector<std::string> operands;
    bool json = false;
    bool help = false;
    bool verbose = false;
    bool bluetooth = false;
    bool ble = false;
    std::string cache_dir;  // empty: the default, $XDG_CACHE_HOME/devio
    // `name`: the new name, or a reset to the default one.
    std::optional<std::string> set_name;
    bool reset_name = false;
};

// Reads `argv`; options may stand before or after the subcommand. On a
// usage error returns nothing and puts the message in `error`.
std::optional<Options> parseCommandLine(int argc, char** argv, std::string& error);

// The help text of the tool (empty `command`) or of one subcommand.
std::string helpText(const std::string& command);

}  // namespace devio_tool
