#pragma once

#include "cli/ToolOptions.h"

#include <CLI/CLI.hpp>

namespace kinbook::cli {

// `kinbook photos`, `photo add`, `photo set`, `poster` and `jobs`: a person's
// full-size photos, poster and past jobs in the sidecar folder, and the
// contact photo cut around the face.
void addPhotoCommands(CLI::App& app, const ToolOptions& options);

} // namespace kinbook::cli
