#pragma once

#include "cli/ToolOptions.h"

#include <CLI/CLI.hpp>

namespace kinbook::cli {

// `delete` (people to the Trash), `trash` (its list, deleting entries for
// good, emptying it) and `restore`, through the same list and Trash folder
// as the window, so that either brings back what the other deleted.
void addTrashCommands(CLI::App& app, const ToolOptions& options);

} // namespace kinbook::cli
