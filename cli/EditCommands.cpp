#include "cli/EditCommands.h"

#include "KinbookKit/addressbook/AddressBook.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/records/DraftTemplate.h"
#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/text/Fold.h"
#include "cli/Failure.h"
#include "cli/PeopleSession.h"

#include <fmt/core.h>
#include <fmt/ranges.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

extern char** environ;

namespace kinbook::cli {
namespace {

namespace fs = std::filesystem;

// The accounts, read from the store (a new card needs no list of people).
std::vector<Account> accountsOf(PeopleSession& session) {
    auto accounts = session.kit().addressBook()->accounts();
    if (!accounts.ok()) {
        fail(accounts.error().description());
    }
    return std::move(accounts.value());
}

std::string accountName(PeopleSession& session, const std::optional<std::string>& accountID) {
    for (const auto& account : accountsOf(session)) {
        if (accountID && account.id == *accountID) {
            return account.name;
        }
    }
    return accountID.value_or("the default account");
}

// The file the template is edited in: private to the user, and gone when
// the command ends unless it holds text the user would otherwise lose.
class TemplateFile {
public:
    TemplateFile() {
        std::string name = (fs::temp_directory_path() / "kinbook-XXXXXX.txt").string();
        const int fd = ::mkstemps(name.data(), 4); // mode 0600
        if (fd < 0) {
            fail(fmt::format("can't make a file to edit the contact in: {}", std::strerror(errno)));
        }
        ::close(fd);
        m_path = name;
    }
    ~TemplateFile() {
        if (!m_kept) {
            std::error_code ignored;
            fs::remove(m_path, ignored);
        }
    }
    TemplateFile(const TemplateFile&) = delete;
    TemplateFile& operator=(const TemplateFile&) = delete;

    const fs::path& path() const { return m_path; }
    void keep() { m_kept = true; }

    void write(const std::string& text) const {
        std::ofstream out(m_path, std::ios::binary | std::ios::trunc);
        out << text;
        if (!out.flush()) {
            fail(fmt::format("can't write {}: {}", m_path.string(), std::strerror(errno)));
        }
    }
    // Read by name: many editors save by writing a new file over the old.
    std::string read() const {
        std::ifstream in(m_path, std::ios::binary);
        if (!in) {
            fail(fmt::format("the edited contact in {} can't be read: {}", m_path.string(),
                             std::strerror(errno)));
        }
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

private:
    fs::path m_path;
    bool m_kept = false;
};

std::vector<std::string> editorCommand() {
    for (const char* variable : {"VISUAL", "EDITOR"}) {
        const char* value = std::getenv(variable);
        if (value == nullptr || isBlank(value, " \t")) {
            continue;
        }
        auto words = commandWords(value);
        if (!words || words->empty()) {
            fail(fmt::format("can't read the editor command in ${} (a quote is left open): {}", variable,
                             value));
        }
        return *words;
    }
    return {"vi"};
}

// Runs the editor on the file, with the terminal as it is, and waits for
// it. The file's path is the only word added to the user's command, and no
// shell runs.
void runEditor(const std::vector<std::string>& command, const fs::path& file) {
    std::vector<std::string> words = command;
    words.push_back(file.string());
    std::vector<char*> argv;
    for (auto& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (const int error = ::posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ); error != 0) {
        fail(fmt::format("can't start the editor \"{}\": {} (set $VISUAL or $EDITOR)", command.front(),
                         std::strerror(error)));
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            fail(fmt::format("lost the editor \"{}\": {}", command.front(), std::strerror(errno)));
        }
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fail(fmt::format("the editor \"{}\" did not end well ({}), so nothing was saved", command.front(),
                         WIFEXITED(status) ? fmt::format("status {}", WEXITSTATUS(status)) : "a signal"));
    }
}

// The mark of the lines that tell the user what was wrong; they are taken
// off again before the text is read.
constexpr std::string_view kMistakeMark = "# kinbook: ";

std::string withoutMistakeLines(std::string_view text) {
    while (text.starts_with(kMistakeMark)) {
        const auto end = text.find('\n');
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    }
    return std::string(text);
}

bool holdsNothing(std::string_view text) {
    std::istringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line);) {
        const auto trimmed = trimAsciiSpace(line);
        if (!trimmed.empty() && trimmed.front() != '#') {
            return false;
        }
    }
    return true;
}

struct Edited {
    ContactDraft draft;
    std::string text;
};

