#include "cli/CheckCommands.h"

#include "KinbookKit/addressbook/HealthCheck.h"
#include "KinbookKit/setup/Configuration.h"
#include "cli/Failure.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

namespace kinbook::cli {
namespace {

nlohmann::json reportJson(const HealthReport& report) {
    auto findings = nlohmann::json::array();
    for (const auto& finding : report.findings) {
        auto files = nlohmann::json::array();
        for (const auto& file : finding.files) {
            files.push_back(file.string());
        }
        findings.push_back({
            {"kind", HealthFinding::name(finding.kind)},
            {"problem", finding.isProblem()},
            {"files", std::move(files)},
            {"detail", finding.detail},
            {"advice", HealthFinding::advice(finding.kind)},
        });
    }
    return {
        {"contacts", report.root.string()}, {"readable", report.readable},
        {"cardFiles", report.cardFiles},    {"problems", report.problemCount()},
        {"findings", std::move(findings)},
    };
}

void check(const ToolOptions& options) {
    Configuration::Overrides overrides;
    if (options.contacts) {
        overrides.contacts = *options.contacts;
    }
    const auto configuration = Configuration::load(Configuration::processEnvironment(), overrides);
    if (!configuration.ok()) {
        fail(configuration.error());
    }
    const HealthReport report = checkAddressBook(configuration->contacts);
    if (options.json) {
        // File names need not be UTF-8: shown replaced rather than not at all.
        fmt::print("{}\n", reportJson(report).dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
    } else {
        fmt::print("{}", describe(report));
    }
    if (report.problemCount() > 0) {
        throw CLI::RuntimeError(kExitFailed);
    }
}

} // namespace

void addCheckCommands(CLI::App& app, const ToolOptions& options) {
    auto* command = app.add_subcommand(
        "check",
        "Look through the address book for files Kinbook passes over or may mistake, and say what to "
        "do about each; changes nothing. Exits 1 when it found a problem");
    command->callback([&options] { check(options); });
}

} // namespace kinbook::cli
