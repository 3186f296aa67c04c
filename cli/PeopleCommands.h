#pragma once

#include "cli/ToolOptions.h"

#include <CLI/CLI.hpp>

namespace kinbook::cli {

// The commands on the people of the address book, served by the same people
// list as the application: list, search, show, accounts, circle, former,
// current, hide, unhide, email and phone. `options` is filled in by the
// parse before any command runs, and must outlive it.
void addPeopleCommands(CLI::App& app, const ToolOptions& options);

} // namespace kinbook::cli
