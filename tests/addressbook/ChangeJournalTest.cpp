#include "KinbookKit/addressbook/ChangeJournal.h"

#include "KinbookKit/text/Base64.h"
#include "tests/support/TempFolder.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::TempFolder;
using testing::writeFile;
using Token = std::vector<std::uint8_t>;

std::string card(const std::string& uid, const std::string& name = "Ada") {
    return "BEGIN:VCARD\r\nVERSION:3.0\r\nUID:" + uid + "\r\nFN:" + name + "\r\nEND:VCARD\r\n";
}

class ChangeJournalTest : public ::testing::Test {
public:
    void SetUp() override {
        fs::create_directories(root() / "home");
        fs::create_directories(root() / "work");
    }

    fs::path root() const { return m_folder / "vdir"; }
    fs::path state() const { return m_folder / "state"; }

    // Reads the UID line, as the vCard layer does; counts every read so that
    // tests can tell a stat-only scan from one that opens files.
    std::optional<std::string> cardIDOf(const fs::path& file) {
        ++m_reads;
        std::string text = readFile(file);
        auto at = text.find("UID:");
        if (at == std::string::npos) {
            return std::nullopt;
        }
        auto end = text.find("\r\n", at);
        return text.substr(at + 4, end - at - 4);
    }

    std::unique_ptr<ChangeJournal> open(ChangeJournal::Options options = {}) {
        return std::make_unique<ChangeJournal>(
            state(), root(), [this](const fs::path& file) { return cardIDOf(file); }, options);
    }

    // The way vdirsyncer and editors write: a temporary, then a rename.
    fs::path write(const std::string& account, const std::string& name, const std::string& bytes) {
        fs::path target = root() / account / name;
        fs::path temporary = root() / account / ("." + name + ".tmp");
        writeFile(temporary, bytes);
        fs::rename(temporary, target);
        return target;
    }

    // Two accounts, four files, three cards (one in both accounts).
    void makeFourCards() {
        fs::remove_all(root());
        fs::remove_all(state());
        fs::create_directories(root() / "home");
        fs::create_directories(root() / "work");
        write("home", "a.vcf", card("A"));
        write("home", "twin.vcf", card("T"));
        write("work", "twin.vcf", card("T"));
        write("work", "w.vcf", card("W"));
    }

    // Every card file as (account, file name).
    std::set<std::pair<std::string, std::string>> cardFiles() const {
        std::set<std::pair<std::string, std::string>> files;
        for (const auto& account : fs::directory_iterator(root())) {
            for (const auto& file : fs::directory_iterator(account.path())) {
                files.emplace(account.path().filename(), file.path().filename());
            }
        }
        return files;
    }

