#include "command_line.h"

#include <fcntl.h>

#include <cstdlib>
#include <stdexcept>

#include "debug_log.h"
#include "globals.h"
#include "shared_file.h"

namespace qv {

CommandLine cutCommandLine(int argc, char** argv) {
    CommandLine cut;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg[0] == '-') {
            // The second character is not looked at: "-xdebugout" is
            // "--debugout", "-debugout" is the unknown "ebugout".
            if (arg.size() < 2) throw std::out_of_range("invalid string position");
            std::string name = arg.substr(2);
            if (name == "debugout") {
                // A missing file name gives a log that drops its traces.
                openDebugLog(i + 1 < argc ? argv[++i] : "");
            } else if (name == "noupload") {
                noUpload = true;
            } else if (name == "version") {
                std::exit(0);
            }
        } else {
            // Earlier input files stay open to the end; only the last is read.
            cut.inputPath = arg;
            cut.hasInputFile = true;
            cut.inputFd = ::open(arg.c_str(), O_RDONLY | O_CLOEXEC);
        }
    }
    return cut;
}

}  // namespace qv
