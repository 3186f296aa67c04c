#include "cli/PeopleCommands.h"

#include "KinbookKit/people/SearchQuery.h"
#include "KinbookKit/people/SortOrder.h"
#include "KinbookKit/text/Fold.h"
#include "cli/Failure.h"
#include "cli/JsonWriter.h"
#include "cli/PeopleOutput.h"
#include "cli/PeopleSession.h"
#include "cli/Terminal.h"

#include <fmt/core.h>
#include <fmt/ranges.h>

#include <cctype>
#include <memory>
#include <string>
#include <vector>

namespace kinbook::cli {

namespace {

// A circle named on the command line: its raw value (1 closest … 6
// acquaintance, as the card's anchor stores it), its title ("Good Friends",
// any case) or its name in code ("goodFriends").
std::optional<ContactCircle> circleFromArgument(const std::string& text) {
    if (text.size() == 1 && text[0] >= '1' && text[0] <= '6') {
        return circleFromRawValue(text[0] - '0');
    }
    static constexpr std::string_view kCaseNames[] = {"closest",    "goodFriends", "friends",
                                                      "meaningful", "known",       "acquaintance"};
    const std::string folded = fold(text);
    for (const ContactCircle circle : allCircles()) {
        if (folded == fold(circleTitle(circle)) ||
            text == kCaseNames[static_cast<std::size_t>(rawValue(circle) - 1)]) {
            return circle;
        }
    }
    return std::nullopt;
}

std::string circleChoices() {
    std::vector<std::string> choices;
    for (const ContactCircle circle : allCircles()) {
        choices.push_back(fmt::format("{} {}", rawValue(circle), circleTitle(circle)));
    }
    return fmt::format("{}", fmt::join(choices, ", "));
}

std::string sortChoices() {
    std::vector<std::string_view> choices;
    for (const SortOrder order : allSortOrders()) {
        choices.push_back(rawValue(order));
    }
    return fmt::format("{}", fmt::join(choices, ", "));
}

// A sort order as people type it: its name in any case ("lastName",
// "LASTNAME"), with a blank, hyphen or underscore between the words
// ("last-name", "last_name"), or the sort menu's title ("Zip Code",
// "Most Complete", "Picture").
std::optional<SortOrder> sortOrderFromArgument(std::string_view text) {
    const auto squeezed = [](std::string_view words) {
        std::string out;
        for (const char c : words) {
            if (c != '-' && c != '_' && c != ' ') {
                out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            }
        }
        return out;
    };
    const std::string wanted = squeezed(text);
    for (const SortOrder order : allSortOrders()) {
        if (wanted == squeezed(rawValue(order)) || wanted == squeezed(sortOrderTitle(order))) {
            return order;
        }
    }
    return std::nullopt;
}

std::string joined(const std::vector<std::string>& words) {
    return fmt::format("{}", fmt::join(words, " "));
}

void print(const std::string& text) {
    fmt::print("{}", text);
}

// What list and search share: the view's options as the command line gives them.
struct ViewArguments {
    std::string sort = "lastName";
    bool descending = false;
    std::optional<std::string> account;
    std::optional<std::string> circle;
    bool hidden = false;
};

void addViewOptions(CLI::App* command, ViewArguments& view) {
    command->add_option("--sort", view.sort, fmt::format("Sort order: {}", sortChoices()))
        ->type_name("ORDER")
        ->capture_default_str()
        ->check([](const std::string& value) -> std::string {
            return sortOrderFromArgument(value)
                       ? std::string()
                       : fmt::format("unknown sort order \"{}\" (one of {})", value, sortChoices());
        });
    command->add_flag("--desc", view.descending, "Reverse the order");
    command
        ->add_option_function<std::string>(
            "--account", [&view](const std::string& value) { view.account = value; },
            "Only the people with a card in this account (its id or name)")
        ->type_name("ACCOUNT");
    command
        ->add_option_function<std::string>(
            "--circle", [&view](const std::string& value) { view.circle = value; },
            fmt::format("Only the people in this circle: {}", circleChoices()))
        ->type_name("N")
        ->check([](const std::string& value) -> std::string {
            return circleFromArgument(value)
                       ? std::string()
                       : fmt::format("unknown circle \"{}\" (one of {})", value, circleChoices());
        });
    command->add_flag("--hidden", view.hidden,
                      "List the hidden people instead, as the list's Hidden view does");
}

ListView viewFrom(PeopleSession& session, const ViewArguments& arguments, std::string searchText) {
    ListView view;
    view.order = *sortOrderFromArgument(arguments.sort);
    view.descending = arguments.descending;
    if (arguments.account) {
        view.accountID = accountNamed(session.accounts(), *arguments.account).id;
    }
    if (arguments.circle) {
        view.circle = circleFromArgument(*arguments.circle);
    }
    view.showingHidden = arguments.hidden;
    view.searchText = std::move(searchText);
    return view;
}

void printSections(const ToolOptions& options, const PeopleSession::Shown& shown, bool hidden) {
    if (options.json) {
        writeSectionsJson(stdout, shown.sections, shown.matchCount);
    } else {
        print(sectionsText(shown.sections, shown.matchCount, hidden ? "hidden" : "people",
                           Terminal::ofStandardOutput()));
    }
}

void runCompletion(const ToolOptions& options, const std::string& query, CompletionKind kind, bool parsable) {
    PeopleSession session(options);
    session.load();
    ListView view;
    view.searchText = query;
    const auto shown = session.show(view);
    std::vector<const Person*> matched;
    for (const auto& section : shown.sections) {
        matched.insert(matched.end(), section.people.begin(), section.people.end());
    }
    // The labels, and which entries are former, are on the cards.
    const auto cards = session.cards(matched);
    std::vector<Completion> lines;
    int people = 0;
    for (std::size_t i = 0; i < matched.size(); ++i) {
        auto found = completions(*matched[i], cards[i], kind);
        people += found.empty() ? 0 : 1;
        lines.insert(lines.end(), found.begin(), found.end());
    }
    if (options.json) {
        print(jsonText(completionJson(lines)));
        session.finish();
        return;
    }
    // The first line is the message the mail client shows.
    const bool email = kind == CompletionKind::email;
    std::string status;
    if (lines.empty()) {
        status = fmt::format("No {} found for \"{}\"", email ? "e-mail address" : "phone number", query);
    } else {
        const bool one = lines.size() == 1;
        status = fmt::format("{} {} of {} {} for \"{}\"", lines.size(),
                             email ? (one ? "e-mail address" : "e-mail addresses")
                                   : (one ? "phone number" : "phone numbers"),
                             people, people == 1 ? "person" : "people", query);
    }
    // Clients that take every line for an address (aerc) are given no status line.
    print(parsable ? completionLines(lines) : completionText(lines, status));
    session.finish();
}

} // namespace

void addPeopleCommands(CLI::App& app, const ToolOptions& options) {
    // Each command's arguments live as long as the app; the parse fills them
    // in before the chosen command's callback runs.
    auto listView = std::make_shared<ViewArguments>();
    auto* list = app.add_subcommand("list", "List the people, section by section, as the window shows them");
    addViewOptions(list, *listView);
    list->callback([&options, listView] {
        PeopleSession session(options);
        session.load();
        printSections(options, session.show(viewFrom(session, *listView, "")), listView->hidden);
        session.finish();
    });

    auto searchView = std::make_shared<ViewArguments>();
    auto searchWords = std::make_shared<std::vector<std::string>>();
    auto* search = app.add_subcommand(
        "search",
        "The people matching a search, as the list's search field finds them (names, e-mail, places, "
        "phone digits, past jobs)");
    search->add_option("QUERY", *searchWords, "What to search for; several words must all match")->required();
    addViewOptions(search, *searchView);
    search->callback([&options, searchView, searchWords] {
        PeopleSession session(options);
        session.load();
        printSections(options, session.show(viewFrom(session, *searchView, joined(*searchWords))),
                      searchView->hidden);
        session.finish();
    });

    auto personArgument = std::make_shared<std::string>();
    auto* show =
        app.add_subcommand("show", "The whole person: every card, former entries last, links, circle, "
                                   "accounts");
    show->add_option("ID", *personArgument,
                     "The person's id (any card's), KinID, or a search that finds only them")
        ->required();
    show->callback([&options, personArgument] {
        PeopleSession session(options);
        session.load();
        const Person person = session.resolve(*personArgument);
        const auto cards = session.cards(person);
        if (options.json) {
            print(jsonText(personJson(person, cards)));
        } else {
            print(personText(person, cards, accountNames(session.accounts())));
        }
        session.finish();
    });

    auto* accounts =
        app.add_subcommand("accounts", "The accounts of the address book and how many people each holds");
    accounts->callback([&options] {
        PeopleSession session(options);
        session.load();
        const auto all = session.accounts();
        const auto counts = session.accountCounts();
        print(options.json ? jsonText(accountsJson(all, counts)) : accountsText(all, counts));
        session.finish();
    });

    auto circleArgument = std::make_shared<std::optional<std::string>>();
    auto* circle = app.add_subcommand("circle", "Show a person's circle, or place them in one (or none)");
    circle->add_option("ID", *personArgument, "The person")->required();
    circle
        ->add_option_function<std::string>(
            "CIRCLE", [circleArgument](const std::string& value) { *circleArgument = value; },
            fmt::format("The circle: {}; or none", circleChoices()))
        ->check([](const std::string& value) -> std::string {
            return value == "none" || circleFromArgument(value)
                       ? std::string()
                       : fmt::format("unknown circle \"{}\" (one of {}, or none)", value, circleChoices());
        });
    circle->callback([&options, personArgument, circleArgument] {
        PeopleSession session(options);
        session.load();
        Person person = session.resolve(*personArgument);
        if (*circleArgument) {
            const auto target =
                **circleArgument == "none" ? std::nullopt : circleFromArgument(**circleArgument);
            session.setCircle(person, target);
            person = session.resolve(person.id);
        }
        if (options.json) {
            print(jsonText(
                {{"id", person.id},
                 {"circle", person.circle ? nlohmann::json(rawValue(*person.circle)) : nlohmann::json()}}));
        } else if (person.circle) {
            print(fmt::format("{}: {} ({})\n", terminalText(person.displayName()),
                              circleTitle(*person.circle), circleBadge(*person.circle)));
        } else {
            print(fmt::format("{}: no circle\n", terminalText(person.displayName())));
        }
    });

    auto entryArgument = std::make_shared<std::string>();
    for (const bool former : {true, false}) {
        auto* command =
            app.add_subcommand(former ? "former" : "current",
                               former ? "Mark a phone, e-mail or address as former: its label gains \"ex-\" "
                                        "and it stays in the card"
                                      : "Mark a former phone, e-mail or address as current again");
        command->add_option("ID", *personArgument, "The person")->required();
        command->add_option("ENTRY", *entryArgument, "The entry's id or its value")->required();
        command->callback([&options, personArgument, entryArgument, former] {
            PeopleSession session(options);
            session.load();
            const Person person = session.resolve(*personArgument);
            session.setFormer(person, *entryArgument, former);
            if (options.json) {
                print(jsonText(personJson(person, session.cards(person))));
            } else {
                print(personText(person, session.cards(person), accountNames(session.accounts())));
            }
        });
    }

    for (const bool hide : {true, false}) {
        auto* command = app.add_subcommand(hide ? "hide" : "unhide",
                                           hide ? "Hide a person: kept in the accounts, so calls and mail "
                                                  "are still recognised, but left out of "
                                                  "the list"
                                                : "Bring a hidden person back into the list");
        command->add_option("ID", *personArgument, "The person")->required();
        command->callback([&options, personArgument, hide] {
            PeopleSession session(options);
            session.load();
            const Person person = session.resolve(*personArgument);
            session.setHidden(person, hide);
            if (options.json) {
                print(jsonText({{"id", person.id}, {"hidden", hide}}));
            } else {
                print(fmt::format("{}: {}\n", person.displayName(), hide ? "hidden" : "shown in the list"));
            }
        });
    }

    auto completionWords = std::make_shared<std::vector<std::string>>();
    auto parsable = std::make_shared<bool>(false);
    for (const CompletionKind kind : {CompletionKind::email, CompletionKind::phone}) {
        const bool email = kind == CompletionKind::email;
        auto* command = app.add_subcommand(email ? "email" : "phone",
                                           email ? "E-mail addresses for a mail client's address completion "
                                                   "(mutt's query_command): a status line, "
                                                   "then address<TAB>name<TAB>label"
                                                 : "Phone numbers in the same completion format: a status "
                                                   "line, then number<TAB>name<TAB>label");
        command->add_option("QUERY", *completionWords, "What to search for, as with search")->required();
        command->add_flag("--parsable", *parsable,
                          "Leave out the status line, for clients that read every line as an entry (aerc)");
        command->callback([&options, completionWords, parsable, kind] {
            runCompletion(options, joined(*completionWords), kind, *parsable);
        });
    }
}

} // namespace kinbook::cli
