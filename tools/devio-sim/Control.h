#pragma once

#include <string>

#include "Machine.h"

namespace devio_sim {

// Carries out one control command line on a running machine (see help) and
// returns the answer line: "ok", "ok" followed by lines of text, or
// "error: " and the reason. Any thread but the machine's serving thread.
std::string execute(Machine& machine, const std::string& line);

extern const char* const kControlHelp;

}  // namespace devio_sim
