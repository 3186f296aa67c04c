#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kinbook::cli {

// What standard output is: a terminal a person reads (with its width, and
// whether colour is welcome) or a pipe or file another program reads.
struct Terminal {
    // The terminal's width in columns; none when output is no terminal,
    // and lines are then written whole, however long.
    std::optional<std::size_t> width;
    // Colour only on a terminal, and never when NO_COLOR is set (see
    // no-color.org) or the terminal is "dumb".
    bool colour = false;

    bool isTerminal() const { return width.has_value(); }

    static Terminal ofStandardOutput();
};

// Whether a text may hold line breaks where it is printed (a note, an
// address) or must stay on its line (a name in a column, a label).
enum class TextLines { one, several };

// Card text as the tool prints it, to a terminal or to a pipe: a card comes
// from anyone, and its text must not drive the terminal that shows it. Escape
// sequences (CSI, OSC, DCS and the other string controls, 7- or 8-bit) go
// whole with their payload; other C0 and C1 controls and DEL go; the bidi
// embeddings, overrides and isolates that could reorder the line around them
// go; bytes that are not UTF-8 show as U+FFFD. A line break stays in text
// of several lines and is a blank in text of one line, like a tab; a tab
// stays in text of several lines. Every value from a card passes through
// this before it is printed as text (JSON has its own escapes).
std::string terminalText(std::string_view text, TextLines lines = TextLines::one);

} // namespace kinbook::cli
