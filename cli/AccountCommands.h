#pragma once

#include "cli/ToolOptions.h"

#include <CLI/CLI.hpp>

namespace kinbook::cli {

// `account add` and `account remove` (a person into a further account, or
// out of one), `move` (people to one account, or copies with --copy) and
// `sync-from-primary`, through the same list as the window: a move sends the
// cards it takes away to the Trash, so `kinbook restore` brings them back.
void addAccountCommands(CLI::App& app, const ToolOptions& options);

} // namespace kinbook::cli
