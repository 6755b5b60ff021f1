#pragma once

#include <string>

namespace qv {

// A fresh random (version 4) GUID as 36 characters: the 16 bytes in memory
// order, two lower-case hex digits each, "-" after bytes 4, 6, 8 and 10.
std::string newGuidText();

}  // namespace qv