    // What a full read would hand the journal: every card file's state and
    // the id read from it, without counting as the journal's own reads.
    ChangeJournal::Survey surveyOf(const std::set<std::string>& leaveOut = {}) {
        m_surveyTexts.clear();
        ChangeJournal::Survey survey;
        for (const auto& [account, name] : cardFiles()) {
            if (leaveOut.contains(account)) {
                continue;
            }
            const fs::path file = root() / account / name;
            struct stat info {};
            ::stat(file.c_str(), &info);
            const int reads = m_reads;
            const std::string id = cardIDOf(file).value_or("");
            m_reads = reads;
            m_surveyTexts.push_back(std::make_unique<std::string>(account));
            const std::string& accountText = *m_surveyTexts.back();
            m_surveyTexts.push_back(std::make_unique<std::string>(name));
            const std::string& nameText = *m_surveyTexts.back();
            m_surveyTexts.push_back(std::make_unique<std::string>(id));
            survey.files.push_back({accountText, nameText, *m_surveyTexts.back(),
                                    static_cast<std::uint64_t>(info.st_ino),
                                    static_cast<std::uint64_t>(info.st_size),
                                    info.st_mtim.tv_sec * 1'000'000'000 + info.st_mtim.tv_nsec});
        }
        return survey;
    }

    static ChangeSet expectChanges(ChangeJournal& journal, const Token& token, std::set<std::string> changed,
                                   std::set<std::string> deleted) {
        ChangeSet changes = journal.changesSince(token);
        EXPECT_FALSE(changes.dropEverything());
        EXPECT_EQ(changes.changed(), changed);
        EXPECT_EQ(changes.deleted(), deleted);
        return changes;
    }

    TempFolder m_folder;
    int m_reads = 0;
    std::vector<std::unique_ptr<std::string>> m_surveyTexts; // what survey views point into
};

TEST_F(ChangeJournalTest, UnchangedFilesAreOnlyStattedAndKeepTheTokenCurrent) {
    write("home", "a.vcf", card("A"));
    write("work", "b.vcf", card("B"));
    auto journal = open();
    Token token = journal->currentToken();
    EXPECT_EQ(m_reads, 2);
    EXPECT_EQ(journal->scan(), 0u);
    EXPECT_EQ(expectChanges(*journal, token, {}, {}).token(), token);
    EXPECT_EQ(journal->currentToken(), token);
    EXPECT_EQ(open()->scan(), 0u);
    EXPECT_EQ(m_reads, 2);
}

// Kinbook's own writes, in this process or another (the app and the
// command-line tool), go into the shared journal, and no scan reads them again.
TEST_F(ChangeJournalTest, OwnWritesAreJournalledOnceForEveryProcess) {
    fs::path a = write("home", "a.vcf", card("A"));
    auto journal = open();
    auto tool = open();
    Token token = journal->currentToken();

    fs::path b = write("work", "b.vcf", card("B"));
    journal->recordWrite("B", "work", b);
    write("home", "a.vcf", card("A", "Ada Lovelace"));
    tool->recordWrite("A", "home", a);
    int readsBefore = m_reads;
    EXPECT_EQ(journal->scan(), 0u);
    EXPECT_EQ(tool->scan(), 0u);
    EXPECT_EQ(m_reads, readsBefore);
    expectChanges(*journal, token, {"A", "B"}, {});

    Token afterWrites = journal->currentToken();
    fs::remove(a);
    tool->recordDelete("A", a);
    EXPECT_EQ(journal->scan(), 0u);
    expectChanges(*journal, afterWrites, {}, {"A"});
    expectChanges(*tool, token, {"B"}, {"A"});
    // A delete nobody recorded is found by the first scan, once.
    fs::remove(b);
    EXPECT_EQ(journal->scan(), 1u);
    expectChanges(*tool, afterWrites, {}, {"A", "B"});
    EXPECT_TRUE(tool->lastError().empty()) << tool->lastError();
    EXPECT_TRUE(journal->lastError().empty()) << journal->lastError();
}

TEST_F(ChangeJournalTest, ACardGivenItsFirstUIDLeavesItsFileNameIDDeleted) {
    fs::path file = write("home", "no-uid.vcf", "BEGIN:VCARD\r\nFN:X\r\nEND:VCARD\r\n");
    auto journal = open();
    journal->recordWrite("no-uid", "home", file);
    Token token = journal->currentToken();
    write("home", "no-uid.vcf", card("NEW"));
    journal->recordWrite("NEW", "home", file);
    expectChanges(*journal, token, {"NEW"}, {"no-uid"});
}

// What other programs do to a vdir, with what the journal must report: the
// same whether it scans everything or only the files a watcher named.
struct OutsideChange {
    const char* name;
    std::function<void(ChangeJournalTest&)> change;
    std::set<std::string> changed;
    std::set<std::string> deleted;
};

std::vector<OutsideChange> outsideChanges() {
    return {
        {"a new card", [](ChangeJournalTest& t) { t.write("work", "n.vcf", card("N")); }, {"N"}, {}},
        {"a card rewritten by rename",
         [](ChangeJournalTest& t) { t.write("home", "a.vcf", card("A", "Ada Byron")); },
         {"A"},
         {}},
        {"same size rewritten in place, only the time differs",
         [](ChangeJournalTest& t) {
             fs::path file = t.root() / "home" / "a.vcf";
             auto time = fs::last_write_time(file);
             writeFile(file, card("A", "Adb"));
             fs::last_write_time(file, time + std::chrono::seconds(1));
         },
         {"A"},
         {}},
        {"touched",
         [](ChangeJournalTest& t) {
             fs::path file = t.root() / "home" / "a.vcf";
             fs::last_write_time(file, fs::last_write_time(file) - std::chrono::seconds(7));
         },
         {"A"},
         {}},
        {"a card deleted", [](ChangeJournalTest& t) { fs::remove(t.root() / "home" / "a.vcf"); }, {}, {"A"}},
        {"a card moved to another account",
         [](ChangeJournalTest& t) { fs::rename(t.root() / "home" / "a.vcf", t.root() / "work" / "a.vcf"); },
         {"A"},
         {}},
        {"a card copied to another account, then removed (new inode, same UID)",
         [](ChangeJournalTest& t) {
             t.write("work", "copy.vcf", readFile(t.root() / "home" / "a.vcf"));
             fs::remove(t.root() / "home" / "a.vcf");
         },
         {"A"},
         {}},
        {"one of two files of a card deleted",
         [](ChangeJournalTest& t) { fs::remove(t.root() / "work" / "twin.vcf"); },
         {"T"},
         {}},
        {"a card whose UID was edited",
         [](ChangeJournalTest& t) { t.write("home", "a.vcf", card("A2")); },
         {"A2"},
         {"A"}},
        {"an account folder removed",
         [](ChangeJournalTest& t) { fs::remove_all(t.root() / "work"); },
         {"T"},
         {"W"}},
        {"a file that stopped being a card",
         [](ChangeJournalTest& t) { t.write("home", "a.vcf", "garbage"); },
         {},
         {"A"}},
        {"other writers' temporaries, hidden files and folders named like cards",
         [](ChangeJournalTest& t) {
             writeFile(t.root() / "home" / ".hidden.vcf", card("H1"));
             writeFile(t.root() / "home" / "a.vcf.tmp", card("H2"));
             writeFile(t.root() / "home" / "a.vcfq8Zr1x", card("H3")); // a vdirsyncer temporary
             fs::create_directories(t.root() / ".git");
             writeFile(t.root() / ".git" / "b.vcf", card("H4"));
             fs::create_directories(t.root() / "home" / "nested.vcf");
         },
         {},
         {}},
    };
}

TEST_F(ChangeJournalTest, AScanAndTheFilesAWatcherNamedFindWhatOtherProgramsDid) {
    for (const bool named : {false, true}) {
        for (const OutsideChange& test : outsideChanges()) {
            SCOPED_TRACE(::testing::Message() << test.name << (named ? ", named" : ", scanned"));
            makeFourCards();
            auto journal = open();
            Token token = journal->currentToken();
            journal->followNamedChanges(named);
            EXPECT_EQ(journal->scan(), 0u);
            std::set<std::pair<std::string, std::string>> touched = cardFiles();
            test.change(*this);
            if (named) {
                // The watcher names every file the change touched, gone or new.
                touched.merge(cardFiles());
                const std::vector<std::pair<std::string, std::string>> files(touched.begin(), touched.end());
                journal->filesChanged(files);
            }
            const int readsBefore = m_reads;
            expectChanges(*journal, token, test.changed, test.deleted);
            EXPECT_LE(m_reads - readsBefore, 2) << "only changed files are read";
            // Each change is journalled once.
            EXPECT_EQ(journal->scan(), 0u);
        }
    }
}

TEST_F(ChangeJournalTest, WhileFollowingNamesOnlyTheNamedFilesAreLookedAt) {
    write("home", "a.vcf", card("A"));
    write("work", "b.vcf", card("B"));
    auto journal = open();
    Token token = journal->currentToken();
    // What changed before the watch began is found by its first scan.
    journal->followNamedChanges(true);
    write("work", "b.vcf", card("B", "Bea"));
    expectChanges(*journal, token, {"B"}, {});

    token = journal->currentToken();
    write("home", "a.vcf", card("A", "Ada Byron"));
    write("work", "b.vcf", card("B", "Bea Byron"));
    write("work", "c.vcf", card("C"));
    const std::vector<std::pair<std::string, std::string>> named = {{"home", "a.vcf"}, {"work", "c.vcf"}};
    journal->filesChanged(named);
    expectChanges(*journal, token, {"A", "C"}, {});

    // The watcher lost events: everything is looked at again, once.
    journal->unnamedChanges();
    expectChanges(*journal, token, {"A", "B", "C"}, {});

    // No longer following: every scan looks at everything.
    journal->followNamedChanges(false);
    token = journal->currentToken();
    fs::remove(root() / "home" / "a.vcf");
    expectChanges(*journal, token, {}, {"A"});
}

TEST_F(ChangeJournalTest, AFullReadStandsInForAScan) {
    write("home", "a.vcf", card("A"));
    write("home", "b.vcf", card("B"));
    write("work", "w.vcf", card("W"));
    Token token;
    {
        auto journal = open();
        token = journal->currentToken();
    }
    // Changed while Kinbook was not running.
    write("home", "a.vcf", card("A", "Ada Byron"));
    fs::remove(root() / "home" / "b.vcf");
    write("home", "c.vcf", card("C"));

    auto journal = open();
    const int readsBefore = m_reads;
    const Token afterRead = journal->tokenAfterSurvey(surveyOf(), journal->surveyTicket());
    EXPECT_EQ(m_reads, readsBefore) << "a read's survey says what each file holds";
    expectChanges(*journal, token, {"A", "C"}, {"B"});
    expectChanges(*journal, afterRead, {}, {});
    EXPECT_EQ(journal->scan(), 0u) << "the survey's states are the files' own";

    // A file that changed after the read saw it is a change since its token.
    ChangeJournal::Survey stale = surveyOf();
    write("home", "c.vcf", card("C", "Cy"));
    const Token staleToken = journal->tokenAfterSurvey(stale, journal->surveyTicket());
    expectChanges(*journal, staleToken, {"C"}, {});

    // A folder the read could not list keeps its cards.
    ChangeJournal::Survey partial = surveyOf({"work"});
    partial.unreadableAccounts = {"work"};
    const Token current = journal->currentToken();
    EXPECT_EQ(journal->tokenAfterSurvey(partial, journal->surveyTicket()), current);
    expectChanges(*journal, current, {}, {});
}

TEST_F(ChangeJournalTest, AReadDuringWhichTheWatcherLostEventsLeavesAScanDue) {
    write("home", "a.vcf", card("A"));
    auto journal = open();
    journal->followNamedChanges(true);
    Token token = journal->currentToken();
    // The read starts, the watcher loses events, the read ends.
    const std::uint64_t ticket = journal->surveyTicket();
    ChangeJournal::Survey survey = surveyOf();
    journal->unnamedChanges();
    write("home", "b.vcf", card("B")); // in the lost events
    token = journal->tokenAfterSurvey(survey, ticket);
    expectChanges(*journal, token, {"B"}, {});

    // A read that nothing interrupted counts as the scan of everything.
    ChangeJournal::Survey clean = surveyOf();
    token = journal->tokenAfterSurvey(clean, journal->surveyTicket());
    write("home", "c.vcf", card("C")); // unnamed, so not looked for
    expectChanges(*journal, token, {}, {});
}

TEST_F(ChangeJournalTest, AScanOnTwoThreadsFindsWhatOneWould) {
    // Enough cards for the scan to share them out.
    constexpr int kCards = 2100;
    for (int i = 0; i < kCards; ++i) {
        writeFile(root() / (i % 2 == 0 ? "home" : "work") / (std::to_string(i) + ".vcf"),
                  card(std::to_string(i)));
    }
    auto journal = open({.scanThreads = 2});
    Token token = journal->currentToken();
    EXPECT_EQ(m_reads, kCards);
    for (int i : {0, 1, 1051, kCards - 2, kCards - 1}) {
        write(i % 2 == 0 ? "home" : "work", std::to_string(i) + ".vcf", card(std::to_string(i), "Changed"));
    }
    fs::remove(root() / "work" / "1001.vcf");
    write("home", "new.vcf", card("NEW"));
    expectChanges(*journal, token, {"0", "1", "1051", "2098", "2099", "NEW"}, {"1001"});
    EXPECT_EQ(journal->scan(), 0u);
}

TEST_F(ChangeJournalTest, HostileFileNamesKeepTheirCardsAcrossReopening) {
    const std::vector<std::pair<std::string, std::string>> files = {
        {"home", "with space.vcf"},
        {"home", "new\nline.vcf"},
        {"home", "\xff\xfe not utf-8.vcf"},
        {"odd\naccount \xc3", "x.vcf"},
    };
    Token token;
    {
        auto journal = open();
        token = journal->currentToken();
        int n = 0;
        for (const auto& [account, name] : files) {
            fs::create_directories(root() / account);
            write(account, name, card("H" + std::to_string(n++)));
        }
        expectChanges(*journal, token, {"H0", "H1", "H2", "H3"}, {});
        token = journal->currentToken();
    }
    for (const auto& [account, name] : files) {
        fs::remove(root() / account / name);
    }
    auto reopened = open();
    expectChanges(*reopened, token, {}, {"H0", "H1", "H2", "H3"});
    EXPECT_TRUE(reopened->lastError().empty()) << reopened->lastError();
}

TEST_F(ChangeJournalTest, TokensRoundTripThroughTheSnapshotAndARestart) {
    write("home", "a.vcf", card("A"));
    // The snapshot cache keeps the token as Base64 text.
    const auto stored = base64Decode(base64Encode(open()->currentToken()));
    ASSERT_TRUE(stored.has_value());

    write("home", "b.vcf", card("B"));
    auto journal = open();
    ChangeSet changes = expectChanges(*journal, *stored, {"B"}, {});
    ASSERT_TRUE(changes.token().has_value());
    EXPECT_NE(*changes.token(), *stored);
    expectChanges(*journal, *changes.token(), {}, {});
}

TEST_F(ChangeJournalTest, TokensItCannotServeMeanStartOver) {
    auto journal = open();
    Token token = journal->currentToken();

    TempFolder otherState;
    Token otherJournals = ChangeJournal(otherState.path(), root(), [](const fs::path&) {
                              return std::optional<std::string>("X");
                          }).currentToken();
    Token future = token;
    future.back() = static_cast<std::uint8_t>(future.back() + 5);
    Token otherID = token;
    otherID[7] ^= 0x40;

    const std::vector<std::pair<const char*, Token>> tokens = {
        {"empty", {}},
        {"garbage", {1, 2, 3, 4, 5}},
        {"cut short", Token(token.begin(), token.end() - 1)},
        {"one byte longer",
         [&] {
             Token longer = token;
             longer.push_back(0);
             return longer;
         }()},
        {"another journal's", otherJournals},
        {"another journal id", otherID},
        {"a position not reached yet", future},
    };
    for (const auto& [name, bad] : tokens) {
        EXPECT_TRUE(journal->changesSince(bad).dropEverything()) << name;
    }
    EXPECT_FALSE(journal->changesSince(token).dropEverything());
}

TEST_F(ChangeJournalTest, ADamagedJournalStartsOverWithoutCrashing) {
    struct Damage {
        const char* name;
        std::function<std::string(std::string)> apply;
    };
    const std::vector<Damage> damages = {
        {"a torn last record", [](std::string bytes) { return bytes.substr(0, bytes.size() - 3); }},
        {"a flipped byte",
         [](std::string bytes) {
             bytes[bytes.size() / 2] = static_cast<char>(bytes[bytes.size() / 2] ^ 0x10);
             return bytes;
         }},
        {"a zero-filled tail", [](std::string bytes) { return bytes + std::string(64, '\0'); }},
        {"garbage appended", [](std::string bytes) { return bytes + "\x05\0\0\0garbage"; }},
        {"emptied", [](const std::string&) { return std::string(); }},
        {"a huge length",
         [](std::string bytes) { return bytes + std::string("\xff\xff\xff\x7f\0\0\0\0", 8); }},
    };
    for (const Damage& damage : damages) {
        SCOPED_TRACE(damage.name);
        fs::remove_all(state());
        fs::path file = write("home", "a.vcf", card("A"));
        Token token;
        fs::path journalFile;
        {
            auto journal = open();
            token = journal->currentToken();
            journal->recordWrite("A", "home", file);
            journalFile = journal->journalFile();
        }
        writeFile(journalFile, damage.apply(readFile(journalFile)));

        auto journal = open();
        EXPECT_FALSE(journal->lastError().empty());
        EXPECT_TRUE(journal->changesSince(token).dropEverything());
        Token fresh = journal->currentToken();
        write("work", "b.vcf", card("B"));
        expectChanges(*journal, fresh, {"B"}, {});
    }
}

// Only the last events are kept: a token older than them starts over, one
// just within them is served, here and in a process reading the file.
TEST_F(ChangeJournalTest, RewritingTheFileKeepsTokensAndPositions) {
    fs::path file = write("home", "a.vcf", card("A"));
    auto journal = open({.maxEvents = 2});
    auto other = open({.maxEvents = 2});
    std::uintmax_t largest = 0;
    std::uintmax_t smallestAfterLargest = 0;
    Token old;
    Token beyond;
    Token edge;
    for (int i = 0; i < 700; ++i) {
        journal->recordWrite("A", "home", file);
        if (i == 600 || i == 696 || i == 697) {
            (i == 600 ? old : i == 696 ? beyond : edge) = journal->currentToken();
        }
        std::uintmax_t size = fs::file_size(journal->journalFile());
        if (size > largest) {
            largest = smallestAfterLargest = size;
        }
        smallestAfterLargest = std::min(smallestAfterLargest, size);
    }
    // Two live events and one file, after over a thousand records.
    EXPECT_LT(smallestAfterLargest, 400u);
    auto reopened = open({.maxEvents = 2});
    for (ChangeJournal* reader : {journal.get(), other.get(), reopened.get()}) {
        EXPECT_TRUE(reader->changesSince(old).dropEverything());
        EXPECT_TRUE(reader->changesSince(beyond).dropEverything());
        expectChanges(*reader, edge, {"A"}, {});
    }
    Token recent = journal->currentToken();
    fs::path b = write("work", "b.vcf", card("B"));
    journal->recordWrite("B", "work", b);
    // Another process reads the rewritten file from its start.
    expectChanges(*other, recent, {"B"}, {});
    EXPECT_TRUE(other->lastError().empty()) << other->lastError();
}

TEST_F(ChangeJournalTest, AMissingRootDeletesNothing) {
    write("home", "a.vcf", card("A"));
    auto journal = open();
    Token token = journal->currentToken();
    fs::rename(root(), m_folder / "unmounted");
    EXPECT_EQ(journal->scan(), 0u);
    fs::rename(m_folder / "unmounted", root());
    expectChanges(*journal, token, {}, {});
}

TEST_F(ChangeJournalTest, AnUnwritableStateFolderLeavesTheJournalInMemory) {
    writeFile(m_folder / "blocked", "a file where the folder should be");
    write("home", "a.vcf", card("A"));
    ChangeJournal journal(m_folder / "blocked" / "state", root(),
                          [this](const fs::path& file) { return cardIDOf(file); });
    EXPECT_FALSE(journal.lastError().empty());
    Token token = journal.currentToken();
    write("work", "b.vcf", card("B"));
    expectChanges(journal, token, {"B"}, {});
}

} // namespace
} // namespace kinbook
