#pragma once

#include <string>

namespace qv {

// The effective user's name, or "" when it cannot be found.
std::string effectiveUserName();

}  // namespace qv
