#pragma once

// The device library's log facility. Any thread may call; a call formats at
// once and never touches the disk (the file is written by the log thread).

namespace devio {

// Levels: 0 ERROR, 1 WARNING, 2 INFO, 3 DEBUG, 4 VERBOSE.
// Returns false if the file record could not be stored.
bool xLog(const char* tag, int level, const char* function, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Logs an assertion failure at level 0 when `condition` is false, and then
// returns true.
bool xAssert(bool condition, const char* expression, const char* file, int line);

}  // namespace devio
