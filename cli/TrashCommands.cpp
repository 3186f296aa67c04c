#include "cli/TrashCommands.h"

#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/records/Iso8601.h"
#include "cli/Failure.h"
#include "cli/PeopleSession.h"
#include "cli/Terminal.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace kinbook::cli {
namespace {

using nlohmann::json;

PeopleTrash& trashOf(PeopleSession& session) {
    PeopleTrash& trash = session.kit().list()->trash();
    if (!trash.trash()) {
        fail(fmt::format("there is no sidecar folder to keep the Trash in, so nothing can be deleted: set "
                         "\"sidecar\" in {} to a folder whose parent exists",
                         session.configuration().configFile.string()));
    }
    // The entries are read when the Trash is set up; wait for them.
    bool read = false;
    trash.reloadItems([&read] { read = true; });
    session.waitUntil([&read] { return read; });
    return trash;
}

// The entry an argument names: its file name, else the one entry whose
// name holds the argument.
TrashItem findItem(const PeopleTrash& trash, const std::string& argument) {
    std::vector<const TrashItem*> found;
    for (const auto& item : trash.items()) {
        if (item.id == argument) {
            return item;
        }
        if (item.id.find(argument) != std::string::npos) {
            found.push_back(&item);
        }
    }
    if (found.size() == 1) {
        return *found.front();
    }
    if (found.empty()) {
        fail(fmt::format("nothing in the Trash is called \"{}\" (see kinbook trash)", argument));
    }
    std::string names;
    for (const auto* item : found) {
        names += "\n  " + item->id;
    }
    fail(fmt::format("\"{}\" names {} entries of the Trash; say which:{}", argument, found.size(), names));
}

std::string joined(const std::vector<std::string>& texts) {
    std::string out;
    for (const auto& text : texts) {
        out += (out.empty() ? "" : ", ") + text;
    }
    return out;
}

void printItems(const std::vector<TrashItem>& items, bool asJson) {
    if (asJson) {
        json list = json::array();
        for (const auto& item : items) {
            list.push_back({{"id", item.id},
                            {"name", item.name},
                            {"deletedAt", formatIso8601(item.deletedAt)},
                            {"accounts", item.accounts}});
        }
        fmt::print("{}\n", list.dump(2, ' ', false, json::error_handler_t::replace));
        return;
    }
    if (items.empty()) {
        fmt::print("Trash Is Empty\n");
        return;
    }
    fmt::print("{} in Trash\n", items.size());
    for (const auto& item : items) {
        fmt::print("{}\t{}\t{}\n", terminalText(item.id), terminalText(item.name),
                   terminalText(joined(item.accounts)));
    }
}

} // namespace

void addTrashCommands(CLI::App& app, const ToolOptions& options) {
    auto people = std::make_shared<std::vector<std::string>>();
    auto* remove =
        app.add_subcommand("delete", "Move people to the Trash (kinbook restore brings them back)");
    remove->add_option("PERSON", *people, "Card ids, KinIDs or searches each finding one person")->required();
    remove->callback([&options, people] {
        PeopleSession session(options);
        session.load();
        PeopleTrash& trash = trashOf(session);
        std::vector<std::string> ids;
        for (const auto& argument : *people) {
            ids.push_back(session.resolve(argument).id);
        }
        std::optional<TrashOutcome> outcome;
        trash.trashPeople(ids, [&outcome](TrashOutcome done) { outcome = done; });
        session.waitUntil([&outcome] { return outcome.has_value(); });
        fmt::print("{} moved to the Trash\n", outcome->trashed);
        if (outcome->failed > 0) {
            fail(fmt::format("{} could not be moved to the Trash (the log says why)", outcome->failed));
        }
        session.finish();
    });

    auto itemArgument = std::make_shared<std::string>();
    auto* restore = app.add_subcommand("restore", "Bring a person back from the Trash");
    restore->add_option("ITEM", *itemArgument, "A Trash entry's file name, or a part of it naming one")
        ->required();
    restore->callback([&options, itemArgument] {
        PeopleSession session(options);
        session.load();
        PeopleTrash& trash = trashOf(session);
        const TrashItem item = findItem(trash, *itemArgument);
        std::optional<Result<RestoreOutcome, ActionError>> outcome;
        trash.restore(item.id, [&outcome](auto done) { outcome.emplace(std::move(done)); });
        session.waitUntil([&outcome] { return outcome.has_value(); });
        if (!outcome->ok()) {
            fail(outcome->error().description());
        }
        for (const auto& account : outcome->value().movedToDefault) {
            warn(fmt::format("the account \"{}\" is gone: its card went to the default account", account));
        }
        fmt::print("{} is back\n", terminalText(item.name));
        session.finish();
    });

    struct TrashFlags {
        std::string remove;
        bool empty = false;
        bool yes = false;
    };
    auto flags = std::make_shared<TrashFlags>();
    auto* list = app.add_subcommand("trash", "The people in the Trash, newest first");
    auto* deleteOption = list->add_option("--delete", flags->remove, "Delete one entry for good");
    list->add_flag("--empty", flags->empty, "Delete every entry for good")->excludes(deleteOption);
    list->add_flag("--yes", flags->yes, "Empty without asking");
    list->callback([&options, flags] {
        PeopleSession session(options);
        PeopleTrash& trash = trashOf(session);
        if (!flags->remove.empty()) {
            const TrashItem item = findItem(trash, flags->remove);
            std::optional<Result<void, std::string>> removed;
            trash.remove(item.id, [&removed](auto done) { removed.emplace(std::move(done)); });
            session.waitUntil([&removed] { return removed.has_value(); });
            if (!removed->ok()) {
                fail(removed->error());
            }
            fmt::print("deleted {} for good\n", terminalText(item.id));
        } else if (flags->empty) {
            const std::size_t count = trash.items().size();
            if (!flags->yes) {
                if (::isatty(STDIN_FILENO) == 0) {
                    fail("emptying the Trash can't be undone: add --yes to empty it without being asked");
                }
                fmt::print("Empty the Trash? {} contacts will be gone for good. [y/N] ", count);
                std::fflush(stdout);
                std::string answer;
                std::getline(std::cin, answer);
                if (answer != "y" && answer != "Y" && answer != "yes") {
                    fmt::print("The Trash is as it was.\n");
                    session.finish();
                    return;
                }
            }
            std::optional<Result<std::size_t, std::string>> emptied;
            trash.emptyTrash([&emptied](auto done) { emptied.emplace(std::move(done)); });
            session.waitUntil([&emptied] { return emptied.has_value(); });
            if (!emptied->ok()) {
                fail(emptied->error());
            }
            fmt::print("deleted {} for good\n", emptied->value());
        } else {
            printItems(trash.items(), options.json);
        }
        session.finish();
    });
}

} // namespace kinbook::cli
