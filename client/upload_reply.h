#pragma once

// The server's reply to an upload: a JSON object that may carry new values
// for the five settings, each a decimal number in a string.

#include <string>

namespace qv {

// Stores each setting that the reply names (exact key) and puts it into
// effect at once. A reply that isn't JSON, or a value that isn't a string
// of digits, is traced as "exception processing returned json" and ends the
// processing there; settings taken before it stay.
void applyReplySettings(const std::string& reply);

}  // namespace qv
