#pragma once

#include <CLI/CLI.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook::cli {

// The command of `commands` nearest to what was typed, when it is near
// enough to be what the user meant (a letter or two wrong, left out, added
// or swapped); none otherwise.
std::optional<std::string> nearestCommand(std::string_view typed, const std::vector<std::string>& commands);

// What to tell the user when the word where a command belongs is none of
// the app's commands: "unknown command "lsit"; did you mean "list"?", or
// the commands there are. None when the command line names a command and
// something else was not expected.
std::optional<std::string> unknownCommandMessage(const CLI::App& app, int argc, char** argv);

} // namespace kinbook::cli
