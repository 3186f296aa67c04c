#include "cli/AccountCommands.h"

#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/text/Fold.h"
#include "cli/CommandSuggestion.h"
#include "cli/Failure.h"
#include "cli/PeopleSession.h"

#include <fmt/core.h>
#include <fmt/format.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

namespace kinbook::cli {
namespace {

template <typename T>
T wait(PeopleSession& session, const std::function<void(std::function<void(T)>)>& start) {
    std::optional<T> result;
    start([&result](T value) { result.emplace(std::move(value)); });
    session.waitUntil([&result] { return result.has_value(); });
    return std::move(*result);
}

struct AccountArguments {
    std::string person;
    std::string account;
};

struct MoveArguments {
    std::vector<std::string> people;
    std::string account;
    bool copy = false;
};

void addOrRemove(const ToolOptions& options, const AccountArguments& arguments, bool adding) {
    PeopleSession session(options);
    session.load();
    const Person person = session.resolve(arguments.person);
    const Account account = accountNamed(session.accounts(), arguments.account);
    PeopleList& list = *session.kit().list();
    if (adding) {
        const auto added = wait<Result<AddedCopy, AccountError>>(
            session, [&](auto done) { list.addToAccount(person.id, account.id, std::move(done)); });
        if (!added.ok()) {
            fail(added.error().description());
        }
        for (const auto& field : added->leftOut) {
            warn(fmt::format("{} doesn't take a {}: the copy is saved without it", account.name, field));
        }
        fmt::print("{} is now in {} too\n", person.displayName(), account.name);
    } else {
        const auto removed = wait<Result<void, AccountError>>(
            session, [&](auto done) { list.removeFromAccount(person.id, account.id, std::move(done)); });
        if (!removed.ok()) {
            fail(removed.error().description());
        }
        fmt::print("{} is no longer in {}; they stay in your other accounts\n", person.displayName(),
                   account.name);
    }
    session.finish();
}

} // namespace

void addAccountCommands(CLI::App& app, const ToolOptions& options) {
    auto* account =
        app.add_subcommand("account", "Add a person to a further account, or take them out of one");
    account->require_subcommand(1);
    for (const bool adding : {true, false}) {
        auto arguments = std::make_shared<AccountArguments>();
        auto* command = account->add_subcommand(
            adding ? "add" : "remove",
            adding ? "Save a copy of the person in another account, linked to them"
                   : "Delete the person's card in one account; they stay in the others");
        command->add_option("PERSON", arguments->person, "A card id, KinID or search finding one person")
            ->required();
        command->add_option("ACCOUNT", arguments->account, "The account's id or name")->required();
        command->callback([&options, arguments, adding] { addOrRemove(options, *arguments, adding); });
    }

    auto moveArguments = std::make_shared<MoveArguments>();
    auto* move = app.add_subcommand(
        "move", "Move people to one account; their cards elsewhere go to the Trash (kinbook restore)");
    move->add_option("PERSON", moveArguments->people, "Card ids, KinIDs or searches each finding one person")
        ->required();
    move->add_option("--to", moveArguments->account, "The account's id or name")->required();
    move->add_flag("--copy", moveArguments->copy, "Add a copy there and leave them where they are");
    move->callback([&options, moveArguments] {
        PeopleSession session(options);
        session.load();
        std::vector<std::string> ids;
        for (const auto& argument : moveArguments->people) {
            ids.push_back(session.resolve(argument).id);
        }
        const Account target = accountNamed(session.accounts(), moveArguments->account);
        PeopleList& list = *session.kit().list();
        if (!moveArguments->copy && !list.trash().trash()) {
            fail(
                fmt::format("there is no sidecar folder to keep the Trash in, so the cards a move takes away "
                            "could not be restored: set \"sidecar\" in {}, or add --copy",
                            session.configuration().configFile.string()));
        }
        // Progress for a person watching, never into a file or pipe.
        const bool showProgress = ::isatty(STDERR_FILENO) != 0;
        const auto watch = list.observe([&list, showProgress](PeopleChanges changes) {
            if (showProgress && changes.contains(PeopleChange::accounts) && list.bulkProgress()) {
                const auto& progress = *list.bulkProgress();
                fmt::print(stderr, "\r{} {}/{}", progress.label, progress.done, progress.total);
            }
        });
        const auto outcome = wait<MoveOutcome>(session, [&](auto done) {
            list.moveToAccount(ids, target.id, moveArguments->copy, std::move(done));
        });
        list.unobserve(watch);
        if (showProgress) {
            fmt::print(stderr, "\n");
        }
        for (const auto& leftOut : outcome.leftOut) {
            warn(
                fmt::format("{} doesn't take it, so the copy is saved without it: {}", target.name, leftOut));
        }
        fmt::print("{} {} {}\n", outcome.moved, moveArguments->copy ? "copied to" : "moved to", target.name);
        if (!outcome.failures.empty()) {
            for (const auto& failure : outcome.failures) {
                warn(failure);
            }
            fail(fmt::format("{} could not be {}", outcome.failures.size(),
                             moveArguments->copy ? "copied" : "moved"));
        }
        session.finish();
    });

    auto syncPerson = std::make_shared<std::string>();
    auto* sync = app.add_subcommand(
        "sync-from-primary",
        "Copy the primary card's details to the other accounts' cards (what it leaves empty stays)");
    sync->add_option("PERSON", *syncPerson, "A card id, KinID or search finding one person")->required();
    sync->callback([&options, syncPerson] {
        PeopleSession session(options);
        session.load();
        const Person person = session.resolve(*syncPerson);
        PeopleList& list = *session.kit().list();
        const auto synced = wait<Result<std::size_t, AccountError>>(
            session, [&](auto done) { list.syncFromPrimary(person.id, std::move(done)); });
        if (!synced.ok()) {
            fail(synced.error().description());
        }
        fmt::print("{} other cards of {} updated\n", synced.value(), person.displayName());
        session.finish();
    });
}

} // namespace kinbook::cli
