#pragma once

#include "cli/ToolOptions.h"

#include <CLI/CLI.hpp>

namespace kinbook::cli {

// `kinbook check`: a read-only health check of the address book.
void addCheckCommands(CLI::App& app, const ToolOptions& options);

} // namespace kinbook::cli
