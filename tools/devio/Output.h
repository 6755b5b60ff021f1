#pragma once

#include <string>

namespace devio_tool {

// The tool's results go to the standard output it was started with; the
// library's own descriptor 1 is moved away (to standard error with
// --verbose, else to /dev/null), since the library prints debugging lines
// there that would break the tool's output. With --verbose the program
// then runs itself again, so that the log settings in the environment (see
// prepareLogging) take effect. Call once, before the library runs.
void separateLibraryOutput(bool verbose, char** argv);

// Writes `text` to the tool's standard output at once; false when it cannot
// be written (a closed pipe).
bool print(const std::string& text);

}  // namespace devio_tool
