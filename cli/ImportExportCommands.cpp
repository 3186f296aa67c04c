#include "cli/ImportExportCommands.h"

#include "KinbookKit/AtomicFile.h"
#include "KinbookKit/addressbook/AddressBook.h"
#include "KinbookKit/addressbook/VCardImport.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/text/Fold.h"
#include "cli/Failure.h"
#include "cli/PeopleSession.h"

#include <fmt/core.h>
#include <fmt/ranges.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace kinbook::cli {
namespace {

namespace fs = std::filesystem;

struct ImportArguments {
    std::vector<std::string> files;
    std::string account;
};

struct ExportArguments {
    std::vector<std::string> people;
    std::string output;
};

} // namespace

void addImportExportCommands(CLI::App& app, const ToolOptions& options) {
    auto imported = std::make_shared<ImportArguments>();
    auto* import = app.add_subcommand(
        "import", "Add the cards of vCard files; a card whose UID the address book has already is skipped");
    import->add_option("FILE", imported->files, "vCard files (.vcf), each holding one card or many")
        ->required();
    import->add_option("--account", imported->account,
                       "The account (its id or name); the default one when none");
    import->callback([&options, imported] {
        PeopleSession session(options);
    auto& book = *session.kit().addressBook();
    // Every file is read before anything is added: a file that can't be
    // read stops the import with nothing changed.
    std::vector<VCardImport::Source> sources;
    for (const auto& file : imported->files) {
        auto bytes = VCardImport::readFile(file);
        if (!bytes.ok()) {
            fail(bytes.error() + "; nothing was imported");
        }
        sources.push_back({file, std::move(bytes.value())});
    }
    std::optional<std::string> accountID;
    if (!imported->account.empty()) {
        auto accounts = book.accounts();
        if (!accounts.ok()) {
            fail(accounts.error().description());
        }
        accountID = accountNamed(accounts.value(), imported->account).id;
    }
    auto summary = VCardImport::run(book, sources, accountID);
    if (!summary.ok()) {
        fail(summary.error() + "; nothing was imported");
    }
    if (options.json) {
        nlohmann::json malformed = nlohmann::json::array();
        for (const auto& card : summary->malformed) {
            malformed.push_back(
                {{"file", card.source}, {"index", card.index}, {"name", card.name}, {"reason", card.reason}});
        }
        nlohmann::json duplicates = nlohmann::json::array();
        for (const auto& card : summary->duplicates) {
            duplicates.push_back({{"file", card.source}, {"index", card.index}, {"name", card.name}});
        }
        fmt::print(
            "{}\n",
            nlohmann::json{{"added", summary->addedIDs}, {"duplicates", duplicates}, {"malformed", malformed}}
                .dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
    } else {
        fmt::print("{}\n", summary->text());
    }
    session.finish();
});

auto exported = std::make_shared<ExportArguments>();
auto* exportCommand =
    app.add_subcommand("export", "Write people's cards as vCard, each as stored, so that an import of "
                                 "them brings back the same people");
exportCommand->add_option("PERSON", exported->people,
                          "Card ids, KinIDs or searches each finding one person; everyone when none");
exportCommand->add_option("-o,--output", exported->output, "The file to write; standard output when none");
exportCommand->callback([&options, exported] {
    PeopleSession session(options);
    session.load();
    std::vector<std::string> cardIDs;
    std::set<std::string> seen;
    const auto add = [&](const Person& person) {
        if (person.memberIDs.empty()) {
            if (seen.insert(person.id).second) {
                cardIDs.push_back(person.id);
            }
            return;
        }
        for (const auto id : person.memberIDs) {
            if (seen.insert(std::string(id)).second) {
                cardIDs.emplace_back(id);
            }
        }
    };
    if (exported->people.empty()) {
        for (const auto& person : session.kit().list()->people()) {
            add(*person);
        }
    } else {
        for (const auto& argument : exported->people) {
            add(session.resolve(argument));
        }
    }
    auto text = session.kit().addressBook()->exportVCards(cardIDs);
    if (!text.ok()) {
        fail(text.error().description());
    }
    if (exported->output.empty() || exported->output == "-") {
        std::fwrite(text->data(), 1, text->size(), stdout);
    } else {
        const fs::path file = exported->output;
        const fs::path folder = file.parent_path().empty() ? fs::path(".") : file.parent_path();
        if (!fs::is_directory(folder) || !writeFileAtomically(file, text.value(), 0600)) {
            fail(fmt::format("can't write {}: {}", file.string(), std::strerror(errno)));
        }
        fmt::print("Wrote {} cards to {}\n", cardIDs.size(), file.string());
    }
    session.finish();
});
} // namespace kinbook::cli

} // namespace kinbook::cli
