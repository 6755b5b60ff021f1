#pragma once

#include <cstdarg>
#include <cstddef>

// The message formatter of the log call. The C library's vsnprintf spends
// most of a log call's time on its general machinery; the conversions the
// device library logs with (integers in every width and base, characters,
// strings, pointers, with flags, field width and precision, "*" included)
// are formatted here directly, with the same output, truncation and result.
// Anything else (floating point, wide characters, "%n", positional
// arguments, locale grouping) goes to vsnprintf for the whole message.
// Pure function; any thread.

namespace devio::xlog {

// As vsnprintf: writes at most `size` bytes including the terminating NUL
// (nothing if `size` is 0), and returns the length the whole text would have,
// or a negative number on failure. Leaves `args` as it was.
int formatMessage(char* out, size_t size, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

// As snprintf, through formatMessage.
int formatText(char* out, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace devio::xlog
