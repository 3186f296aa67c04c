#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/records/ExLabel.h"
#include "KinbookKit/text/Ascii.h"
#include "tests/support/TempVdir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

// Edits over every real card and every hand-written card of the kinds real
// servers produce: each edit must change the lines of the one entry it is
// about (with its group's label line) and REV, and nothing else, byte for
// byte and in place.

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::readFile;

constexpr std::string_view kSeveralCards = "This card's file holds several cards";

// The card's logical lines: folds joined, line endings dropped.
std::vector<std::string> logicalLines(std::string_view bytes) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < bytes.size()) {
        std::size_t end = bytes.find('\n', start);
        if (end == std::string_view::npos) {
            end = bytes.size();
        }
        std::string line(bytes.substr(start, end - start));
        while (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (!lines.empty() && !line.empty() && (line[0] == ' ' || line[0] == '\t')) {
            lines.back() += line.substr(1);
        } else {
            lines.push_back(std::move(line));
        }
        start = end + 1;
    }
    return lines;
}

struct LineName {
    std::string group; // lower case
    std::string name;  // upper case
};

LineName nameOf(std::string_view line) {
    const std::size_t end = line.find_first_of(";:");
    std::string_view head = line.substr(0, end);
    LineName result;
    if (const std::size_t dot = head.find('.'); dot != std::string_view::npos) {
        result.group = asciiLowered(head.substr(0, dot));
        head.remove_prefix(dot + 1);
    }
    for (char c : head) {
        result.name.push_back(c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c);
    }
    return result;
}

// Which lines a step may change: lines named one of `names` for which
// `isEntry` holds (at most one removed and one added), every line in the
// groups of those, and REV.
struct Allowed {
    std::vector<std::string> names;
    bool (*isEntry)(std::string_view line) = [](std::string_view) { return true; };
    bool uidMayAppear = false;
};

bool isAnchorLine(std::string_view line) {
    return asciiLowered(line).find("kinbook://c/") != std::string::npos;
}

// Lines removed from `before` and added in `after`, by a longest common
// subsequence, so that a line moved elsewhere counts as changed.
void diffLines(const std::vector<std::string>& before, const std::vector<std::string>& after,
               std::vector<std::string>& removed, std::vector<std::string>& added) {
    const std::size_t n = before.size();
    const std::size_t m = after.size();
    std::vector<std::vector<std::uint32_t>> common(n + 1, std::vector<std::uint32_t>(m + 1, 0));
    for (std::size_t i = n; i-- > 0;) {
        for (std::size_t j = m; j-- > 0;) {
            common[i][j] = before[i] == after[j] ? common[i + 1][j + 1] + 1
                                                 : std::max(common[i + 1][j], common[i][j + 1]);
        }
    }
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < n || j < m) {
        if (i < n && j < m && before[i] == after[j]) {
            ++i;
            ++j;
        } else if (j == m || (i < n && common[i + 1][j] >= common[i][j + 1])) {
            removed.push_back(before[i++]);
        } else {
            added.push_back(after[j++]);
        }
    }
}

::testing::AssertionResult changesOnly(std::string_view beforeBytes, std::string_view afterBytes,
                                       const Allowed& allowed) {
    const auto beforeLines = logicalLines(beforeBytes);
    const auto afterLines = logicalLines(afterBytes);
    std::vector<std::string> removed;
    std::vector<std::string> added;
    diffLines(beforeLines, afterLines, removed, added);
    const auto isEntry = [&](const std::string& line) {
        const LineName name = nameOf(line);
        return std::find(allowed.names.begin(), allowed.names.end(), name.name) != allowed.names.end() &&
               allowed.isEntry(line);
    };
    // The groups of the entry: of its changed lines, or of a changed line
    // (a label) in a group that holds an entry line.
    std::set<std::string> entryGroups;
    for (const auto* lines : {&beforeLines, &afterLines}) {
        for (const auto& line : *lines) {
            if (isEntry(line) && !nameOf(line).group.empty()) {
                entryGroups.insert(nameOf(line).group);
            }
        }
    }
    std::set<std::string> groups;
    for (const auto* lines : {&removed, &added}) {
        int entries = 0;
        for (const auto& line : *lines) {
            entries += isEntry(line) ? 1 : 0;
            const std::string group = nameOf(line).group;
            if (!group.empty() && (isEntry(line) || entryGroups.contains(group))) {
                groups.insert(group);
            }
        }
        if (entries > 1) {
            return ::testing::AssertionFailure() << "several entry lines changed\n" << afterBytes;
        }
    }
    if (groups.size() > 1) {
        return ::testing::AssertionFailure() << "lines of several entries changed\n" << afterBytes;
    }
    for (const auto* lines : {&removed, &added}) {
        for (const auto& line : *lines) {
            const LineName name = nameOf(line);
            const bool inGroup = !name.group.empty() && groups.contains(name.group);
            const bool uid = allowed.uidMayAppear && lines == &added && name.name == "UID";
            if (!isEntry(line) && !inGroup && name.name != "REV" && !uid) {
                return ::testing::AssertionFailure()
                       << (lines == &removed ? "lost or changed: " : "added: ") << line << "\n"
                       << afterBytes;
            }
        }
    }
    return ::testing::AssertionSuccess();
}

