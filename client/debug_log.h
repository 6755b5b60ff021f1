#pragma once

// The optional debug log of --debugout. Both threads write to it without a
// common lock: every trace is one line handed to the kernel in one append,
// so lines of the two threads may interleave but never tear. The texts carry
// their own "bg " (worker) or "fg " (foreground) prefix where they have one.

#include <sstream>
#include <string>

namespace qv {

// Opens `path` for appending and writes "STARTUP DEBUG LOG". A file that
// cannot be opened leaves a log that silently drops every trace.
void openDebugLog(const std::string& path);

// Closes the log; later traces are dropped.
void closeDebugLog();

// True when --debugout was given, even if its file failed to open.
bool debugLogRequested();

// Writes one trace line; a newline is added unless the text ends with one.
void writeTrace(const std::string& line);

// Formats its arguments as a stream would and writes them as one trace.
// Costs nothing beyond the check when no log is open.
bool debugLogOpen();
template <typename... Args>
void trace(const Args&... args) {
    if (!debugLogOpen()) return;
    std::ostringstream out;
    (out << ... << args);
    writeTrace(out.str());
}

}  // namespace qv
