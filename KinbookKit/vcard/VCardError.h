#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kinbook {

// Why bytes could not be read as a vCard at all. Anything short of this is
// read leniently and reported as a VCardWarning instead.
enum class VCardError {
    empty,     // no bytes, or only white space
    notAVCard, // no "BEGIN:VCARD" line anywhere
};

std::string_view describe(VCardError error);

// Something the reader tolerated: the line it concerns is kept byte for byte
// and written back unchanged, but it may not mean what its writer intended.
struct VCardWarning {
    std::size_t line = 0; // 1-based physical line where the problem starts
    std::string message;  // a short lower-case phrase, for logs and the inspect tool

    bool operator==(const VCardWarning&) const = default;
};

} // namespace kinbook