// One vdir holding every real sample and every hand-written card, one
// account each kind, with the files' bytes as they are before each step.
class LosslessSaves : public ::testing::Test {
public:
    void SetUp() override {
        for (const char* folder : {"vcard-real", "vcard-handwritten"}) {
            for (const auto& file : fs::directory_iterator(fs::path(KINBOOK_TESTDATA_DIR) / folder)) {
                if (file.path().extension() == ".vcf") {
                    vdir.write(folder, file.path().filename().string(), readFile(file.path()));
                }
            }
        }
    }

    std::map<fs::path, std::string> files() const {
        std::map<fs::path, std::string> result;
        for (const auto& entry : fs::recursive_directory_iterator(vdir.root())) {
            if (entry.is_regular_file() && entry.path().extension() == ".vcf") {
                result[entry.path()] = readFile(entry.path());
            }
        }
        return result;
    }

    // Runs `step`, then checks that at most one file changed, and only as
    // `allowed` says. Returns that file's new bytes ("" when none changed).
    template <typename Step>
    std::string expectOnly(const std::string& what, const Allowed& allowed, Step&& step) {
        const auto before = files();
        step();
        const auto after = files();
        std::string changed;
        for (const auto& [path, bytes] : after) {
            const auto it = before.find(path);
            if (it == before.end() || it->second == bytes) {
                continue;
            }
            EXPECT_TRUE(changed.empty()) << what << ": a second file changed: " << path.filename();
            changed = bytes;
            EXPECT_TRUE(changesOnly(it->second, bytes, allowed)) << what << " in " << path.filename();
        }
        return changed;
    }

    testing::TempVdir vdir;
};

bool isSeveralCards(const Result<SaveOutcome, AddressBookError>& saved) {
    return !saved.ok() && saved.error().description().find(kSeveralCards) != std::string::npos;
}

// Marks one labelled entry former and back, then edits its value, checking
// after each save what the card reads and what the file holds.
template <typename Entry>
void roundTrip(LosslessSaves& test, VdirAddressBook& book, const std::string& cardID,
               std::vector<Entry> ContactDraft::*list, std::size_t index, const Allowed& allowed) {
    const auto original = book.draft(cardID);
    ASSERT_TRUE(original.ok());
    const Entry entry = ((*original).*list)[index];
    const std::string what = cardID + " entry " + entry.id + " (" + entry.label + ")";

    const auto saveWith = [&](const std::function<void(Entry&)>& change) {
        auto draft = book.draft(cardID);
        ASSERT_TRUE(draft.ok());
        auto& entries = (*draft).*list;
        auto it =
            std::find_if(entries.begin(), entries.end(), [&](const Entry& e) { return e.id == entry.id; });
        ASSERT_NE(it, entries.end()) << what << " lost its identity";
        change(*it);
        const auto saved = book.save(*draft);
        ASSERT_TRUE(saved.ok() || isSeveralCards(saved))
            << what << ": " << (saved.ok() ? "" : saved.error().description());
    };
    const auto reread = [&]() -> Entry {
        const auto draft = book.draft(cardID);
        const auto& entries = (*draft).*list;
        auto it =
            std::find_if(entries.begin(), entries.end(), [&](const Entry& e) { return e.id == entry.id; });
        return it == entries.end() ? Entry{} : *it;
    };

    test.expectOnly(what + " marked former", allowed,
                    [&] { saveWith([](Entry& e) { e.label = ExLabel::former(e.label); }); });
    Entry former = reread();
    bool blank = false;
    if constexpr (std::is_same_v<Entry, ContactDraft::Address>) {
        blank = entry.isEmpty();
    } else {
        blank = entry.value.find_first_not_of(" \t") == std::string::npos;
    }
    // A blank entry is nothing to mark: the save keeps it as it was.
    EXPECT_EQ(former.label, blank ? entry.label : ExLabel::former(entry.label)) << what;
    former.label = entry.label;
    EXPECT_EQ(former, entry) << what << ": only the label may change";

    test.expectOnly(what + " marked current", allowed,
                    [&] { saveWith([](Entry& e) { e.label = ExLabel::current(e.label); }); });
    EXPECT_FALSE(ExLabel::isFormer(reread().label)) << what;
}

