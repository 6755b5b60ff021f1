#include "CommandLine.h"

#include <array>
#include <cstddef>

namespace devio_tool {

namespace {

struct Command {
    const char* name;
    std::size_t min_operands;
    std::size_t max_operands;
    const char* help;
};

constexpr const char* kCommonOptions =
    "\n"
    "Options:\n"
    "  --json            one JSON object instead of text (one per line for watch)\n"
    "  --cache-dir DIR   feature cache folder (default $XDG_CACHE_HOME/devio)\n"
    "  --bluetooth       include classic Bluetooth devices\n"
    "  --ble             include Bluetooth Low Energy devices\n"
    "  --verbose         the library's log on standard error, and a traffic summary\n"
    "  -h, --help        this help\n";

constexpr std::array<Command, 5> kCommands{{
    {"list", 0, 0,
     "usage: devio list [OPTIONS]\n"
     "One line per device: path, bus, product id, name, type, connection,\n"
     "battery and main firmware.\n"},
    {"show", 1, 1,
     "usage: devio show DEVICE [OPTIONS]\n"
     "Everything the device tells about itself: names, type, battery, wireless\n"
     "status, firmware entities, firmware properties and the feature table.\n"
     "DEVICE is a path, a product id (0xC08B) or a unique part of the name.\n"},
    {"watch", 0, 0,
     "usage: devio watch [OPTIONS]\n"
     "Prints devices as they come and go, connect and disconnect, and their\n"
     "battery, property, configuration and firmware changes, each with a\n"
     "timestamp, until interrupted (Ctrl-C).\n"},
    {"name", 1, 1,
     "usage: devio name DEVICE [--set TEXT | --reset]\n"
     "Shows the device's friendly name, sets it, or resets it to the default.\n"},
    {"property", 2, 3,
     "usage: devio property DEVICE NAME [VALUE]\n"
     "Shows one firmware property, or writes VALUE to it and shows the value\n"
     "that the device took (it may clamp).\n"},
}};

const Command* findCommand(const std::string& name) {
    for (const Command& c : kCommands) {
        if (name == c.name) return &c;
    }
    return nullptr;
}

}  // namespace

std::string helpText(const std::string& command) {
    if (const Command* c = findCommand(command)) return std::string(c->help) + kCommonOptions;
    return "usage: devio [OPTIONS] COMMAND [ARGS]\n"
           "Shows and watches the maker's input devices.\n"
           "\n"
           "Commands:\n"
           "  list                          every device, one line each\n"
           "  show DEVICE                   everything about one device\n"
           "  watch                         devices and their changes as they happen\n"
           "  name DEVICE [--set TEXT | --reset]   the friendly name\n"
           "  property DEVICE NAME [VALUE]  read or write a firmware property\n"
           "\n"
           "Exit status: 0 success, 1 failure (the library's error on standard\n"
           "error), 2 usage. See devio(1) and `devio COMMAND --help`.\n" +
           std::string(kCommonOptions);
}

std::optional<Options> parseCommandLine(int argc, char** argv, std::string& error) {
    Options o;
    const auto value = [&](int& i, const std::string& option) -> std::optional<std::string> {
        if (i + 1 >= argc) {
            error = "option " + option + " needs a value";
            return std::nullopt;
        }
        return std::string(argv[++i]);
    };
    bool options_end = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (options_end || arg.empty() || arg[0] != '-' || arg == "-") {
            if (o.command.empty()) {
                o.command = arg;
            } else {
                o.operands.push_back(arg);
            }
        } else if (arg == "--") {
            options_end = true;
        } else if (arg == "--json") {
            o.json = true;
        } else if (arg == "-h" || arg == "--help") {
            o.help = true;
        } else if (arg == "--verbose" || arg == "-v") {
            o.verbose = true;
        } else if (arg == "--bluetooth") {
            o.bluetooth = true;
        } else if (arg == "--ble") {
            o.ble = true;
        } else if (arg == "--cache-dir") {
            auto v = value(i, arg);
            if (!v) return std::nullopt;
            o.cache_dir = *v;
        } else if (arg == "--set") {
            auto v = value(i, arg);
            if (!v) return std::nullopt;
            o.set_name = *v;
        } else if (arg == "--reset") {
            o.reset_name = true;
        } else {
            error = "unknown option " + arg;
            return std::nullopt;
        }
    }
    if (o.help && (o.command.empty() || findCommand(o.command))) return o;
    if (o.command.empty()) {
        error = "no command given";
        return std::nullopt;
    }
    const Command* c = findCommand(o.command);
    if (c == nullptr) {
        error = "unknown command " + o.command;
        return std::nullopt;
    }
    if (o.operands.size() < c->min_operands || o.operands.size() > c->max_operands) {
        error = "wrong number of arguments for " + o.command;
        return std::nullopt;
    }
    if ((o.set_name || o.reset_name) && o.command != "name") {
        error = "--set and --reset belong to the command name";
        return std::nullopt;
    }
    if (o.set_name && o.reset_name) {
        error = "--set and --reset exclude each other";
        return std::nullopt;
    }
    return o;
}

}  // namespace devio_tool
