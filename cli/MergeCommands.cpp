#include "cli/MergeCommands.h"

#include "KinbookKit/people/NotDuplicates.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/people/PeopleMerge.h"
#include "cli/Failure.h"
#include "cli/PeopleSession.h"
#include "cli/Terminal.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kinbook::cli {
namespace {

using nlohmann::json;

void printJson(const json& document) {
    fmt::print("{}\n", document.dump(2, ' ', false, json::error_handler_t::replace));
}

// Where the "Not Duplicates" answers are kept; none without a sidecar folder.
std::optional<std::filesystem::path> answersFile(PeopleSession& session) {
    return session.kit().notDuplicatesFile();
}

NotDuplicates readAnswers(PeopleSession& session) {
    const auto file = answersFile(session);
    return file ? NotDuplicates::read(*file, KinLog("sidecar")) : NotDuplicates();
}

std::vector<DuplicateGroup> groupsOf(PeopleSession& session, bool strongOnly) {
    auto groups = readAnswers(session).unanswered(session.kit().list()->duplicateGroups());
    if (strongOnly) {
        std::erase_if(groups, [](const DuplicateGroup& group) { return !group.isStrong(); });
    }
    return groups;
}

// The non-empty texts, between separators.
std::string joined(const std::vector<std::string>& texts, std::string_view separator) {
    std::string text;
    for (const auto& item : texts) {
        if (!item.empty()) {
            text += (text.empty() ? "" : std::string(separator)) + item;
        }
    }
    return text;
}

json fieldsJson(const std::vector<ContactDraft::Field>& fields) {
    json list = json::array();
    for (const auto& field : fields) {
        list.push_back({{"label", ContactDraft::labelDisplay(field.label)}, {"value", field.value}});
    }
    return list;
}

json resultJson(const ContactDraft& result, const std::string& note) {
    json addresses = json::array();
    for (const auto& address : result.addresses) {
        addresses.push_back({{"label", ContactDraft::labelDisplay(address.label)},
                             {"street", address.street},
                             {"city", address.city},
                             {"state", address.state},
                             {"postalCode", address.postalCode},
                             {"country", address.country}});
    }
    return {{"namePrefix", result.namePrefix},
            {"givenName", result.givenName},
            {"middleName", result.middleName},
            {"familyName", result.familyName},
            {"nameSuffix", result.nameSuffix},
            {"nickname", result.nickname},
            {"organization", result.organization},
            {"jobTitle", result.jobTitle},
            {"department", result.department},
            {"phones", fieldsJson(result.phones)},
            {"emails", fieldsJson(result.emails)},
            {"addresses", addresses},
            {"note", note}};
}

json cardsJson(const std::vector<Duplicates::MergeCard>& cards) {
    json list = json::array();
    for (const auto& card : cards) {
        list.push_back({{"id", card.id}, {"accounts", card.accountIDs}});
    }
    return list;
}

std::string cardsText(const std::vector<Duplicates::MergeCard>& cards) {
    std::vector<std::string> texts;
    for (const auto& card : cards) {
        texts.push_back(
            fmt::format("{} ({})", terminalText(card.id), terminalText(joined(card.accountIDs, ", "))));
    }
    return texts.empty() ? "none" : joined(texts, ", ");
}

void printPlan(const Duplicates::MergePlan& plan, const ContactDraft& result, const std::string& note) {
    fmt::print("keeps: {}\nremoves: {}\n", cardsText(plan.kept), cardsText(plan.removed));
    const auto name = joined(
        {result.namePrefix, result.givenName, result.middleName, result.familyName, result.nameSuffix}, " ");
    fmt::print("name: {}\n", terminalText(name));
    for (const auto& [title, value] : {std::pair{"nickname", &result.nickname},
                                       {"company", &result.organization},
                                       {"job title", &result.jobTitle},
                                       {"department", &result.department}}) {
        if (!value->empty()) {
            fmt::print("{}: {}\n", title, terminalText(*value));
        }
    }
    for (const auto& phone : result.phones) {
        fmt::print("phone: {} ({})\n", terminalText(phone.value),
                   terminalText(ContactDraft::labelDisplay(phone.label)));
    }
    for (const auto& email : result.emails) {
        fmt::print("email: {} ({})\n", terminalText(email.value),
                   terminalText(ContactDraft::labelDisplay(email.label)));
    }
    for (const auto& address : result.addresses) {
        fmt::print("address: {}\n", terminalText(joined({address.street, address.city, address.state,
                                                         address.postalCode, address.country},
                                                        ", ")));
    }
    if (!note.empty()) {
        fmt::print("note: {}\n", terminalText(note, TextLines::several));
    }
}

} // namespace

