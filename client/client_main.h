#pragma once

namespace qv {

// The whole client run: start, read until an end condition, stop the
// worker. Returns the process's exit code.
int clientMain(int argc, char** argv);

}  // namespace qv
