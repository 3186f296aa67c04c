#include "cli/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>
#include <utf8proc.h>

#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace kinbook::cli {

Terminal Terminal::ofStandardOutput() {
    Terminal terminal;
    if (::isatty(STDOUT_FILENO) == 0) {
        return terminal;
    }
    winsize size{};
    // A terminal that cannot say how wide it is gets the customary 80.
    terminal.width = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0
                         ? static_cast<std::size_t>(size.ws_col)
                         : std::size_t{80};
    const char* noColor = std::getenv("NO_COLOR");
    const char* term = std::getenv("TERM");
    terminal.colour =
        (noColor == nullptr || noColor[0] == '\0') && !(term != nullptr && std::string_view(term) == "dumb");
    return terminal;
}

namespace {

constexpr char32_t kEscape = 0x1B;
constexpr char32_t kBell = 0x07;

// The code point at `at` and its length in bytes; a byte that is not UTF-8
// reads as itself with a length of one and `valid` false.
struct Step {
    char32_t codePoint = 0;
    std::size_t length = 1;
    bool valid = true;
};

Step stepAt(std::string_view text, std::size_t at) {
    utf8proc_int32_t codePoint = 0;
    const auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data() + at),
                                         static_cast<utf8proc_ssize_t>(text.size() - at), &codePoint);
    if (length <= 0) {
        return {static_cast<unsigned char>(text[at]), 1, false};
    }
    return {static_cast<char32_t>(codePoint), static_cast<std::size_t>(length), true};
}

// The controls that open a string ended by BEL or ST: OSC, DCS, SOS, PM and
// APC, as the byte after ESC or as C1 code points.
bool opensString(char32_t c) {
    return c == ']' || c == 'P' || c == 'X' || c == '^' || c == '_' || c == 0x9D || c == 0x90 || c == 0x98 ||
           c == 0x9E || c == 0x9F;
}

bool isBidiControl(char32_t c) {
    return (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

// Past a CSI's parameters and intermediates to just after its final byte.
std::size_t pastControlSequence(std::string_view text, std::size_t at) {
    while (at < text.size()) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if (byte >= 0x40 && byte <= 0x7E) {
            return at + 1;
        }
        // Anything but a parameter or an intermediate ends the sequence
        // before it, and is judged on its own.
        if (byte < 0x20 || byte > 0x3F) {
            return at;
        }
        ++at;
    }
    return at;
}

// Past a control string to just after its terminator (BEL, ESC \ or C1
// ST), or to the end of the text when it has none.
std::size_t pastControlString(std::string_view text, std::size_t at) {
    while (at < text.size()) {
        const Step step = stepAt(text, at);
        at += step.length;
        if (step.codePoint == kBell || step.codePoint == 0x9C) {
            break;
        }
        if (step.codePoint == kEscape) {
            if (at < text.size() && text[at] == '\\') {
                ++at;
            }
            break;
        }
    }
    return at;
}

} // namespace

std::string terminalText(std::string_view text, TextLines lines) {
    std::string out;
    out.reserve(text.size());
    std::size_t at = 0;
    while (at < text.size()) {
        const Step step = stepAt(text, at);
        const char32_t c = step.codePoint;
        at += step.length;
        if (!step.valid) {
            out += "\uFFFD";
            continue;
        }
        if (c == kEscape) {
            if (at >= text.size()) {
                continue;
            }
            const Step next = stepAt(text, at);
            if (next.codePoint == '[') {
                at = pastControlSequence(text, at + 1);
            } else if (opensString(next.codePoint) && next.codePoint < 0x80) {
                at = pastControlString(text, at + 1);
            } else {
                // ESC, any intermediates, then one final character.
                while (at < text.size() && text[at] >= 0x20 && text[at] <= 0x2F) {
                    ++at;
                }
                if (at < text.size() && text[at] >= 0x30 && text[at] <= 0x7E) {
                    ++at;
                }
            }
            continue;
        }
        if (c == 0x9B) {
            at = pastControlSequence(text, at);
            continue;
        }
        if (opensString(c) && c >= 0x80) {
            at = pastControlString(text, at);
            continue;
        }
        if (c == '\n' || c == '\t') {
            out += lines == TextLines::several ? static_cast<char>(c) : ' ';
            continue;
        }
        if (c < 0x20 || (c >= 0x7F && c <= 0x9F) || isBidiControl(c)) {
            continue;
        }
        out.append(text.substr(at - step.length, step.length));
    }
    return out;
}

} // namespace kinbook::cli
