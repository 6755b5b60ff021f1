#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Base/Byte.h"

// The file form of a device's cache of responses: one XML document per
// device and firmware, in UTF-8.
//
//   <?xml version="1.0" encoding="utf-8"?>
//   <cache fw="FWINFO" path="DEVICE PATH">
//       <command cmd="10FF000A000300" rsp="10FF000A020004"/>
//   </cache>
//
// `cmd` and `rsp` are whole reports in their key form (software id nibble
// 0xA), as upper-case hexadecimal without separators.
//
// Pure functions without state or locks, with no dependency on the rest of
// the library, so that the fuzz target builds the reader alone.
namespace devio::feature_cache {

struct Entry {
    std::vector<Byte> cmd;
    std::vector<Byte> rsp;
};

struct Document {
    bool has_cache = false;  // a `cache` element was there at all
    bool has_fw = false;     // ... and it carried a `fw` attribute
    std::string fw;
    std::vector<Entry> commands;  // in file order
};

// FNV-1a, 64 bits, over the bytes of `text`.
std::uint64_t path_hash(const std::string& text);

// `dir` (ending in its separator), the product id and the low 32 bits of the
// path's hash, both in upper-case hexadecimal, and ".xml". Two devices of
// one product on different paths get different files.
std::string file_name(const std::string& dir, unsigned pid, const std::string& path);

std::string to_hex(const std::vector<Byte>& bytes);
// Reads pairs of characters; a pair that is not two hexadecimal digits is
// skipped, as is an odd last character. Digits of either case are taken.
std::vector<Byte> from_hex(const char* text, std::size_t size);

// Parses `text`, which must end with a zero byte, in place. A `command`
// that lacks `cmd` or `rsp` is skipped. Malformed XML throws
// `rapidxml::parse_error`; nothing else is thrown.
Document parse(char* text);

// The whole document, printed with the XML library's default formatting.
std::string print(const std::string& fw, const std::string& path,
                  const std::vector<Entry>& commands);

}  // namespace devio::feature_cache
