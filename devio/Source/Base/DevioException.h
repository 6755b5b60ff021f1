#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "Base/ErrorCode.h"

namespace devio {

// The exception of the platform layer. It carries the same triple as the
// thread's error record and is only thrown below the platform seam: every
// interface of the library catches it (see `contain_platform_errors`) and
// turns it into a false result, so a host never sees an exception from us.
class DevioException : public std::runtime_error {
public:
    // `str` must be a static text: it outlives the exception in the error
    // record of whoever catches it.
    DevioException(ErrorCode err, const char* str, std::uint32_t sys = 0);
    DevioException(const std::string& text, ErrorCode err, const char* str, std::uint32_t sys);
    DevioException(const DevioException& other) = default;
    DevioException& operator=(const DevioException& other) = default;
    ~DevioException() override = default;

    // Moves err, str and sys into the calling thread's error record.
    void record() const;

    std::uint32_t err;
    std::uint32_t sys;
    const char* str;
};

// Runs a platform call that returns bool. A DevioException thrown inside ends
// as the calling thread's error record and a false result; anything else
// passes through unchanged.
template <class Call>
bool contain_platform_errors(Call&& call) {
    try {
        return call();
    } catch (const DevioException& e) {
        e.record();
        return false;
    }
}

}  // namespace devio
