#pragma once

// The foreground: the line reader, the dot-commands and the stamping of
// event lines.

#include <string>

namespace qv {

// Parses one input line and stamps it with "timestamp", "upload", "client"
// and "user". Returns the serialised line. Throws (a std::exception) when the
// line isn't JSON, is nested too deeply, or is neither an object nor null.
std::string stampLine(const std::string& line);

// Reads from descriptor `fd` (standard input when `isStdin`, which is then
// waited on for at most 20 s at a time) until an end condition. `fd` < 0
// stands for an input file that failed to open.
void readerLoop(int fd, bool isStdin);

}  // namespace qv
