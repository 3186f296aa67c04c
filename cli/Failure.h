#pragma once

#include "cli/Terminal.h"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include <string_view>

namespace kinbook::cli {

// Exit statuses: 0 done, 1 the command could not do what was asked (the
// message says why), 2 the command line itself was unusable.
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

// A failure the user must see: "kinbook: <message>" on stderr, and the
// command ends with exit status 1. Thrown through CLI11, which main() catches.
// Messages quote card text, which goes through terminalText.
[[noreturn]] inline void fail(std::string_view message) {
    fmt::print(stderr, "kinbook: {}\n", terminalText(message, TextLines::several));
    throw CLI::RuntimeError(kExitFailed);
}

// A warning that does not stop the command.
inline void warn(std::string_view message) {
    fmt::print(stderr, "kinbook: {}\n", terminalText(message, TextLines::several));
}

} // namespace kinbook::cli
