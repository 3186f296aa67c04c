#pragma once

#include "cli/ToolOptions.h"

#include <CLI/CLI.hpp>

namespace kinbook::cli {

// `kinbook import` (vCard files into an account, each card once by its UID)
// and `kinbook export` (people's cards as vCard, to a file or standard
// output). `options` is filled in by the parse and must outlive it.
void addImportExportCommands(CLI::App& app, const ToolOptions& options);

} // namespace kinbook::cli
