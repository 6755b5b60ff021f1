#pragma once

#include <string>
#include <vector>

namespace devio {

// Writes the whole of `text` to `name` through a new file beside it, renamed
// over the old one, so that a reader never meets a half-written file. False
// when the new file could not be written or renamed; the old file is then
// left as it was.
bool replace_file(const std::string& name, const std::string& text);

// The whole of the file `name` with a zero byte after it, as the XML reader
// takes it; false when the file cannot be opened.
bool read_file_text(const std::string& name, std::vector<char>& text);

}  // namespace devio
