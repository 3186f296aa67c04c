#pragma once

#include "cli/ToolOptions.h"

#include <CLI/CLI.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace kinbook::cli {

// `kinbook new` and `kinbook edit`: a card written in the user's text editor
// (or changed by --set), saved as a draft applied entry by entry onto the
// card. `options` is filled in by the parse and must outlive it.
void addEditCommands(CLI::App& app, const ToolOptions& options);

// An editor command as the user set it in $VISUAL or $EDITOR ("code --wait",
// "'/opt/My Editor/edit' -n"), split into words the way a shell splits them:
// single quotes keep everything, double quotes keep all but a backslash
// before " or \, a backslash outside quotes keeps the next character. Nothing
// else a shell does (variables, globs, commands) happens. None when a quote
// is left open.
std::optional<std::vector<std::string>> commandWords(std::string_view command);

} // namespace kinbook::cli