// Any single-entry edit, on any card, changes only that entry's lines: the
// former mark and its undoing on every phone, e-mail and address, a new
// number on every phone, and a circle change on every card. And the
// editor's draft saved untouched writes nothing: the reading and the
// writing of labels, dates and links agree.
TEST_F(LosslessSaves, EverySingleEntryEditChangesOnlyThatEntrysLines) {
    VdirAddressBook book(vdir.options());
    const auto read = book.readAll({});
    ASSERT_TRUE(read.ok());
    ASSERT_GE(read->snapshot.people.size(), 28u);

    const Allowed anchor{{"URL"}, isAnchorLine, true};
    const Allowed phone{{"TEL"}};
    const Allowed email{{"EMAIL"}};
    const Allowed address{{"ADR"}};
    for (const auto& person : read->snapshot.people) {
        const std::string& id = person.id;
        const std::string untouched = expectOnly(id + " untouched", {}, [&] {
            const auto draft = book.draft(id);
            ASSERT_TRUE(draft.ok()) << id;
            // A file of several cards is refused whatever the draft says.
            const auto saved = book.save(*draft);
            EXPECT_TRUE(saved.ok() || isSeveralCards(saved))
                << id << ": " << (saved.ok() ? "" : saved.error().description());
        });
        EXPECT_EQ(untouched, "") << id;
        // The first write of a 2.1 card writes it as 3.0, which changes the
        // form of many lines; from then on the card is held to the rule.
        const auto before = files();
        const auto anchored =
            book.changeAnchor(id, [](KinID::Anchor& a) { a.circle = ContactCircle::friends; });
        if (!anchored.ok() && anchored.error().description().find(kSeveralCards) != std::string::npos) {
            // A file of several cards is never rewritten at all.
            EXPECT_EQ(files(), before) << id;
            continue;
        }
        EXPECT_TRUE(anchored.ok()) << id;
        for (const auto& [path, bytes] : files()) {
            if (before.at(path) != bytes && before.at(path).find("VERSION:2.1") == std::string::npos) {
                EXPECT_TRUE(changesOnly(before.at(path), bytes, anchor)) << "first circle change of " << id;
            }
        }

        const auto draft = book.draft(id);
        ASSERT_TRUE(draft.ok()) << id;
        for (std::size_t i = 0; i < draft->phones.size(); ++i) {
            roundTrip(*this, book, id, &ContactDraft::phones, i, phone);
        }
        for (std::size_t i = 0; i < draft->emails.size(); ++i) {
            roundTrip(*this, book, id, &ContactDraft::emails, i, email);
        }
        for (std::size_t i = 0; i < draft->addresses.size(); ++i) {
            roundTrip(*this, book, id, &ContactDraft::addresses, i, address);
        }
        for (const auto& field : draft->phones) {
            expectOnly(id + " new number for " + field.value, phone, [&] {
                auto edited = book.draft(id);
                for (auto& p : edited->phones) {
                    if (p.id == field.id) {
                        p.value = "+1 555 555 0199";
                    }
                }
                const auto saved = book.save(*edited);
                EXPECT_TRUE(saved.ok() || isSeveralCards(saved)) << id;
            });
        }
        expectOnly(id + " circle change", {{"URL"}, isAnchorLine}, [&] {
            EXPECT_TRUE(
                book.changeAnchor(id, [](KinID::Anchor& a) { a.circle = ContactCircle::closest; }).ok());
        });
        expectOnly(id + " hidden", {{"URL"}, isAnchorLine}, [&] {
            EXPECT_TRUE(book.changeAnchor(id, [](KinID::Anchor& a) { a.hidden = true; }).ok());
        });
    }
}

std::string fileOf(LosslessSaves& test, std::string_view name) {
    for (const auto& [path, bytes] : test.files()) {
        if (path.filename() == name) {
            return bytes;
        }
    }
    return {};
}

