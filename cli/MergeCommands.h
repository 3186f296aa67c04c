#pragma once

#include "cli/ToolOptions.h"

#include <CLI/CLI.hpp>

namespace kinbook::cli {

// `kinbook duplicates`, `merge` and `not-duplicates`: people who look like
// the same human, merged into one with every card kept in its account.
void addMergeCommands(CLI::App& app, const ToolOptions& options);

} // namespace kinbook::cli
