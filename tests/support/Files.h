#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace kinbook::testing {

// The whole file as bytes; empty when it cannot be read.
inline std::string readFile(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::filesystem::path& file, const std::string& bytes) {
    std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
}

} // namespace kinbook::testing