// The user's edit of the draft, read back; none when they gave up (emptied
// the file, or left it as it was). A mistake opens the editor again on the
// same text, with what is wrong written above it.
std::optional<Edited> editInEditor(const ContactDraft& original, const std::string& heading) {
    const auto command = editorCommand();
    TemplateFile file;
    std::string offered = DraftTemplate::render(original, heading);
    bool mistaken = false;
    for (;;) {
        file.write(offered);
        runEditor(command, file.path());
        const std::string edited = file.read();
        if (holdsNothing(edited)) {
            fmt::print("The file was emptied: nothing saved.\n");
            return std::nullopt;
        }
        if (edited == offered) {
            fmt::print("{}", mistaken ? "The mistake is still there: nothing saved.\n"
                                      : "No changes: nothing saved.\n");
            return std::nullopt;
        }
        const std::string text = withoutMistakeLines(edited);
        auto parsed = DraftTemplate::parse(text, original);
        if (parsed.ok()) {
            return Edited{std::move(parsed.value()), text};
        }
        // Two lines go above the text, so the line named moves down by two.
        const auto& mistake = parsed.error();
        offered =
            fmt::format("{}line {}: {}\n{}fix it and save, or close the editor without saving to give up\n{}",
                        kMistakeMark, mistake.line + 2, mistake.message, kMistakeMark, text);
        mistaken = true;
    }
}

// Saves a draft through the address book: entry by entry onto the card as
// it is now, or as a new card; a card with a note through the Contacts
// application. Returns the card's id.
std::string saveDraft(PeopleSession& session, const ContactDraft& draft) {
    auto& book = *session.kit().addressBook();
    auto saved = book.save(draft);
    if (!saved.ok()) {
        fail(saved.error().description());
    }
    if (saved->kind != SaveOutcome::Kind::saved) {
        if (auto written = book.writeThroughContactsApp(saved.value()); !written.ok()) {
            fail(written.error().description());
        }
    }
    return saved->id;
}

// "FIELD=VALUE" applied onto the draft.
void applySettings(ContactDraft& draft, const std::vector<std::string>& settings) {
    for (const auto& setting : settings) {
        const auto equals = setting.find('=');
        if (equals == std::string::npos) {
            fail(fmt::format("--set \"{}\" has no value: write FIELD=VALUE, as in --set nickname=Annie",
                             setting));
        }
        const std::string field = setting.substr(0, equals);
        if (auto set = DraftTemplate::set(draft, field, std::string_view(setting).substr(equals + 1));
            !set.ok()) {
            fail(fmt::format("--set {}: {}", field, set.error()));
        }
    }
}

std::string draftName(const ContactDraft& draft) {
    std::string name = draft.givenName;
    if (!draft.familyName.empty()) {
        name += (name.empty() ? "" : " ") + draft.familyName;
    }
    return name.empty() ? draft.organization : name;
}

constexpr std::string_view kSetHelp =
    "FIELD=VALUE: change a field without an editor. A text (given, family, company, title, …) or the "
    "birthday "
    "(1987-03-14, --03-14) is replaced, an empty value clears it; phone, email, url, address, date and link "
    "add an "
    "entry, with a label after the field (\"phone mobile=+1 555 0100\", \"link instagram=ann\"). An address "
    "may "
    "be pasted whole (\"address home=12 Main St, Springfield, IL 62701\") or given in parts "
    "(street | city | state | postal code | country). Fields: ";

struct EditArguments {
    std::string person;
    std::string card;
    std::string account;
    std::vector<std::string> settings;
};

} // namespace

