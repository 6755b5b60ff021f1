#pragma once

#include <string>
#include <vector>

// The file form of the pairing cache, `paired.xml`: the Bluetooth devices
// that were paired to a radio, so that a device switched off is still known
// at the next start.
//
//   <?xml version="1.0" encoding="utf-8"?>
//   <devices>
//       <device path="..." pid="B35B" name="..." radio="..." interface="bluetooth"/>
//   </devices>
//
// `pid` is upper-case hexadecimal without prefix or padding; `interface` is
// "bluetooth" (classic), "blevxp" (Low Energy over HID) or "blevx" (Low
// Energy over the vendor GATT transport).
//
// Pure functions without state or locks, with no dependency on the rest of
// the library, so that the fuzz target builds the reader alone.
namespace devio::paired_cache {

struct Entry {
    std::string path;
    std::string pid;
    std::string name;
    std::string radio;
    std::string interface;
    // All five attributes were there; an entry without one is not used.
    bool complete = false;
};

// Parses `text`, which must end with a zero byte, in place, and returns the
// `device` elements of the first root-level `devices` element, in file
// order. Malformed XML throws `rapidxml::parse_error`; nothing else is
// thrown.
std::vector<Entry> parse(char* text);

// The whole document, printed with the XML library's default formatting.
// Only complete entries are meant to be printed; `complete` is not looked at.
std::string print(const std::vector<Entry>& entries);

// The product id as the file keeps it, and back. A text that is no
// hexadecimal number reads as 0.
std::string pid_text(unsigned pid);
unsigned pid_value(const std::string& text);

}  // namespace devio::paired_cache
