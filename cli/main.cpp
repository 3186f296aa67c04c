#include "KinbookKit/Version.h"
#include "KinbookKit/text/SystemdJournal.h"
#include "cli/InspectCommands.h"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

int main(int argc, char** argv) {
    // Log lines go to the journal too, where one runs.
    kinbook::installSystemdJournal();

    CLI::App app{fmt::format("kinbook: the command-line face of {}", kinbook::kProductName), "kinbook"};
    app.set_version_flag("--version", fmt::format("kinbook {}", kinbook::kVersion));
    app.require_subcommand(0, 1);

    kinbook::cli::addInspectCommands(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::RuntimeError& error) {
        // A command that failed has said why on stderr already.
        return error.get_exit_code();
    } catch (const CLI::ParseError& error) {
        // Help and version exit 0; every unusable argument exits 2, as
        // command-line tools usually do.
        return app.exit(error) == 0 ? 0 : 2;
    }
    if (app.get_subcommands().empty()) {
        fmt::print("{}", app.help());
    }
    return 0;
}
