#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace devio {

// The record by which another thread asks the bus's window thread to
// register or unregister a notification, passed by pointer with the
// window's private message (wParam = its size). A wire format between
// threads of one process: its layout is fixed, so that a sender and the
// window procedure can never disagree about it.
struct Win32BusRequest {
    std::uint32_t size = sizeof(Win32BusRequest);
    std::uint8_t ishandle = 0;    // 1: a handle notification; 0: an interface one
    std::uint8_t unregister = 0;  // 1: unregister; 0: register
    std::uint8_t padding[2] = {};
    std::uint32_t err = 0;  // result: ErrorCode
    std::uint32_t sys = 0;  // result: the platform's error
    std::int64_t handle = 0;
    std::uint64_t notification = 0;  // in or out
    // The interface class: a GUID's sixteen bytes where the platform names
    // classes so, else the class name, NUL-padded.
    std::uint8_t interface_class[16] = {};
    std::uint64_t index = 0;  // the interface notification, in or out

    void set_class(const std::string& name) {
        std::memset(interface_class, 0, sizeof interface_class);
        std::memcpy(interface_class, name.data(), std::min(name.size(), sizeof interface_class));
    }
    std::string class_name() const {
        const auto* text = reinterpret_cast<const char*>(interface_class);
        return std::string(text, strnlen(text, sizeof interface_class));
    }
};

static_assert(sizeof(Win32BusRequest) == 56);
static_assert(offsetof(Win32BusRequest, ishandle) == 4);
static_assert(offsetof(Win32BusRequest, unregister) == 5);
static_assert(offsetof(Win32BusRequest, err) == 8);
static_assert(offsetof(Win32BusRequest, sys) == 12);
static_assert(offsetof(Win32BusRequest, handle) == 16);
static_assert(offsetof(Win32BusRequest, notification) == 24);
static_assert(offsetof(Win32BusRequest, interface_class) == 32);
static_assert(offsetof(Win32BusRequest, index) == 48);

}  // namespace devio
