#include "Base/FileReplace.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>

namespace devio {

bool replace_file(const std::string& name, const std::string& text) {
    const std::string scratch = name + "." + std::to_string(std::random_device{}()) + ".tmp";
    {
        std::ofstream out(scratch, std::ios::binary | std::ios::trunc);
        if (!out) return false;
        out.write(text.data(), static_cast<std::streamsize>(text.size()));
        out.close();
        if (!out) {
            std::remove(scratch.c_str());
            return false;
        }
    }
    if (std::rename(scratch.c_str(), name.c_str()) != 0) {
        std::remove(scratch.c_str());
        return false;
    }
    return true;
}

bool read_file_text(const std::string& name, std::vector<char>& text) {
    std::ifstream in(name, std::ios::binary);
    if (!in) return false;
    std::vector<char> all{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    all.push_back('\0');
    text = std::move(all);
    return true;
}

}  // namespace devio