void addMergeCommands(CLI::App& app, const ToolOptions& options) {
    auto strong = std::make_shared<bool>(false);
    auto* duplicates = app.add_subcommand(
        "duplicates", "People who look like the same human (same name, phone or email), strongest first");
    duplicates->add_flag("--strong", *strong, "Phone or email matches only");
    duplicates->callback([&options, strong] {
        PeopleSession session(options);
        session.load();
        const auto groups = groupsOf(session, *strong);
        if (options.json) {
            json list = json::array();
            for (const auto& group : groups) {
                json people = json::array();
                for (const auto& person : group.people) {
                    people.push_back(person.toJSON());
                }
                list.push_back({{"id", group.id()},
                                {"reasons", group.reasons},
                                {"isStrong", group.isStrong()},
                                {"people", people}});
            }
            printJson(list);
        } else {
            for (const auto& group : groups) {
                std::vector<std::string> names;
                for (const auto& person : group.people) {
                    names.push_back(fmt::format("{} ({})", person.displayName(), person.id));
                }
                fmt::print("{}: {}\n", terminalText(joined(group.reasons, ", ")),
                           terminalText(joined(names, ", ")));
            }
        }
        session.finish();
    });

    auto ids = std::make_shared<std::vector<std::string>>();
    auto primaryArgument = std::make_shared<std::string>();
    auto dryRun = std::make_shared<bool>(false);
    auto* merge = app.add_subcommand("merge", "Merge people into one; every card stays in its account, an "
                                              "account holding two of them keeps one");
    merge->add_option("ID", *ids, "The people (ids, KinIDs or searches finding one person each)")
        ->required()
        ->expected(2, 1 << 20);
    merge->add_option("--primary", *primaryArgument,
                      "The card whose name and photo lead (default: the first person's)");
    merge->add_flag("--dry-run", *dryRun, "Print the cards kept and removed and the result; change nothing");
    merge->callback([&options, ids, primaryArgument, dryRun] {
        PeopleSession session(options);
        session.load();
        std::vector<std::string> selected;
        for (const auto& argument : *ids) {
            selected.push_back(session.resolve(argument).id);
        }
        std::string primary = selected.front();
        if (!primaryArgument->empty()) {
            // A card id is taken as it is; anything else names its person's first card.
            auto& list = *session.kit().list();
            const auto found = list.person(*primaryArgument);
            primary = found ? *primaryArgument : session.resolve(*primaryArgument).id;
        }
        auto& list = *session.kit().list();
        const auto cards = list.mergeOrder(primary, selected);
        if (cards.size() < 2) {
            fail("there is nothing to merge: give two or more people with at least two cards between them");
        }
        auto& book = *session.kit().addressBook();
        std::vector<ContactDraft> drafts;
        std::vector<std::string> cardIDs;
        for (const auto& card : cards) {
            auto draft = book.draft(card.id);
            if (!draft) {
                fail(draft.error().description());
            }
            drafts.push_back(std::move(draft).value());
            cardIDs.push_back(card.id);
        }
        MergeChoices choices;
        choices.result = Duplicates::mergePrefill(drafts);
        const auto notes = KinbookSession::noteReader(session.kit().addressBook())(cardIDs);
        for (std::size_t i = 0; i < cardIDs.size() && i < notes.size(); ++i) {
            choices.cardNotes[cardIDs[i]] = notes[i];
        }
        choices.note = Duplicates::combineNotes(notes);
        const auto plan = Duplicates::mergePlan(cards);
        if (*dryRun) {
            if (options.json) {
                printJson({{"kept", cardsJson(plan.kept)},
                           {"removed", cardsJson(plan.removed)},
                           {"result", resultJson(choices.result, choices.note)}});
            } else {
                printPlan(plan, choices.result, choices.note);
            }
            session.finish();
            return;
        }
        choices.keepPhotos = session.kit().mergePhotoKeeper();
        const auto merged = runMerge(book, cards, choices, KinLog("list"));
        if (!merged) {
            fail(merged.error().description());
        }
        if (options.json) {
            printJson({{"id", merged->id},
                       {"kinID", merged->kinID},
                       {"absorbed", merged->absorbed},
                       {"kept", merged->kept},
                       {"removed", merged->removed}});
        } else {
            fmt::print("merged {} cards into {}, kept {}\n", cards.size(), terminalText(merged->id),
                       merged->kept.size());
        }
        session.finish();
    });

    auto answered = std::make_shared<std::vector<std::string>>();
    auto* notDuplicates = app.add_subcommand(
        "not-duplicates", "Say these people are not the same human: their group is not shown again until "
                          "they share something new");
    notDuplicates->add_option("ID", *answered, "The people of one group")->required()->expected(2, 1 << 20);
    notDuplicates->callback([&options, answered] {
        PeopleSession session(options);
        session.load();
        const auto file = answersFile(session);
        if (!file) {
            fail(fmt::format("there is no sidecar folder to keep the answer in: set \"sidecar\" in {}",
                             session.configuration().configFile.string()));
        }
        std::vector<std::string> wanted;
        for (const auto& argument : *answered) {
            wanted.push_back(session.resolve(argument).id);
        }
        std::sort(wanted.begin(), wanted.end());
        for (const auto& group : session.kit().list()->duplicateGroups()) {
            std::vector<std::string> members;
            for (const auto& person : group.people) {
                members.push_back(person.id);
            }
            std::sort(members.begin(), members.end());
            if (members == wanted) {
                auto answers = readAnswers(session);
                if (!answers.remember(group, *file)) {
                    fail(fmt::format("couldn't write {}", file->string()));
                }
                fmt::print("{}\n", terminalText(group.id()));
                session.finish();
                return;
            }
        }
        fail("those people are not a group of duplicates: `kinbook duplicates` lists the groups");
    });
}

} // namespace kinbook::cli