std::optional<std::vector<std::string>> commandWords(std::string_view command) {
    std::vector<std::string> words;
    std::string word;
    bool inWord = false;
    for (std::size_t i = 0; i < command.size(); ++i) {
        const char c = command[i];
        if (c == '\'') {
            const auto close = command.find('\'', i + 1);
            if (close == std::string_view::npos) {
                return std::nullopt;
            }
            word += command.substr(i + 1, close - i - 1);
            inWord = true;
            i = close;
        } else if (c == '"') {
            std::size_t j = i + 1;
            for (; j < command.size() && command[j] != '"'; ++j) {
                if (command[j] == '\\' && j + 1 < command.size() &&
                    (command[j + 1] == '"' || command[j + 1] == '\\')) {
                    ++j;
                }
                word += command[j];
            }
            if (j == command.size()) {
                return std::nullopt;
            }
            inWord = true;
            i = j;
        } else if (c == '\\' && i + 1 < command.size()) {
            word += command[++i];
            inWord = true;
        } else if (isAsciiSpace(c)) {
            if (inWord) {
                words.push_back(std::move(word));
                word.clear();
            }
            inWord = false;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (inWord) {
        words.push_back(std::move(word));
    }
    return words;
}

void addEditCommands(CLI::App& app, const ToolOptions& options) {
    const std::string setHelp = std::string(kSetHelp) + DraftTemplate::fieldNames();

    auto made = std::make_shared<EditArguments>();
    auto* create = app.add_subcommand(
        "new", "Add a contact, written in $VISUAL or $EDITOR (vi when neither is set), or given by --set");
    create->add_option("--account", made->account,
                       "The account (its id or name) to add it to; the default one when none");
    create->add_option("--set", made->settings, setHelp)->type_name("FIELD=VALUE");
    create->callback([&options, made] {
        PeopleSession session(options);
        std::optional<std::string> accountID;
        if (!made->account.empty()) {
            accountID = accountNamed(accountsOf(session), made->account).id;
        }
        const ContactDraft original = ContactDraft::empty(std::nullopt, accountID);
        ContactDraft draft = original;
        if (!made->settings.empty()) {
            applySettings(draft, made->settings);
        } else {
            const auto edited = editInEditor(
                original,
                fmt::format("A new contact in {}",
                            accountName(session, accountID
                                                     ? accountID
                                                     : session.kit().addressBook()->defaultAccountID())));
            if (!edited) {
                session.finish();
                return;
            }
            draft = edited->draft;
        }
        if (draft.isEmpty()) {
            fmt::print("The contact is empty: nothing saved.\n");
            session.finish();
            return;
        }
        const std::string id = saveDraft(session, draft);
        fmt::print("Added {} ({})\n", draftName(draft), id);
        session.finish();
    });

    auto changed = std::make_shared<EditArguments>();
    auto* edit = app.add_subcommand(
        "edit", "Change a contact's card in $VISUAL or $EDITOR (vi when neither is set), or by --set");
    edit->add_option("PERSON", changed->person, "A card id, KinID or a search finding one person")
        ->required();
    edit->add_option("--card", changed->card,
                     "Which of the person's cards (its id); the primary card when none");
    edit->add_option("--set", changed->settings, setHelp)->type_name("FIELD=VALUE");
    edit->callback([&options, changed] {
        PeopleSession session(options);
        session.load();
        const Person person = session.resolve(changed->person);
        std::vector<std::string> cardIDs(person.memberIDs.begin(), person.memberIDs.end());
        if (cardIDs.empty()) {
            cardIDs.push_back(person.id);
        }
        std::string cardID = cardIDs.front();
        if (!changed->card.empty()) {
            if (std::find(cardIDs.begin(), cardIDs.end(), changed->card) == cardIDs.end()) {
                fail(fmt::format("{} has no card \"{}\"; the cards are {}", person.displayName(),
                                 changed->card, fmt::join(cardIDs, ", ")));
            }
            cardID = changed->card;
        }
        auto& book = *session.kit().addressBook();
        auto read = book.draft(cardID);
        if (!read.ok()) {
            fail(read.error().description());
        }
        const ContactDraft original = std::move(read.value());
        const std::string name(person.displayName());
        ContactDraft draft = original;
        if (!changed->settings.empty()) {
            applySettings(draft, changed->settings);
        } else {
            const auto accounts = session.kit().list()->cardAccounts(person);
            const auto account = accounts.find(cardID);
            const auto edited = editInEditor(
                original,
                fmt::format("{}: card {} in {}", name, cardID,
                            accountName(session, account == accounts.end()
                                                     ? std::nullopt
                                                     : std::optional<std::string>(account->second))));
            if (!edited) {
                session.finish();
                return;
            }
            // The card may have changed while the editor was open (a sync,
            // the window): saving now would overwrite what the user never saw.
            auto now = book.draft(cardID);
            if (!now.ok() || now.value() != original) {
                TemplateFile file;
                file.write(edited->text);
                file.keep();
                fail(fmt::format(
                    "{}'s card changed while it was being edited, so nothing was saved; your text "
                    "is in {}",
                    name, file.path().string()));
            }
            draft = edited->draft;
        }
        if (draft == original) {
            fmt::print("No changes: nothing saved.\n");
            session.finish();
            return;
        }
        saveDraft(session, draft);
        fmt::print("Saved {}\n", name);
        session.finish();
    });
}

} // namespace kinbook::cli
