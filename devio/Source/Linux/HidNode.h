#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace devio::linux_hid {

// Opens a HID node for reading and writing without blocking. A node that is a
// Unix socket is connected as SOCK_SEQPACKET instead: that is how simulated
// hardware attaches, one report per message as hidraw gives one per read.
// Returns the descriptor, or -1 with errno in `sys_error`.
int openNode(const std::string& path, int& sys_error);

enum class NodeRead { Report, Stopped, Failed, Gone };

// Waits for one report on `fd` or for `stop_fd` (an eventfd) to be signalled,
// whichever comes first; the stop wins when both are ready. The report fills
// `buffer` from its start and the rest of the buffer is zeroed. `got` is the
// number of bytes the node gave. Gone means the device has been removed
// (hangup, end of stream, or the errors the kernel gives a removed device).
NodeRead readNode(int fd, int stop_fd, std::span<std::uint8_t> buffer, std::size_t& got,
                  int& sys_error);

enum class NodeWrite { Done, TimedOut, Failed, GeneralFailure };

// Writes one report, waiting at most `timeout_ms` for the node to take it.
// GeneralFailure is a transfer that the device or the bus refused this
// once, where trying again may succeed.
NodeWrite writeNode(int fd, std::span<const std::uint8_t> report, std::uint32_t timeout_ms,
                    int& sys_error);

// The kernel's raw info and descriptor of a hidraw node; false on a node
// that is not hidraw (a socket), with errno in `sys_error`.
bool queryRawInfo(int fd, std::uint32_t& bus, std::uint16_t& vendor, std::uint16_t& product,
                  int& sys_error);
bool queryDescriptor(int fd, std::vector<std::uint8_t>& out, int& sys_error);

// An eventfd used as a stop event: signalled stays signalled until reset.
int makeStopEvent(int& sys_error);
bool signalStopEvent(int fd);
bool resetStopEvent(int fd);

}  // namespace devio::linux_hid
