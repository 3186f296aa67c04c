// The people commands end to end: the real `kinbook` binary on a real vdir in
// a temporary folder, in a home of its own.

#include "KinbookKit/people/SnapshotCache.h"
#include "tests/cli/KinbookRun.h"

#include <gtest/gtest.h>

#include <set>

namespace kinbook::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::string card(const std::string& uid, const std::vector<std::string>& lines) {
    std::string text = "BEGIN:VCARD\r\nVERSION:3.0\r\n";
    for (const auto& line : lines) {
        text += line + "\r\n";
    }
    return text + "UID:" + uid + "\r\nEND:VCARD\r\n";
}

// Columns a line takes, counting each character as one (the lines tested
// hold no wide characters).
std::size_t displayColumns(const std::string& line) {
    std::size_t columns = 0;
    for (const char c : line) {
        columns += (static_cast<unsigned char>(c) & 0xC0) != 0x80 ? 1 : 0;
    }
    return columns;
}

class PeopleCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        root = home.path() / "vdir";
        fs::create_directories(root / "personal");
        fs::create_directories(root / "work");
        writeFile(root / "personal" / "displayname", "Personal\n");
        writeFile(root / "work" / "displayname", "Work\n");
        // Ann has a card in each account, joined by one KinID; the personal
        // one is primary. Her old work address is marked former.
        put("personal", "ann-home",
            {"N:Smith;Ann;;;", "FN:Ann Smith", "TEL;TYPE=CELL:+1 503-555-0100",
             "item1.EMAIL;TYPE=INTERNET:ann@oldco.example", "item1.X-ABLabel:ex-work",
             "EMAIL;TYPE=INTERNET;TYPE=HOME:ann@example.com", "item2.URL:kinbook://c/AAAA1111?r=2&p=1",
             "item2.X-ABLabel:Vellumary Contacts"});
        put("work", "ann-work",
            {"N:Smith;Ann;;;", "FN:Ann Smith", "ORG:Acme", "TITLE:Engineer",
             "EMAIL;TYPE=INTERNET;TYPE=WORK:ann.smith@acme.example", "item1.URL:kinbook://c/AAAA1111?r=2",
             "item1.X-ABLabel:Vellumary Contacts", "NOTE:Ask about the bridge\\nand the boat"});
        put("personal", "bob",
            {"N:Jones;Bob;;;", "FN:Bob Jones", "ORG:Smithfield Foods", "TEL;TYPE=WORK:(555) 010-0199",
             "EMAIL;TYPE=WORK:bob@smithfield.example"});
        put("personal", "elodie", {"N:Martin;Élodie;;;", "FN:Élodie Martin", "EMAIL:elodie@example.fr"});
        put("personal", "dan", {"N:Hidden;Dan;;;", "FN:Dan Hidden", "URL:kinbook://c/DDDD4444?h=1"});
        // Five people fill the closest circle.
        for (int i = 1; i <= 5; ++i) {
            put("personal", "close-" + std::to_string(i),
                {"N:Near;Close" + std::to_string(i) + ";;;", "FN:Close" + std::to_string(i) + " Near",
                 "URL:kinbook://c/CCCC000" + std::to_string(i) + "?r=1"});
        }
    }

    void put(const std::string& account, const std::string& uid, const std::vector<std::string>& lines) {
        writeFile(root / account / (uid + ".vcf"), card(uid, lines));
    }

    KinbookRun run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--contacts", root.string()});
        return home.run(arguments);
    }

    // Runs a command that must succeed and print JSON.
    json runJson(std::vector<std::string> arguments) {
        arguments.push_back("--json");
        const auto result = run(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        const auto document = result.json();
        EXPECT_FALSE(document.is_discarded()) << result.out;
        return document;
    }

    // The display names of a list or search, in order.
    static std::vector<std::string> names(const json& list) {
        std::vector<std::string> shown;
        for (const auto& section : list["sections"]) {
            for (const auto& person : section["people"]) {
                shown.push_back(person["displayName"]);
            }
        }
        return shown;
    }

    static std::vector<std::string> titles(const json& list) {
        std::vector<std::string> shown;
        for (const auto& section : list["sections"]) {
            shown.push_back(section["letter"]);
        }
        return shown;
    }

    std::string cardFile(const std::string& account, const std::string& uid) {
        return readFile(root / account / (uid + ".vcf"));
    }

    KinbookHome home;
    fs::path root;
};

