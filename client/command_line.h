#pragma once

#include <string>

namespace qv {

struct CommandLine {
    std::string inputPath;  // last input file named, or empty for stdin
    bool hasInputFile = false;
    int inputFd = -1;  // the last input file, opened (-1 if it failed)
};

// Cuts the arguments: --debugout <file>, --noupload, --version, and input
// files. "--version" ends the process with exit code 0. Earlier input files
// are opened and stay open; only the last one is read.
CommandLine cutCommandLine(int argc, char** argv);

}  // namespace qv