// What the user sees of the hand-written cards reads plain, and what the
// user changes is written in the card's own form.
TEST_F(LosslessSaves, URIsAndLabelTokensReadPlainAndWriteInTheCardsForm) {
    VdirAddressBook book(vdir.options());
    ASSERT_TRUE(book.readAll({}).ok());

    const std::string ines = "urn:uuid:4f1c2a66-0b7e-4d2b-9a51-7f5e1c0d2b10";
    auto draft = book.draft(ines);
    ASSERT_TRUE(draft.ok());
    ASSERT_EQ(draft->phones.size(), 4u);
    EXPECT_EQ(draft->phones[0].value, "+1-555-555-0100");
    EXPECT_EQ(draft->phones[1].value, "+1-555-555-0101");
    draft->phones[0].value = "+1 555 555 0199";
    ASSERT_TRUE(book.save(*draft).ok());
    const std::string bytes = fileOf(*this, "v4-tel-uris.vcf");
    EXPECT_NE(bytes.find("TEL;VALUE=uri;TYPE=cell:tel:+1-555-555-0199\n"), std::string::npos) << bytes;
    EXPECT_NE(
        bytes.find("TEL;VALUE=uri;TYPE=\"work,cell,voice,video,text\";PREF=1:tel:+1-555-555-0102;ext=12\n"),
        std::string::npos)
        << bytes;
    EXPECT_EQ(bytes.find("tel:tel:"), std::string::npos);

    // Apple's tokens outside the stock table read as words, and a former
    // mark writes those words, never the token.
    std::string maja;
    const auto read = book.readAll({});
    ASSERT_TRUE(read.ok());
    for (const auto& person : read->snapshot.people) {
        if (person.familyName == "Lindqvist") {
            maja = person.id;
        }
    }
    ASSERT_FALSE(maja.empty());
    const auto shown = book.card(maja);
    ASSERT_TRUE(shown.ok());
    EXPECT_EQ(shown->phones[0].label, "other fax");
    EXPECT_EQ(shown->phones[1].label, "assistant phone");
    auto former = book.draft(maja);
    former->phones[0].label = ExLabel::former(former->phones[0].label);
    ASSERT_TRUE(book.save(*former).ok());
    EXPECT_NE(fileOf(*this, "apple-label-tokens.vcf").find("item1.X-ABLabel:ex-other fax\n"),
              std::string::npos);

    // Every duplicate link survives a save that only relabels an e-mail.
    const std::string ngozi = "9B3F2E10-6C4D-4A8B-9E21-5D7C0A1B2C3D";
    auto links = book.draft(ngozi);
    ASSERT_TRUE(links.ok());
    links->emails[1].label = ExLabel::former(links->emails[1].label);
    ASSERT_TRUE(book.save(*links).ok());
    const std::string linked = fileOf(*this, "duplicate-links.vcf");
    for (const char* line :
         {"X-SOCIALPROFILE;type=instagram;x-user=ngozi.a:https://www.instagram.com/ngozi.a",
          "X-SOCIALPROFILE;type=twitter;x-user=ngozia:https://twitter.com/ngozia",
          "X-SOCIALPROFILE;type=twitter;x-user=ngozia:https://x.com/ngozia",
          "item1.URL;type=pref:https://www.instagram.com/ngozi.a"}) {
        EXPECT_NE(linked.find(line), std::string::npos) << line;
    }
    EXPECT_NE(linked.find("URL:https://github.com/ngozia\nURL:https://github.com/ngozia\n"),
              std::string::npos);

    // A link the draft removes takes every line that stood for it.
    auto removed = book.draft(ngozi);
    std::erase_if(removed->links, [](const LinkedAccount& link) { return link.service == LinkService::x; });
    ASSERT_TRUE(book.save(*removed).ok());
    EXPECT_EQ(fileOf(*this, "duplicate-links.vcf").find("ngozia:https://"), std::string::npos);
}

// A draft reordered by the user is saved in its order: each line moves
// whole, with its bytes.
TEST_F(LosslessSaves, AReorderedDraftIsSavedInItsOrder) {
    VdirAddressBook book(vdir.options());
    ASSERT_TRUE(book.readAll({}).ok());
    const std::string pavel = "7d2f1c40-3e55-4b61-8c0a-1b9e6f3d2a77";
    auto draft = book.draft(pavel);
    ASSERT_TRUE(draft.ok());
    ASSERT_EQ(draft->phones.size(), 3u);
    std::swap(draft->phones[0], draft->phones[2]);
    ASSERT_TRUE(book.save(*draft).ok());
    EXPECT_NE(fileOf(*this, "v4-plain-tels.vcf")
                  .find("TEL:+1 555 555 0112\nTEL;TYPE=\"work,cell,voice,video,text\":+1 555 555 0111\n"
                        "TEL;TYPE=\"voice,home\";PREF=1:+1 555 555 0110\n"),
              std::string::npos)
        << fileOf(*this, "v4-plain-tels.vcf");
    const auto reread = book.draft(pavel);
    EXPECT_EQ(reread->phones[0].id, draft->phones[0].id);
    EXPECT_EQ(reread->phones[2].id, draft->phones[2].id);
}

} // namespace
} // namespace kinbook