TEST_F(PeopleCommandTest, ListPrintsSectionsOfPeopleWithEveryPersonFieldAsJsonOrText) {
    const auto list = runJson({"list"});
    // Ann's two cards are one person; Dan is hidden.
    EXPECT_EQ(list["matchCount"], 8);
    EXPECT_EQ(names(list),
              (std::vector<std::string>{"Bob Jones", "Élodie Martin", "Close1 Near", "Close2 Near",
                                        "Close3 Near", "Close4 Near", "Close5 Near", "Ann Smith"}));
    EXPECT_EQ(titles(list), (std::vector<std::string>{"J", "M", "N", "S"}));

    // Every field is there: a missing one would not read back as the same JSON below.
    const json& ann = list["sections"][3]["people"][0];
    EXPECT_EQ(ann["id"], "ann-home");
    EXPECT_EQ(ann["kinID"], "AAAA1111");
    EXPECT_EQ(ann["circle"], 2);
    EXPECT_EQ(ann["memberIDs"], json::parse(R"(["ann-home","ann-work"])"));
    EXPECT_EQ(std::set<std::string>(ann["accountIDs"].begin(), ann["accountIDs"].end()),
              (std::set<std::string>{"personal", "work"}));

    // Each person is exactly what the application stores: read back from a
    // snapshot file and written again it is the same JSON.
    for (const auto& section : list["sections"]) {
        for (const auto& person : section["people"]) {
            const json file = {{"format", SnapshotCache::kFormat},
                               {"snapshot", {{"people", {person}}, {"accounts", json::array()}}}};
            const auto read = SnapshotCache::decode(file.dump());
            ASSERT_TRUE(read) << person.dump();
            ASSERT_EQ(read->people.size(), 1u);
            EXPECT_EQ(read->people[0].toJSON(), person);
        }
    }

    // As text: the section titles are headings, with the ids the commands take.
    const auto result = run({"list"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(result.out.find("J\n  Bob Jones"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("S\n  Ann Smith"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("ann-home"), std::string::npos);
    EXPECT_EQ(result.out.find("Dan Hidden"), std::string::npos);
    EXPECT_NE(result.out.find("\n8 people\n"), std::string::npos) << result.out;
}

TEST_F(PeopleCommandTest, JsonStaysValidWhateverACardHolds) {
    // Quotes, a backslash, a tab, a control character and bytes that are not UTF-8.
    put("personal", "odd", {"N:\"Quoted\" \\ Name;Tab\tHere\x01;;;", "FN:odd", "ORG:Caf\xE9 \xFF"});
    const auto list = runJson({"search", "quoted"});
    ASSERT_EQ(list["matchCount"], 1);
    const json& odd = list["sections"][0]["people"][0];
    EXPECT_EQ(odd["familyName"].get<std::string>().rfind("\"Quoted\"", 0), 0u) << odd.dump();
    EXPECT_NE(odd["givenName"].get<std::string>().find("Tab"), std::string::npos) << odd.dump();
    EXPECT_NE(odd["organization"].get<std::string>().find("Caf"), std::string::npos) << odd.dump();
}

TEST_F(PeopleCommandTest, ListSortsAndFiltersAsTheWindowDoes) {
    EXPECT_EQ(titles(runJson({"list", "--sort", "circle"})),
              (std::vector<std::string>{"Closest", "Good Friends", "No Circle"}));
    EXPECT_EQ(titles(runJson({"list", "--sort", "circle", "--desc"})),
              (std::vector<std::string>{"No Circle", "Good Friends", "Closest"}));
    EXPECT_EQ(names(runJson({"list", "--sort", "firstName"})).front(), "Ann Smith");
    EXPECT_EQ(names(runJson({"list", "--desc"})).front(), "Ann Smith");
    EXPECT_EQ(names(runJson({"list", "--account", "work"})), std::vector<std::string>{"Ann Smith"});
    EXPECT_EQ(names(runJson({"list", "--account", "WORK"})), std::vector<std::string>{"Ann Smith"});
    EXPECT_EQ(runJson({"list", "--circle", "1"})["matchCount"], 5);
    EXPECT_EQ(names(runJson({"list", "--circle", "good friends"})), std::vector<std::string>{"Ann Smith"});
    EXPECT_EQ(names(runJson({"list", "--hidden"})), std::vector<std::string>{"Dan Hidden"});
    // The shared options may come first too.
    const auto before = home.run({"--json", "--contacts", root.string(), "list", "--hidden"});
    EXPECT_EQ(names(before.json()), std::vector<std::string>{"Dan Hidden"});
}

TEST_F(PeopleCommandTest, SearchMatchesAsTheListsSearchField) {
    EXPECT_EQ(names(runJson({"search", "smith"})), (std::vector<std::string>{"Bob Jones", "Ann Smith"}));
    EXPECT_EQ(names(runJson({"search", "ann", "smith"})), std::vector<std::string>{"Ann Smith"});
    EXPECT_EQ(names(runJson({"search", "ELODIE"})), std::vector<std::string>{"Élodie Martin"});
    // Phone digits, whatever the formatting typed.
    EXPECT_EQ(names(runJson({"search", "010-0199"})), std::vector<std::string>{"Bob Jones"});
    // A former e-mail address still finds its person, and so does what only
    // her work card holds: a person is all of their cards.
    for (const char* query : {"oldco", "ann.smith@acme.example", "Engineer"}) {
        EXPECT_EQ(names(runJson({"search", query})), std::vector<std::string>{"Ann Smith"}) << query;
    }
    EXPECT_EQ(names(runJson({"search", "dan", "--hidden"})), std::vector<std::string>{"Dan Hidden"});
    const auto none = runJson({"search", "zebra"});
    EXPECT_EQ(none["matchCount"], 0);
    EXPECT_TRUE(none["sections"].empty());
    const auto text = run({"search", "zebra"});
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_NE(text.out.find("0 people"), std::string::npos) << text.out;
}

TEST_F(PeopleCommandTest, ShowPrintsOnePersonAndEveryCardFormerEntriesLast) {
    for (const char* argument : {"ann-work", "AAAA1111", "aaaa1111", "ann smith"}) {
        const auto shown = runJson({"show", argument});
        EXPECT_EQ(shown["person"]["id"], "ann-home") << argument;
    }
    const auto shown = runJson({"show", "ann-home"});
    ASSERT_EQ(shown["cards"].size(), 2u);
    const json& personal = shown["cards"][0];
    EXPECT_EQ(personal["id"], "ann-home");
    ASSERT_EQ(personal["emails"].size(), 2u);
    EXPECT_EQ(personal["emails"][0]["value"], "ann@example.com");
    EXPECT_EQ(personal["emails"][1]["label"], "ex-work");
    EXPECT_TRUE(personal["emails"][1]["id"].is_string());
    EXPECT_EQ(shown["cards"][1]["jobTitle"], "Engineer");
    EXPECT_EQ(shown["cards"][1]["note"], "Ask about the bridge\nand the boat");
    EXPECT_FALSE(personal.contains("note"));

    const auto text = run({"show", "ann-home"});
    ASSERT_EQ(text.exitCode, 0) << text.err;
    for (const char* expected : {"Ann Smith\n", "Good Friends (15)", "Personal, Work", "AAAA1111",
                                 "Personal · card ann-home (primary)", "Work · card ann-work",
                                 "Engineer, Acme", "ann.smith@acme.example",
                                 "note            Ask about the bridge\n                  and the boat\n"}) {
        EXPECT_NE(text.out.find(expected), std::string::npos) << expected << "\n" << text.out;
    }
    EXPECT_LT(text.out.find("ann@example.com"), text.out.find("ann@oldco.example"));

    // Show needs one person: no one, or several, is an error; a hidden person is found too.
    const auto nobody = run({"show", "zebra"});
    EXPECT_EQ(nobody.exitCode, 1);
    EXPECT_EQ(nobody.err, "kinbook: no one matches \"zebra\"\n");
    EXPECT_TRUE(nobody.out.empty());
    const auto several = run({"show", "near"});
    EXPECT_EQ(several.exitCode, 1);
    EXPECT_NE(several.err.find("5 people match \"near\""), std::string::npos) << several.err;
    EXPECT_NE(several.err.find("close-3"), std::string::npos) << several.err;
    EXPECT_EQ(runJson({"show", "dan"})["person"]["hidden"], true);
}

TEST_F(PeopleCommandTest, AccountsListsNamesAndCounts) {
    EXPECT_EQ(runJson({"accounts"}), json::parse(R"([{"id":"personal","name":"Personal","count":9},
                                                      {"id":"work","name":"Work","count":1}])"));
    const auto text = run({"accounts"});
    EXPECT_NE(text.out.find("Personal  personal  9 people"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("Work      work      1 person"), std::string::npos) << text.out;
}

TEST_F(PeopleCommandTest, CircleShowsPlacesAndRefusesAFullCircle) {
    EXPECT_EQ(run({"circle", "bob"}).out, "Bob Jones: no circle\n");
    const auto full = run({"circle", "bob", "1"});
    EXPECT_EQ(full.exitCode, 1);
    EXPECT_EQ(full.err, "kinbook: Your 5 is full. Move someone out of it first.\n");
    EXPECT_EQ(cardFile("personal", "bob").find("kinbook://"), std::string::npos);

    EXPECT_EQ(runJson({"circle", "bob", "friends"}), json::parse(R"({"id":"bob","circle":3})"));
    EXPECT_NE(cardFile("personal", "bob").find("kinbook://c/"), std::string::npos);
    EXPECT_NE(cardFile("personal", "bob").find("?r=3"), std::string::npos);
    EXPECT_EQ(run({"circle", "bob"}).out, "Bob Jones: Friends (50)\n");
    // Every card of a linked person carries the circle.
    EXPECT_EQ(run({"circle", "ann-home", "4"}).exitCode, 0);
    EXPECT_NE(cardFile("work", "ann-work").find("r=4"), std::string::npos);
    EXPECT_EQ(runJson({"circle", "bob", "none"}), json::parse(R"({"id":"bob","circle":null})"));
    EXPECT_EQ(cardFile("personal", "bob").find("r=3"), std::string::npos);

    const auto unknown = run({"circle", "bob", "9"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_NE(unknown.err.find("unknown circle \"9\""), std::string::npos) << unknown.err;
}

TEST_F(PeopleCommandTest, FormerAndCurrentChangeOnlyTheLabel) {
    const auto former = run({"former", "bob", "(555) 010-0199"});
    ASSERT_EQ(former.exitCode, 0) << former.err;
    EXPECT_NE(cardFile("personal", "bob").find("X-ABLabel:ex-work"), std::string::npos)
        << cardFile("personal", "bob");
    EXPECT_NE(cardFile("personal", "bob").find("(555) 010-0199"), std::string::npos);
    EXPECT_NE(former.out.find("ex-work"), std::string::npos) << former.out;

    // By the entry's id, as show gives it.
    const auto shown = runJson({"show", "bob"});
    const std::string entryID = shown["cards"][0]["phones"][0]["id"];
    EXPECT_EQ(shown["cards"][0]["phones"][0]["label"], "ex-work");
    ASSERT_EQ(run({"current", "bob", entryID}).exitCode, 0);
    EXPECT_EQ(runJson({"show", "bob"})["cards"][0]["phones"][0]["label"], "work");

    const auto missing = run({"former", "bob", "nothing@example.com"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.err, "kinbook: Bob Jones has no phone, e-mail or address \"nothing@example.com\"\n");
}

TEST_F(PeopleCommandTest, HideAndUnhideMoveAPersonOutOfTheListAndBack) {
    EXPECT_EQ(runJson({"hide", "bob"}), json::parse(R"({"id":"bob","hidden":true})"));
    EXPECT_NE(cardFile("personal", "bob").find("h=1"), std::string::npos);
    EXPECT_EQ(runJson({"list"})["matchCount"], 7);
    EXPECT_EQ(names(runJson({"list", "--hidden"})), (std::vector<std::string>{"Dan Hidden", "Bob Jones"}));
    EXPECT_EQ(run({"unhide", "bob"}).out, "Bob Jones: shown in the list\n");
    EXPECT_EQ(runJson({"list"})["matchCount"], 8);
}

TEST_F(PeopleCommandTest, EmailAndPhoneSpeakTheMailClientsCompletionFormat) {
    const auto email = run({"email", "smith"});
    ASSERT_EQ(email.exitCode, 0) << email.err;
    EXPECT_EQ(email.out, "4 e-mail addresses of 2 people for \"smith\"\n"
                         "bob@smithfield.example\tBob Jones\twork\n"
                         "ann@example.com\tAnn Smith\thome\n"
                         "ann.smith@acme.example\tAnn Smith\twork\n"
                         "ann@oldco.example\tAnn Smith\tex-work\n");
    const auto phone = run({"phone", "ann"});
    EXPECT_EQ(phone.out, "1 phone number of 1 person for \"ann\"\n+1 503-555-0100\tAnn Smith\tmobile\n");
    const auto none = run({"email", "zebra"});
    EXPECT_EQ(none.exitCode, 0);
    EXPECT_EQ(none.out, "No e-mail address found for \"zebra\"\n");
    // Clients that read every line as an address get no status line.
    EXPECT_EQ(run({"email", "--parsable", "acme"}).out, "ann@example.com\tAnn Smith\thome\n"
                                                        "ann.smith@acme.example\tAnn Smith\twork\n"
                                                        "ann@oldco.example\tAnn Smith\tex-work\n");
    EXPECT_EQ(run({"phone", "--parsable", "zebra"}).out, "");
    EXPECT_EQ(
        runJson({"email", "bob"}),
        json::parse(
            R"([{"address":"bob@smithfield.example","name":"Bob Jones","label":"work","personID":"bob"}])"));
}

TEST_F(PeopleCommandTest, TheToolTakesWhatPeopleTypeAndSuggestsTheCommandMeant) {
    for (const std::string sort : {"lastname", "LastName", "last-name", "last_name", "Last Name"}) {
        EXPECT_EQ(names(runJson({"list", "--sort", sort})).front(), "Bob Jones") << sort;
    }
    EXPECT_EQ(titles(runJson({"list", "--sort", "zip-code"})), std::vector<std::string>{"No Address"});
    EXPECT_EQ(names(runJson({"list", "--sort", "FIRSTNAME"})).front(), "Ann Smith");

    const auto typo = run({"lsit"});
    EXPECT_EQ(typo.exitCode, 2);
    EXPECT_EQ(typo.err, "kinbook: unknown command \"lsit\"; did you mean \"list\"?\n");
    const auto far = run({"frobnicate"});
    EXPECT_EQ(far.exitCode, 2);
    EXPECT_TRUE(far.err.starts_with("kinbook: unknown command \"frobnicate\"; the commands are list, "))
        << far.err;

    // A phone number by its digits, without the country code.
    ASSERT_EQ(run({"former", "ann", "5035550100"}).exitCode, 0);
    EXPECT_NE(cardFile("personal", "ann-home").find("X-ABLabel:ex-mobile"), std::string::npos)
        << cardFile("personal", "ann-home");
}

// On a terminal the list fits its width and colours what it shows, with short
// ids that the commands take; to a program every value is written whole.
TEST_F(PeopleCommandTest, ListFitsTheTerminalAndWritesWholeLinesToAProgram) {
    put("personal", "long-id-0123456789-abcdef",
        {"N:Verylongfamilyname;Maximiliana;;;", "FN:Maximiliana Verylongfamilyname",
         "EMAIL:maximiliana.verylongfamilyname@a-rather-long-domain.example", "TEL:+44 20 7946 0000"});
    const auto piped = run({"list"});
    EXPECT_NE(piped.out.find("maximiliana.verylongfamilyname@a-rather-long-domain.example"),
              std::string::npos);
    EXPECT_NE(piped.out.find("long-id-0123456789-abcdef"), std::string::npos);
    EXPECT_EQ(piped.out.find('\x1b'), std::string::npos);

    const auto narrow = home.runAtTerminal({"--contacts", root.string(), "list"}, 60);
    ASSERT_EQ(narrow.exitCode, 0) << narrow.err;
    EXPECT_NE(narrow.out.find("\x1b["), std::string::npos);
    std::size_t lines = 0;
    for (std::size_t start = 0; start < narrow.out.size();) {
        auto end = narrow.out.find('\n', start);
        end = end == std::string::npos ? narrow.out.size() : end;
        std::string line = narrow.out.substr(start, end - start);
        // The colours take no room on the screen.
        for (auto escape = line.find('\x1b'); escape != std::string::npos; escape = line.find('\x1b')) {
            line.erase(escape, line.find('m', escape) - escape + 1);
        }
        EXPECT_LE(displayColumns(line), 60u) << line;
        ++lines;
        start = end + 1;
    }
    EXPECT_GT(lines, 10u);
    EXPECT_NE(narrow.out.find("long-id-"), std::string::npos);
    EXPECT_EQ(narrow.out.find("long-id-0123456789-abcdef"), std::string::npos) << narrow.out;
    // The short id names the person.
    EXPECT_EQ(runJson({"show", "long-id-"})["person"]["id"], "long-id-0123456789-abcdef");

    home.setVariable("NO_COLOR", "1");
    const auto plain = home.runAtTerminal({"--contacts", root.string(), "list"}, 60);
    EXPECT_EQ(plain.out.find('\x1b'), std::string::npos);
}

TEST_F(PeopleCommandTest, ASecondRunStartsFromTheCacheAndSeesChangesMadeMeanwhile) {
    const fs::path cacheFolder = home.cache() / "kinbook";
    const fs::path log = home.state() / "kinbook" / "app.log";
    // --no-cache, before or after the command, neither writes the cache nor reads it.
    ASSERT_EQ(run({"--no-cache", "list"}).exitCode, 0);
    EXPECT_FALSE(fs::exists(cacheFolder));
    ASSERT_EQ(run({"list"}).exitCode, 0);
    std::vector<fs::path> caches;
    for (const auto& entry : fs::recursive_directory_iterator(cacheFolder)) {
        if (entry.is_regular_file()) {
            caches.push_back(entry.path());
        }
    }
    ASSERT_EQ(caches.size(), 1u);
    EXPECT_EQ(caches[0].filename(), "kinbook-snapshot.json");
    ASSERT_EQ(run({"list", "--no-cache"}).exitCode, 0);
    EXPECT_EQ(readFile(log).find("[list] cache: "), std::string::npos) << readFile(log);

    // Another program adds a card between the runs.
    put("work", "zed", {"N:Zimmer;Zed;;;", "FN:Zed Zimmer"});
    const auto list = runJson({"list"});
    EXPECT_NE(readFile(log).find("[list] cache: 9 people"), std::string::npos) << readFile(log);
    EXPECT_EQ(names(list).back(), "Zed Zimmer");
}

TEST_F(PeopleCommandTest, ProblemsAreReportedOnStderrWithANonZeroStatus) {
    const auto missing = home.run({"--contacts", (home.path() / "nowhere").string(), "list"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.err,
              "kinbook: there is no address book at " + (home.path() / "nowhere").string() + "\n");
    EXPECT_TRUE(missing.out.empty());
    EXPECT_FALSE(fs::exists(home.path() / "nowhere"));

    const auto sort = run({"list", "--sort", "age"});
    EXPECT_EQ(sort.exitCode, 2);
    EXPECT_NE(sort.err.find("unknown sort order \"age\""), std::string::npos) << sort.err;
    const auto account = run({"list", "--account", "gmail"});
    EXPECT_EQ(account.exitCode, 1);
    EXPECT_EQ(account.err,
              "kinbook: no account \"gmail\"; the accounts are personal (Personal), work (Work)\n");
    EXPECT_EQ(run({"search"}).exitCode, 2);
    EXPECT_EQ(run({"circle"}).exitCode, 2);

    // A read-only account refuses changes with the address book's own message.
    fs::create_directories(home.config() / "kinbook");
    writeFile(home.config() / "kinbook" / "config.toml", "[accounts.personal]\nread_only = true\n");
    const auto readOnly = run({"hide", "bob"});
    EXPECT_EQ(readOnly.exitCode, 1);
    EXPECT_EQ(readOnly.err, "kinbook: This address book can't be edited.\n");

    writeFile(home.config() / "kinbook" / "config.toml", "notes_locked = 1\n");
    const auto config = run({"list"});
    EXPECT_EQ(config.exitCode, 1);
    EXPECT_NE(config.err.find("config.toml:1:16: \"notes_locked\" must be true or false"), std::string::npos)
        << config.err;
}

// A mail client's query on a fresh system is no new user at a terminal: it
// gets no demo addresses, and no demo address book is made behind its back.
TEST(KinbookFirstRun, AProgramAskingOnAFreshSystemIsToldThatNoAddressBookIsConfigured) {
    KinbookHome home;
    const auto query = home.run({"email", "maya"});
    EXPECT_EQ(query.exitCode, 1);
    EXPECT_TRUE(query.out.empty()) << query.out;
    EXPECT_TRUE(query.err.starts_with("kinbook: no address book configured")) << query.err;
    EXPECT_FALSE(fs::exists(home.data() / "kinbook" / "contacts"));
}

TEST(KinbookFirstRun, SeedsTheDemoAddressBookOnceAndShowsIt) {
    KinbookHome home;
    const auto first = home.runAtTerminal({"list"});
    ASSERT_EQ(first.exitCode, 0) << first.err;
    EXPECT_NE(first.err.find("made a demo address book"), std::string::npos) << first.err;
    EXPECT_NE(first.out.find("Maya Okafor"), std::string::npos) << first.out;
    EXPECT_TRUE(fs::exists(home.data() / "kinbook" / "contacts" / "default" / "displayname"));

    // Past jobs from the sidecar are searched too; the book is made once.
    const auto formerEmployer = home.run({"search", "--json", "Tidewater"});
    ASSERT_EQ(formerEmployer.exitCode, 0) << formerEmployer.err;
    EXPECT_TRUE(formerEmployer.err.empty()) << formerEmployer.err;
    EXPECT_EQ(formerEmployer.json()["matchCount"], 1);
    EXPECT_EQ(formerEmployer.json()["sections"][0]["people"][0]["displayName"], "Priya Raman");
    // A linked person shows both cards.
    const auto priya = home.run({"show", "--json", "priya"});
    EXPECT_EQ(priya.json()["cards"].size(), 2u);
}

} // namespace
} // namespace kinbook::testing
