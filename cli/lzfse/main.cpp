// kinbook-lzfse: compresses and decompresses files in the LZFSE format of
// Kinbook's Trash files, for inspecting and repairing a Trash by hand.
//
//   kinbook-lzfse compress IN OUT
//   kinbook-lzfse decompress IN OUT
//
// Exit status 0 on success, 1 on an unreadable or corrupt input or an
// unwritable output (with a message on stderr), 2 on a usage error.
// Decompression refuses content larger than 1 GiB: Trash files hold a few
// vCards, and the limit keeps a hostile file from exhausting memory.

#include "KinbookKit/text/Lzfse.h"

#include <fmt/core.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::size_t decompressLimit = std::size_t{1} << 30;

// Reads a whole file; nullopt with errno set when it cannot be read (a
// missing file, a directory, an I/O error).
std::optional<std::vector<std::uint8_t>> readFile(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> bytes;
    std::uint8_t buffer[65536];
    std::size_t count;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        bytes.insert(bytes.end(), buffer, buffer + count);
    }
    const bool failed = std::ferror(file) != 0;
    const int savedErrno = errno;
    std::fclose(file);
    if (failed) {
        errno = savedErrno;
        return std::nullopt;
    }
    return bytes;
}

bool writeFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        return false;
    }
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    return std::fclose(file) == 0 && written;
}

int usage() {
    fmt::print(stderr, "usage: kinbook-lzfse compress|decompress IN OUT\n");
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        return usage();
    }
    const std::string_view mode = argv[1];
    const std::string input = argv[2];
    const std::string output = argv[3];
    if (mode != "compress" && mode != "decompress") {
        return usage();
    }
    try {
        const auto bytes = readFile(input);
        if (!bytes) {
            fmt::print(stderr, "kinbook-lzfse: cannot read {}: {}\n", input, std::strerror(errno));
            return 1;
        }
        std::vector<std::uint8_t> result;
        if (mode == "compress") {
            result = kinbook::lzfseCompress(*bytes);
        } else {
            auto decoded = kinbook::lzfseDecompress(*bytes, decompressLimit);
            if (!decoded) {
                fmt::print(stderr, "kinbook-lzfse: {}: {}\n", input, kinbook::describe(decoded.error()));
                return 1;
            }
            result = std::move(decoded).value();
        }
        if (!writeFile(output, result)) {
            fmt::print(stderr, "kinbook-lzfse: cannot write {}: {}\n", output, std::strerror(errno));
            return 1;
        }
    } catch (const std::exception& error) {
        // Only allocation can throw here; report it rather than abort.
        fmt::print(stderr, "kinbook-lzfse: {}\n", error.what());
        return 1;
    }
    return 0;
}
