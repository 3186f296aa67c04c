#include "KinbookKit/Version.h"
#include "KinbookKit/setup/KinbookSession.h"
#include "cli/AccountCommands.h"
#include "cli/CheckCommands.h"
#include "cli/CommandSuggestion.h"
#include "cli/EditCommands.h"
#include "cli/Failure.h"
#include "cli/ImportExportCommands.h"
#include "cli/InspectCommands.h"
#include "cli/MergeCommands.h"
#include "cli/PeopleCommands.h"
#include "cli/PhotoCommands.h"
#include "cli/ToolOptions.h"
#include "cli/TrashCommands.h"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

int main(int argc, char** argv) {
    // Log lines go to the journal too, where one runs.
    kinbook::KinbookSession::openPlatformLog();

    CLI::App app{fmt::format("kinbook: the command-line face of {}", kinbook::kProductName), "kinbook"};
    app.set_version_flag("--version", fmt::format("kinbook {}", kinbook::kVersion));
    app.require_subcommand(0, 1);
    // The shared options may come before or after the command's name.
    app.fallthrough();

    kinbook::cli::ToolOptions options;
    app.add_option_function<std::string>(
           "--contacts", [&options](const std::string& folder) { options.contacts = folder; },
           "Use the vdir address book in DIR instead of the configured one")
        ->type_name("DIR");
    app.add_flag("--json", options.json, "Print listings as JSON");
    app.add_flag("--no-cache", options.noCache, "Neither read nor write the snapshot cache in this run");

    kinbook::cli::addPeopleCommands(app, options);
    kinbook::cli::addPhotoCommands(app, options);
    kinbook::cli::addMergeCommands(app, options);
    kinbook::cli::addTrashCommands(app, options);
    kinbook::cli::addEditCommands(app, options);
    kinbook::cli::addImportExportCommands(app, options);
    kinbook::cli::addAccountCommands(app, options);
    kinbook::cli::addInspectCommands(app);
    kinbook::cli::addCheckCommands(app, options);

    try {
        app.parse(argc, argv);
    } catch (const CLI::RuntimeError& error) {
        // A command that failed has said why on stderr already.
        return error.get_exit_code();
    } catch (const CLI::ExtrasError& error) {
        // A word where a command belongs: most likely a mistyped command.
        if (const auto message = kinbook::cli::unknownCommandMessage(app, argc, argv)) {
            fmt::print(stderr, "kinbook: {}\n", *message);
            return kinbook::cli::kExitUsage;
        }
        return app.exit(error) == 0 ? 0 : kinbook::cli::kExitUsage;
    } catch (const CLI::ParseError& error) {
        // Help and version exit 0; every unusable argument exits 2, as
        // command-line tools usually do.
        return app.exit(error) == 0 ? 0 : kinbook::cli::kExitUsage;
    }
    if (app.get_subcommands().empty()) {
        fmt::print("{}", app.help());
    }
    return 0;
}
