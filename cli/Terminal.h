#pragma once

#include <cstddef>
#include <optional>

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

} // namespace kinbook::cli
