#include "KinbookKit/people/PeopleList.h"

#include "KinbookKit/Version.h"
#include "KinbookKit/addressbook/CardFileReader.h"
#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/text/AppLog.h"
#include "tests/people/ForwardingBook.h"
#include "tests/support/FakeClock.h"
#include "tests/support/ManualExecutor.h"
#include "tests/support/TempFolder.h"

#include <fmt/core.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <random>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::readFile;
using testing::writeFile;

// --- Helpers -------------------------------------------------------------------

std::string vcard(const std::string& uid, const std::string& given, const std::string& family,
                  const std::string& extra = "") {
    return "BEGIN:VCARD\r\nVERSION:3.0\r\nN:" + family + ";" + given + ";;;\r\nFN:" + given + " " + family +
           "\r\n" + extra + "UID:" + uid + "\r\nEND:VCARD\r\n";
}

std::string anchor(const std::string& kinID, const std::string& query = "") {
    return "URL:kinbook://c/" + kinID + query + "\r\n";
}

// The platform log's side of the list's lines, as other users would see them.
class CapturingPlatformLog final : public PlatformLog {
public:
    void write(LogLevel, std::string_view category, std::string_view message) override {
        std::lock_guard lock(m_mutex);
        if (category == "list") {
            m_lines.emplace_back(message);
        }
    }
    std::vector<std::string> take() {
        std::lock_guard lock(m_mutex);
        return std::exchange(m_lines, {});
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

// A watcher that reports a change when the test says so.
class ManualFolderWatcher final : public FolderWatcher {
public:
    Result<void, std::string> start(const fs::path&, Executor& executor, Callback onChange) override {
        m_executor = &executor;
        m_onChange = std::move(onChange);
        return {};
    }
    void stop() override { m_onChange = nullptr; }
    void fire() {
        if (m_onChange) {
            m_executor->post([onChange = m_onChange] { onChange(FolderChange{{}, true}); });
        }
    }
    bool watching() const { return m_onChange != nullptr; }

private:
    Executor* m_executor = nullptr;
    Callback m_onChange;
};

// The real address book, with failures injected where a test asks.
class FaultyAddressBook final : public testing::ForwardingBook {
public:
    using ForwardingBook::ForwardingBook;

    std::optional<AddressBookError> failReads;
    bool startOver = false;
    bool noIDs = false;
    int cardReads = 0;
    int thumbnailReads = 0;

    Result<FullRead, AddressBookError> readAll(const ReadOptions& options) override {
        if (failReads) {
            return failure(*failReads);
        }
        return ForwardingBook::readAll(options);
    }
    Result<AddressBookChanges, AddressBookError> changesSince(std::span<const std::uint8_t> token) override {
        if (startOver) {
            return AddressBookChanges{.startOver = true};
        }
        return ForwardingBook::changesSince(token);
    }
    Result<std::vector<std::string>, AddressBookError> allCardIDs() override {
        if (noIDs) {
            return std::vector<std::string>{};
        }
        return ForwardingBook::allCardIDs();
    }
    Result<ContactCard, AddressBookError> card(std::string_view id) override {
        ++cardReads;
        return ForwardingBook::card(id);
    }
    std::map<std::string, std::vector<std::uint8_t>> thumbnails(std::span<const std::string> ids) override {
        ++thumbnailReads;
        return ForwardingBook::thumbnails(ids);
    }
};

class FixedPastJobs final : public PastJobSource {
public:
    explicit FixedPastJobs(std::map<std::string, std::vector<PastJob>> jobs) : m_jobs(std::move(jobs)) {}
    std::map<std::string, std::vector<PastJob>> allJobs() override { return m_jobs; }

private:
    std::map<std::string, std::vector<PastJob>> m_jobs;
};

std::vector<std::string> idsOf(const std::vector<Section>& sections) {
    std::vector<std::string> ids;
    for (const auto& section : sections) {
        for (const auto& person : section.people) {
            ids.push_back(person->id);
        }
    }
    return ids;
}

std::vector<std::string> titlesOf(const std::vector<Section>& sections) {
    std::vector<std::string> titles;
    for (const auto& section : sections) {
        titles.push_back(section.letter);
    }
    return titles;
}

std::size_t countStartingWith(const std::vector<std::string>& lines, std::string_view prefix) {
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const std::string& line) { return line.starts_with(prefix); }));
}

bool contains(const std::vector<std::string>& lines, std::string_view line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// The address book's own card reader, counting the files it reads: a read
// of every card goes through it, a read of single cards does not.
class CountingCardReader final : public CardBatchReader {
public:
    CountingCardReader(std::unique_ptr<CardBatchReader> inner, std::atomic<std::size_t>& count)
        : m_inner(std::move(inner)), m_count(count) {}

    void read(std::span<const File> files, std::span<Result> results) override {
        m_count += files.size();
        m_inner->read(files, results);
    }

private:
    std::unique_ptr<CardBatchReader> m_inner;
    std::atomic<std::size_t>& m_count;
};

// --- Fixture -------------------------------------------------------------------

class PeopleListTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(root() / "home");
        fs::create_directories(root() / "work");
        writeCard("home", "JANE-1", vcard("JANE-1", "Jane", "Appleseed", anchor("K1")));
        writeCard("work", "JANE-2", vcard("JANE-2", "Janie", "Appleseed", anchor("K1", "?p=1")));
        writeCard("home", "BOB-1", vcard("BOB-1", "Bob", "Brown", "TEL;type=WORK:+1 212 555 0100\r\n"));
    }

    fs::path root() const { return m_folder / "contacts"; }

    void writeCard(const std::string& account, const std::string& uid, const std::string& text) {
        writeFile(root() / account / (uid + ".vcf"), text);
    }

    std::shared_ptr<FaultyAddressBook> makeBook() {
        VdirAddressBook::Options options;
        options.root = root();
        options.stateFolder = m_folder / "state";
        options.log = m_storeLog;
        options.watcher = m_watcher;
        options.pauseBeforeRetry = [](std::chrono::milliseconds) {};
        options.cardReaders = [this](bool stamps) {
            return std::make_unique<CountingCardReader>(CardFileReader::factory()(stamps), m_cardFilesRead);
        };
        return std::make_shared<FaultyAddressBook>(std::make_shared<VdirAddressBook>(options));
    }

    PeopleListOptions options() {
        PeopleListOptions options;
        options.log = m_log;
        options.clock = &m_clock;
        return options;
    }

    std::unique_ptr<PeopleList> makeList(PeopleListOptions options) {
        return std::make_unique<PeopleList>(m_main, m_background, m_book, std::move(options));
    }
    std::unique_ptr<PeopleList> makeList() { return makeList(options()); }

    // Runs both executors until neither has anything left to do now.
    void run() {
        while (m_main.runUntilIdle() + m_background.runUntilIdle() > 0) {
        }
    }

    void loadAndWait(PeopleList& list) {
        bool done = false;
        list.load([&] { done = true; });
        run();
        ASSERT_TRUE(done);
    }
    std::unique_ptr<PeopleList> loaded(PeopleListOptions options) {
        auto list = makeList(std::move(options));
        loadAndWait(*list);
        return list;
    }
    std::unique_ptr<PeopleList> loaded() { return loaded(options()); }

    ActionResult perform(const std::function<void(std::function<void(ActionResult)>)>& action) {
        std::optional<ActionResult> result;
        action([&](ActionResult outcome) { result.emplace(std::move(outcome)); });
        run();
        EXPECT_TRUE(result.has_value());
        return result.value_or(ActionResult());
    }

    std::optional<ContactCard> readCard(PeopleList& list, const std::string& id) {
        std::optional<ContactCard> read;
        bool answered = false;
        list.card(id, [&](std::optional<ContactCard> card) {
            read = std::move(card);
            answered = true;
        });
        run();
        EXPECT_TRUE(answered);
        return read;
    }

    std::vector<std::string> lines() { return m_platform.take(); }

    testing::TempFolder m_folder;
    AppLog m_appLog{m_folder / "log" / "app.log"};
    CapturingPlatformLog m_platform;
    std::shared_ptr<KinLog> m_log = std::make_shared<KinLog>("list", m_appLog, m_platform);
    std::shared_ptr<KinLog> m_storeLog = std::make_shared<KinLog>("store", m_appLog, m_platform);
    std::shared_ptr<ManualFolderWatcher> m_watcher = std::make_shared<ManualFolderWatcher>();
    testing::ManualExecutor m_main;
    testing::ManualExecutor m_background;
    std::atomic<std::size_t> m_cardFilesRead{0};
    std::shared_ptr<FaultyAddressBook> m_book = makeBook();
    testing::FakeClock m_clock;
};

const std::string kLaunch = std::string("—— launch: version ") + kVersion + " build " + kVersion;

// --- Loading -------------------------------------------------------------------

TEST_F(PeopleListTest, AFirstLoadShowsNamesThenReadsEverythingAndJoinsLinkedCards) {
    auto list = loaded();

    EXPECT_EQ(lines(), (std::vector<std::string>{
                           "start: access=granted",
                           kLaunch,
                           "names pass: 3 in 0 ms",
                           "apply: 2 people, 0 ms on main",
                           "index: 7 sorts in 0 ms",
                           "fetch: 3 people, 2 accounts in 0 ms",
                           "apply: 2 people, 0 ms on main",
                           "index: 7 sorts in 0 ms",
                       }));
    ASSERT_EQ(list->people().size(), 2u);
    const auto jane = list->person("JANE-1");
    ASSERT_NE(jane, nullptr);
    EXPECT_EQ(jane->id, "JANE-2"); // the primary card leads
    EXPECT_EQ(jane->givenName, "Janie");
    EXPECT_EQ(jane->memberIDs, (std::vector<std::string>{"JANE-2", "JANE-1"}));
    EXPECT_EQ(jane->accountIDs, (std::vector<std::string>{"work", "home"}));
    EXPECT_TRUE(jane->detailed);
    EXPECT_EQ(list->groupOf("JANE-1"), "JANE-2");
    EXPECT_EQ(list->person("NOBODY"), nullptr);
    EXPECT_EQ(list->accountCounts(), (std::map<std::string, int>{{"home", 2}, {"work", 1}}));

    EXPECT_EQ(titlesOf(list->sections()), (std::vector<std::string>{"A", "B"}));
    EXPECT_EQ(idsOf(list->sections()), (std::vector<std::string>{"JANE-2", "BOB-1"}));
    EXPECT_EQ(list->matchCount(), 2);
    EXPECT_EQ(list->timings().refreshKind, "full");
    EXPECT_EQ(list->timings().fetchMs, 0);
    EXPECT_TRUE(list->historyToken().has_value());
    EXPECT_FALSE(list->isLoading());
    EXPECT_TRUE(list->isWatching());
    EXPECT_EQ(list->access(), AddressBookAccess::granted);
}

TEST_F(PeopleListTest, CallsDuringALoadWaitForItAndShareExactlyOneMoreRun) {
    auto list = makeList();
    std::vector<int> finished;
    list->load([&] { finished.push_back(0); });
    for (int caller = 1; caller <= 3; ++caller) {
        list->load([&, caller] { finished.push_back(caller); });
    }
    EXPECT_EQ(lines(), (std::vector<std::string>{
                           "load: queued behind a running refresh (1 waiting)",
                           "load: queued behind a running refresh (2 waiting)",
                           "load: queued behind a running refresh (3 waiting)",
                       }));
    run();
    EXPECT_EQ(countStartingWith(lines(), "start: access="), 2u);
    EXPECT_EQ(finished, (std::vector<int>{1, 2, 3, 0}));

    // Once idle, a call runs at once again.
    bool again = false;
    list->load([&] { again = true; });
    run();
    EXPECT_TRUE(again);
    EXPECT_EQ(countStartingWith(lines(), "start: access="), 1u);
}

TEST_F(PeopleListTest, ChangesAreReadForADayAndThenEverythingIsReadAgain) {
    auto list = loaded();
    ASSERT_TRUE(list->fullReadAt().has_value());
    lines();

    m_clock.setNow(*list->fullReadAt() + 23h);
    loadAndWait(*list);
    auto read = lines();
    EXPECT_TRUE(contains(read, "changes: 0 changed, 0 deleted in 0 ms"));
    EXPECT_EQ(countStartingWith(read, "fetch: "), 0u);
    EXPECT_EQ(list->timings().refreshKind, "changes");

    // A history that cannot say what changed leads to a full read at once.
    m_book->startOver = true;
    loadAndWait(*list);
    read = lines();
    const auto startOver = std::find(read.begin(), read.end(), "changes: start over");
    ASSERT_NE(startOver, read.end());
    EXPECT_NE(std::find(startOver, read.end(), "fetch: 3 people, 2 accounts in 0 ms"), read.end());
    m_book->startOver = false;

    m_clock.setNow(*list->fullReadAt() + 25h);
    loadAndWait(*list);
    read = lines();
    EXPECT_TRUE(contains(read, "fetch: 3 people, 2 accounts in 0 ms"));
    // People were shown already: no names pass this time.
    EXPECT_EQ(countStartingWith(read, "names pass: "), 0u);
    EXPECT_EQ(list->timings().refreshKind, "full");
}

// The accounts are listed again with every change read, so that a new
// account's people, in a folder old or new, are known to the sidebar and its
// filter at once.
TEST_F(PeopleListTest, AnOutsideEditIsReadAfterItsNoticesAreGatheredAndTheAccountsFollowIt) {
    auto list = loaded();
    lines();
    const auto version = list->peopleVersion();
    // The page has read Bob's card, and his row its thumbnail.
    ASSERT_EQ(readCard(*list, "BOB-1")->givenName, "Bob");
    EXPECT_EQ(list->thumbnail("BOB-1"), nullptr);
    run();
    const int thumbnailReads = m_book->thumbnailReads;
    const auto cardsVersion = list->cardsVersion();

    writeCard("home", "BOB-1", vcard("BOB-1", "Robert", "Brown"));
    writeCard("work", "CAROL-1", vcard("CAROL-1", "Carol", "Cole"));
    fs::remove(root() / "home" / "JANE-1.vcf");
    for (int notice = 0; notice < 3; ++notice) {
        m_watcher->fire();
    }
    run();
    m_main.advance(499ms);
    EXPECT_TRUE(lines().empty());
    m_main.advance(1ms);
    run();

    const auto read = lines();
    ASSERT_FALSE(read.empty());
    EXPECT_EQ(read.front(), "store changed: 3 notices");
    EXPECT_TRUE(contains(read, "refresh from changes: 2 changed, 1 deleted in 0 ms"));
    EXPECT_GT(list->peopleVersion(), version);
    EXPECT_EQ(list->person("BOB-1")->givenName, "Robert");
    EXPECT_NE(list->person("CAROL-1"), nullptr);
    // Jane keeps her other card, which now leads alone.
    EXPECT_EQ(list->person("JANE-2")->memberIDs, std::vector<std::string>{"JANE-2"});
    EXPECT_EQ(list->person("JANE-1"), nullptr);
    EXPECT_EQ(list->timings().refreshKind, "changes");
    // The copies read before the edit are gone: the page reads the new card.
    EXPECT_GT(list->cardsVersion(), cardsVersion);
    EXPECT_FALSE(list->cardCache().contains("BOB-1"));
    EXPECT_EQ(readCard(*list, "BOB-1")->givenName, "Robert");
    EXPECT_EQ(list->thumbnail("BOB-1"), nullptr);
    run();
    EXPECT_EQ(m_book->thumbnailReads, thumbnailReads + 1);
    EXPECT_EQ(list->accountCounts(), (std::map<std::string, int>{{"home", 1}, {"work", 2}}));
    list->setAccountFilter("work");
    EXPECT_EQ(idsOf(list->sections()), (std::vector<std::string>{"JANE-2", "CAROL-1"}));

    // A folder that appears while the list is open is an account at once.
    fs::create_directory(root() / "family");
    writeCard("family", "DAN-1", vcard("DAN-1", "Dan", "Doyle"));
    m_watcher->fire();
    run();
    m_main.advance(500ms);
    run();
    EXPECT_EQ(list->accountCounts().at("family"), 1);
    list->setAccountFilter("family");
    EXPECT_EQ(idsOf(list->sections()), (std::vector<std::string>{"DAN-1"}));
}

TEST_F(PeopleListTest, AFailedReadKeepsWhatIsShownAndReportsOnlyWhenNothingIs) {
    auto list = loaded();
    lines();
    m_book->failReads = AddressBookError::store("the disk is gone");
    m_clock.setNow(*list->fullReadAt() + 25h);
    loadAndWait(*list);
    EXPECT_TRUE(contains(lines(), "fetch failed: the disk is gone"));
    EXPECT_EQ(list->people().size(), 2u);
    EXPECT_EQ(list->errorMessage(), std::nullopt);

    auto empty = loaded();
    EXPECT_TRUE(empty->people().empty());
    EXPECT_EQ(empty->errorMessage(), "the disk is gone");
    EXPECT_FALSE(empty->isLoading());
}

// Each start shows the cached snapshot first and reads only what changed
// since: changed group cards are read alone, and the cache absorbs what was
// read. A damaged cache is passed over for a full read that replaces it.
TEST_F(PeopleListTest, TheCachedSnapshotIsShownFirstAndOnlyChangesAreReadAfterIt) {
    const auto group = [](const std::string& uid, const std::string& kind, const std::string& name,
                          const std::string& members) {
        return "BEGIN:VCARD\r\nVERSION:3.0\r\n" + kind + ":group\r\nFN:" + name + "\r\n" + members +
               "UID:" + uid + "\r\nEND:VCARD\r\n";
    };
    writeCard("home", "GROUP-1", group("GROUP-1", "KIND", "Book club", "MEMBER:urn:uuid:BOB-1\r\n"));
    writeCard("work", "GROUP-2", group("GROUP-2", "X-ADDRESSBOOKSERVER-KIND", "Team", ""));
    auto cache = std::make_shared<SnapshotCache>(m_folder / "cache" / "kinbook-snapshot.json");
    auto withCache = options();
    withCache.cache = cache;
    // Each start with a fresh address book object, as in a new process.
    const auto start = [&] {
        m_book = makeBook();
        return loaded(withCache);
    };
    ASSERT_EQ(start()->people().size(), 2u);
    ASSERT_TRUE(fs::exists(cache->url()));

    // Both groups change, and Bob's card; the next start reads those three files alone.
    writeCard("home", "GROUP-1",
              group("GROUP-1", "KIND", "Book club", "MEMBER:urn:uuid:BOB-1\r\nMEMBER:urn:uuid:JANE-1\r\n"));
    writeCard("work", "GROUP-2", group("GROUP-2", "X-ADDRESSBOOKSERVER-KIND", "The team", ""));
    writeCard("home", "BOB-1", vcard("BOB-1", "Robert", "Brown"));
    lines();
    m_cardFilesRead = 0;
    {
        const auto second = start();
        const auto read = lines();
        EXPECT_EQ(m_cardFilesRead, 0u) << "no read of every card";
        EXPECT_EQ(countStartingWith(read, "fetch: "), 0u);
        EXPECT_TRUE(contains(read, "refresh from changes: 1 changed, 2 deleted in 0 ms"));
        EXPECT_EQ(second->people().size(), 2u);
        EXPECT_EQ(second->person("BOB-1")->givenName, "Robert");
    }

    // The start after that finds the changes in the cache: nothing to
    // replay, and Robert shown from the cache itself, before anything is read.
    {
        const auto third = start();
        const auto read = lines();
        EXPECT_EQ(m_cardFilesRead, 0u);
        ASSERT_GE(read.size(), 4u);
        EXPECT_EQ(read[2], "apply: 2 people, 0 ms on main");
        EXPECT_EQ(read[3], "cache: 2 people in 0 ms");
        EXPECT_TRUE(contains(read, "changes: 0 changed, 0 deleted in 0 ms"));
        EXPECT_EQ(third->timings().cacheMs, 0);
        EXPECT_EQ(third->person("BOB-1")->givenName, "Robert");
        EXPECT_EQ(third->person("JANE-1")->id, "JANE-2");
        const auto cached = cache->read();
        ASSERT_TRUE(cached.has_value());
        EXPECT_EQ(cached->fullReadAt, third->fullReadAt())
            << "replayed changes leave the time of the full read";
    }

    writeFile(cache->url(), "{\"format\": 10, \"snapshot\": {\"people\": [");
    const auto fourth = start();
    const auto read = lines();
    EXPECT_EQ(countStartingWith(read, "cache: "), 0u);
    EXPECT_EQ(countStartingWith(read, "fetch: "), 1u);
    EXPECT_EQ(fourth->people().size(), 2u);
    EXPECT_TRUE(cache->read().has_value()) << "the full read replaced the damaged file";
}

TEST_F(PeopleListTest, RefetchReadsJustTheGivenCardsAndARetiredIdStillFindsItsPerson) {
    auto list = loaded();
    lines();

    // Jane's home card becomes the primary one and leads from now on.
    writeCard("home", "JANE-1", vcard("JANE-1", "Jane", "Appleseed", anchor("K1", "?p=1")));
    writeCard("work", "JANE-2", vcard("JANE-2", "Janie", "Appleseed", anchor("K1")));
    bool done = false;
    list->refetch({"JANE-1", "JANE-2"}, [&] { done = true; });
    run();
    EXPECT_TRUE(done);
    auto read = lines();
    ASSERT_GE(read.size(), 3u);
    EXPECT_EQ(read[0], "refetch: 2 ids");
    EXPECT_EQ(read[1], "apply: 2 people, 0 ms on main");
    EXPECT_EQ(read[2], "refetch: fetched 2");
    EXPECT_EQ(list->person("JANE-2")->id, "JANE-1");
    EXPECT_EQ(list->aliases().at("JANE-2"), "JANE-1");

    // The retired card goes; its id still finds Jane.
    fs::remove(root() / "work" / "JANE-2.vcf");
    list->refetch({"JANE-2"});
    run();
    EXPECT_TRUE(contains(lines(), "refetch: fetched 0"));
    ASSERT_NE(list->person("JANE-2"), nullptr);
    EXPECT_EQ(list->person("JANE-2")->id, "JANE-1");
    EXPECT_EQ(list->raw().size(), 2u);
}

TEST_F(PeopleListTest, ReconcileDropsGoneCardsAndReadsNewOnesButTrustsNoEmptyAnswer) {
    auto list = loaded();
    lines();

    m_book->noIDs = true;
    const auto version = list->peopleVersion();
    list->reconcile();
    run();
    EXPECT_EQ(lines(), (std::vector<std::string>{"reconcile: start", "reconcile: no IDs read"}));
    EXPECT_EQ(list->peopleVersion(), version);
    EXPECT_EQ(list->people().size(), 2u);

    m_book->noIDs = false;
    fs::remove(root() / "home" / "BOB-1.vcf");
    writeCard("work", "CAROL-1", vcard("CAROL-1", "Carol", "Cole"));
    bool done = false;
    list->reconcile([&] { done = true; });
    run();
    EXPECT_TRUE(done);
    const auto read = lines();
    EXPECT_TRUE(contains(read, "reconcile: 3 IDs in 0 ms"));
    EXPECT_TRUE(contains(read, "reconcile: 1 gone, 1 new"));
    EXPECT_TRUE(contains(read, "refetch: fetched 1"));
    EXPECT_EQ(list->person("BOB-1"), nullptr);
    EXPECT_NE(list->person("CAROL-1"), nullptr);
}

TEST_F(PeopleListTest, TheCardCacheKeepsTheLatestSixtyFourAndReadsACardOnceAtATime) {
    for (int i = 0; i < 65; ++i) {
        const auto id = fmt::format("C{:02}", i);
        writeCard("home", id, vcard(id, "Card", fmt::format("Number{:02}", i)));
    }
    auto list = loaded();
    for (int i = 0; i < 65; ++i) {
        ASSERT_TRUE(readCard(*list, fmt::format("C{:02}", i)).has_value());
    }
    EXPECT_EQ(list->cardCache().size(), 64u);
    EXPECT_FALSE(list->cardCache().contains("C00"));
    EXPECT_TRUE(list->cardCache().contains("C01"));
    EXPECT_TRUE(list->cardCache().contains("C64"));

    // Two pages asking for one card share one read; a cached card is not read again.
    const int reads = m_book->cardReads;
    int answers = 0;
    list->card("BOB-1", [&](std::optional<ContactCard> card) { answers += card ? 1 : 0; });
    list->card("BOB-1", [&](std::optional<ContactCard> card) { answers += card ? 1 : 0; });
    run();
    ASSERT_TRUE(readCard(*list, "BOB-1").has_value());
    EXPECT_EQ(answers, 2);
    EXPECT_EQ(m_book->cardReads, reads + 1);
    EXPECT_FALSE(list->cardCache().contains("C01"));

    // A card that no longer exists is none and leaves the cache alone.
    const auto version = list->cardsVersion();
    EXPECT_FALSE(readCard(*list, "GONE").has_value());
    EXPECT_EQ(list->cardsVersion(), version);
    EXPECT_TRUE(list->cardCache().contains("C02"));
}

TEST_F(PeopleListTest, ThumbnailsAreAskedOnceInABatchAndRemembered) {
    auto list = loaded();
    int told = 0;
    list->observe(
        [&](PeopleList::Changes changes) { told += changes.contains(PeopleList::Change::thumbnails); });
    EXPECT_EQ(list->thumbnail("BOB-1"), nullptr);
    EXPECT_EQ(list->thumbnail("JANE-1"), nullptr);
    EXPECT_EQ(list->thumbnail("BOB-1"), nullptr);
    run();
    EXPECT_EQ(m_book->thumbnailReads, 1);
    EXPECT_EQ(told, 1);
    // This store makes no thumbnails; that is remembered too.
    EXPECT_EQ(list->thumbnail("BOB-1"), nullptr);
    run();
    EXPECT_EQ(m_book->thumbnailReads, 1);
}

TEST_F(PeopleListTest, AnAccountFilterGoesWhenItsAccountDoes) {
    auto list = loaded();
    list->setAccountFilter("work");
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"JANE-2"});

    fs::remove_all(root() / "work");
    bool toldOfFilters = false;
    list->observe([&](PeopleList::Changes changes) {
        toldOfFilters = toldOfFilters || changes.contains(PeopleList::Change::filters);
    });
    m_clock.setNow(*list->fullReadAt() + 25h);
    loadAndWait(*list);
    EXPECT_EQ(list->accountFilter(), std::nullopt);
    EXPECT_TRUE(toldOfFilters);
    EXPECT_EQ(idsOf(list->sections()), (std::vector<std::string>{"JANE-1", "BOB-1"}));
}

TEST_F(PeopleListTest, ResultsArrivingAfterTheListIsGoneAreDropped) {
    auto list = loaded();
    ASSERT_TRUE(m_watcher->watching());
    bool done = false;
    list->load([&] { done = true; });
    m_background.runUntilIdle();
    m_main.runUntilIdle();
    m_background.runUntilIdle(); // the changes are read; their result waits for the main executor
    list.reset();
    run();
    EXPECT_FALSE(done);
    EXPECT_FALSE(m_watcher->watching());
}

// --- What is shown ---------------------------------------------------------------

class PeopleListShownTest : public PeopleListTest {
protected:
    void SetUp() override {
        PeopleListTest::SetUp();
        fs::remove_all(root());
        fs::create_directories(root() / "home");
        fs::create_directories(root() / "work");
        writeCard("home", "ANN-1", vcard("ANN-1", "Ann", "Smith", anchor("KANN", "?r=1")));
        writeCard("work", "BOB-1", vcard("BOB-1", "Bob", "Smithers", "ORG:Annex Corp;\r\n"));
        writeCard("home", "CAT-1", vcard("CAT-1", "Cat", "Jones", anchor("KCAT", "?h=1")));
        writeCard("work", "DAN-1", vcard("DAN-1", "Dan", "Brown", "TEL:+1 (555) 010-0199\r\n"));
    }
};

TEST_F(PeopleListShownTest, SearchFindsWordsAcrossFieldsPhoneDigitsAndPastJobs) {
    auto withJobs = options();
    withJobs.pastJobs = std::make_shared<FixedPastJobs>(
        std::map<std::string, std::vector<PastJob>>{{"KANN", {PastJob::make("Initech", "Analyst")}}});
    auto list = loaded(withJobs);
    lines();

    list->setSearchText("  ann smith ");
    EXPECT_EQ(idsOf(list->sections()), (std::vector<std::string>{"ANN-1", "BOB-1"}));
    EXPECT_EQ(list->matchCount(), 2);
    // The platform log never sees what the user typed; the user's own file does.
    EXPECT_EQ(lines(), std::vector<std::string>{"search \"<private>\": 0 ms, 2 matches"});
    m_appLog.flush();
    EXPECT_NE(readFile(m_folder / "log" / "app.log").find("[list] search \"ann smith\": 0 ms, 2 matches"),
              std::string::npos);

    list->setSearchText("5-5-5");
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"DAN-1"});
    list->setSearchText("initech");
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"ANN-1"});

    list->setPastJobs("DAN-1", {PastJob::make("Globex", "Engineer")});
    list->setSearchText("globex engineer");
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"DAN-1"});
    list->setPastJobs("DAN-1", {});
    EXPECT_TRUE(list->sections().empty());
    EXPECT_EQ(list->matchCount(), 0);

    list->setSearchText("   ");
    EXPECT_EQ(list->matchCount(), 3);
}

TEST_F(PeopleListShownTest, NarrowingReusesTheLastResultOnlyUnderTheSameOrderAndFilters) {
    auto list = loaded();

    list->setAccountFilter("work");
    list->setSearchText("s");
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"BOB-1"});
    ASSERT_TRUE(list->lastSearch().has_value());
    EXPECT_EQ(list->lastSearch()->query.whole, "s");

    // Another account: the last result no longer holds everyone who may match.
    list->setAccountFilter("home");
    list->setSearchText("sm");
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"ANN-1"});

    list->setAccountFilter(std::nullopt);
    list->setSearchText("smithe");
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"BOB-1"});
    // Deleting back searches everyone again.
    list->setSearchText("smith");
    EXPECT_EQ(idsOf(list->sections()), (std::vector<std::string>{"ANN-1", "BOB-1"}));

    // People changed since the last search: a longer query still finds the new ones.
    writeCard("home", "EVE-1", vcard("EVE-1", "Eve", "Smithson"));
    list->refetch({"EVE-1"});
    run();
    list->setSearchText("smiths");
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"EVE-1"});
}

// A result searched before the index arrives knows nothing of it: the first
// keystroke after the index arrives must search with it, not narrow that result.
TEST_F(PeopleListShownTest, SearchAnswersTheSameBeforeAndAfterTheIndexIsBuilt) {
    auto list = loaded();
    list->setDescending(true);
    list->setAccountFilter("work");
    list->refetch({"BOB-1"});
    while (!list->isIndexing()) {
        m_background.runUntilIdle();
        m_main.runUntilIdle();
    }
    const std::vector<std::string> queries = {"s", "sm", "an", "555", "bob annex", "smith"};
    std::vector<std::vector<std::string>> before;
    for (const auto& query : queries) {
        list->setSearchText(query);
        before.push_back(idsOf(list->sections()));
    }
    list->setSearchText("");
    ASSERT_TRUE(list->lastSearch().has_value());
    EXPECT_EQ(list->lastSearch()->positions, nullptr);
    run();
    ASSERT_FALSE(list->isIndexing());
    for (std::size_t i = 0; i < queries.size(); ++i) {
        list->setSearchText(queries[i]);
        EXPECT_EQ(idsOf(list->sections()), before[i]) << queries[i];
        if (i == 0) {
            ASSERT_TRUE(list->lastSearch().has_value());
            EXPECT_NE(list->lastSearch()->positions, nullptr);
        }
    }
    EXPECT_EQ(before, (std::vector<std::vector<std::string>>{
                          {"BOB-1"}, {"BOB-1"}, {"BOB-1", "DAN-1"}, {"DAN-1"}, {"BOB-1"}, {"BOB-1"}}));
}

// Typing letter by letter narrows each result from the one before; it must
// end where searching the whole list for the final text does.
TEST_F(PeopleListShownTest, TypingLetterByLetterFindsWhatTheQueryItselfSaysOfEveryone) {
    std::mt19937 random(5);
    // Letters, and what phone numbers are typed with: a word may turn from
    // text into a number as it is typed ("(" then "(2").
    const std::string letters = "abcde (+02-";
    const auto randomText = [&](std::size_t least, std::size_t most, std::size_t alphabet) {
        std::string text(std::uniform_int_distribution<std::size_t>(least, most)(random), ' ');
        for (auto& c : text) {
            c = letters[std::uniform_int_distribution<std::size_t>(0, alphabet - 1)(random)];
        }
        return text;
    };
    for (int i = 0; i < 80; ++i) {
        const auto uid = fmt::format("P-{}", i);
        writeCard(
            i % 3 == 0 ? "work" : "home", uid,
            vcard(uid, randomText(2, 5, 5), randomText(2, 6, 5),
                  (i % 9 == 0 ? anchor(uid, "?h=1") : "") +
                      (i % 4 == 0 ? fmt::format("TEL:+{} (20{}) {}\r\n", i % 3, i % 5, 2000 + i) : "")));
    }
    auto list = loaded();
    ASSERT_FALSE(list->isIndexing());

    for (const bool workOnly : {false, true}) {
        list->setAccountFilter(workOnly ? std::optional<std::string>("work") : std::nullopt);
        for (int round = 0; round < 60; ++round) {
            const auto typed = randomText(1, 5, letters.size());
            list->setSearchText("");
            for (std::size_t length = 1; length <= typed.size(); ++length) {
                list->setSearchText(typed.substr(0, length));
            }
            const auto query = SearchQuery::parse(typed);
            std::vector<std::string> expected;
            for (const auto& section : *list->indexed(SortOrder::lastName)) {
                for (const auto& person : section.people) {
                    const bool inAccount =
                        !workOnly || std::find(person->accountIDs.begin(), person->accountIDs.end(),
                                               "work") != person->accountIDs.end();
                    if (!person->hidden && inAccount &&
                        (query.isEmpty() || query.matches(*person, nullptr))) {
                        expected.push_back(person->id);
                    }
                }
            }
            ASSERT_EQ(idsOf(list->sections()), expected) << '"' << typed << "\" work only: " << workOnly;
            ASSERT_EQ(list->matchCount(), static_cast<int>(expected.size()));
        }
    }
}

// People type numbers as they are written: "(" and "+" match no one's text,
// but the next key makes a phone number of the word, which must then be
// looked for among everyone again, not only among those "(" found.
TEST_F(PeopleListShownTest, APhoneNumberTypedAsWrittenFindsItsPeopleAtEveryKey) {
    writeCard("home", "NYC-1", vcard("NYC-1", "Nora", "York", "TEL:212-555-0100\r\n"));
    writeCard("work", "LON-1", vcard("LON-1", "Lena", "Dunn", "TEL:+44 20 7946 0000\r\n"));
    auto list = loaded();
    ASSERT_FALSE(list->isIndexing());

    const std::vector<std::pair<std::string, std::vector<std::string>>> typed = {
        {"(212", {"NYC-1"}}, {"(212) 555", {"NYC-1"}},  {"+44", {"LON-1"}},           {"+44 20", {"LON-1"}},
        {"0044", {"LON-1"}}, {"0044 20 79", {"LON-1"}}, {"(555)", {"DAN-1", "NYC-1"}}};
    for (const auto& [number, found] : typed) {
        list->setSearchText("");
        for (std::size_t length = 1; length <= number.size(); ++length) {
            list->setSearchText(number.substr(0, length));
        }
        EXPECT_EQ(idsOf(list->sections()), found) << number;
    }
    // Dialled from abroad, 0044 is the start of a number, not any 44 in it.
    list->setSearchText("0020");
    EXPECT_TRUE(list->sections().empty());
}

// A person is found by any of their cards, though the list shows the
// leading card's name and first e-mail and phone.
TEST_F(PeopleListShownTest, AJoinedPersonIsFoundByEveryCardTheyHold) {
    writeCard("work", "ANN-W",
              vcard("ANN-W", "Ann", "Smith",
                    anchor("KANN") + "TITLE:Staff Engineer\r\nORG:Fernhill\r\n"
                                     "EMAIL:ann.smith@fernhill.example\r\n"
                                     "TEL:+1 (718) 555-0142\r\n"));
    auto list = loaded();
    const auto ann = list->person("ANN-W");
    ASSERT_NE(ann, nullptr);
    EXPECT_EQ(ann->memberIDs.size(), 2u);
    for (const std::string query : {"ann.smith@fernhill", "staff engineer", "fernhill smith", "718-555"}) {
        list->setSearchText(query);
        ASSERT_EQ(list->matchCount(), 1) << query;
        EXPECT_EQ(list->sections().front().people.front()->id, ann->id) << query;
    }
    // Sorting stays with the leading card: Ann is still filed under S.
    EXPECT_EQ(ann->sectionLetter(), "S");
}

// The shown sections name their people without holding them; the list they
// came in holds them. A held search result, and a held order of the index,
// still name living people once everyone is read again, and once the list
// itself is gone.
TEST_F(PeopleListShownTest, HeldSectionsOutliveThePeopleBeingReadAgainAndTheList) {
    auto list = loaded();
    ASSERT_FALSE(list->isIndexing());
    list->setSearchText("smith");
    const SectionList held = list->sharedSections();
    const SectionList indexed = list->indexed(SortOrder::firstName);
    ASSERT_TRUE(indexed);
    const auto familyNames = [](const SectionList& sections) {
        std::vector<std::string> names;
        for (const auto& section : *sections) {
            for (const auto* person : section.people) {
                names.push_back(person->familyName);
            }
        }
        return names;
    };
    ASSERT_EQ(familyNames(held), (std::vector<std::string>{"Smith", "Smithers"}));
    const auto everyone = familyNames(indexed);
    ASSERT_EQ(everyone.size(), 4u);

    writeCard("home", "ANN-1", vcard("ANN-1", "Ann", "Smythe", anchor("KANN", "?r=1")));
    writeCard("work", "BOB-1", vcard("BOB-1", "Bob", "Smithson"));
    m_book->startOver = true;
    loadAndWait(*list);
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"BOB-1"});
    EXPECT_EQ(familyNames(held), (std::vector<std::string>{"Smith", "Smithers"}));

    list.reset();
    run();
    EXPECT_EQ(familyNames(held), (std::vector<std::string>{"Smith", "Smithers"}));
    EXPECT_EQ(familyNames(indexed), everyone);
}

// The sidebar and the tool change several settings at once: the list is
// rebuilt once for all of them, observers hear of it once (until they stop),
// and what is shown is what the settings one at a time would show.
TEST_F(PeopleListShownTest, AWholeViewIsShownWithOneRebuild) {
    using Change = PeopleList::Change;
    auto list = makeList();
    std::vector<PeopleList::Changes> heard;
    const auto observer = list->observe([&](PeopleList::Changes changes) { heard.push_back(changes); });
    loadAndWait(*list);
    auto oneAtATime = loaded();
    EXPECT_TRUE(std::any_of(heard.begin(), heard.end(),
                            [](PeopleList::Changes changes) { return changes.contains(Change::people); }));
    heard.clear();
    const auto listID = list->listID();
    const auto scrollToTop = list->scrollToTopToken();

    ViewSettings view = list->view();
    view.order = SortOrder::firstName;
    view.descending = true;
    view.accountID = "work";
    view.searchText = "b";
    list->setView(view);
    oneAtATime->setSortOrder(SortOrder::firstName);
    oneAtATime->setDescending(true);
    oneAtATime->setAccountFilter("work");
    oneAtATime->setSearchText("b");

    EXPECT_EQ(idsOf(list->sections()), (std::vector<std::string>{"DAN-1", "BOB-1"}));
    EXPECT_EQ(list->sections(), oneAtATime->sections());
    EXPECT_EQ(list->headings(), oneAtATime->headings());
    EXPECT_EQ(list->listID(), listID + 1);
    EXPECT_EQ(list->scrollToTopToken(), scrollToTop + 1);
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard.front(), Change::filters | Change::search | Change::sections);
    EXPECT_EQ(list->searchInput(), "b");

    // The same view again changes nothing; a filter alone is no search.
    list->setView(view);
    EXPECT_EQ(list->listID(), listID + 1);
    view.accountID.reset();
    list->setView(view);
    ASSERT_EQ(heard.size(), 2u);
    EXPECT_EQ(heard.back(), Change::filters | Change::sections);

    // Typing not yet settled survives a filter chosen meanwhile, and is
    // searched once, when it settles.
    list->setSearchInput("d");
    list->setSearchInput("da");
    view.order = SortOrder::lastName;
    list->setView(view);
    run();
    EXPECT_EQ(list->searchInput(), "da");
    EXPECT_EQ(list->searchText(), "b");
    lines();
    m_main.advance(60ms);
    EXPECT_EQ(list->searchText(), "da");
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"DAN-1"});
    EXPECT_EQ(countStartingWith(lines(), "search "), 1u);

    const auto heardSoFar = heard.size();
    list->unobserve(observer);
    list->setSortOrder(SortOrder::firstName);
    EXPECT_EQ(heard.size(), heardSoFar);
}

TEST_F(PeopleListShownTest, HiddenCircleAccountHeadingAndTrashFiltersNarrowTheList) {
    auto list = loaded();
    lines();
    EXPECT_EQ(list->hiddenCount(), 1);
    EXPECT_EQ(idsOf(list->sections()), (std::vector<std::string>{"DAN-1", "ANN-1", "BOB-1"}));

    list->setCircleFilter(ContactCircle::closest);
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"ANN-1"});
    list->setCircleFilter(std::nullopt);

    list->setHeadingFilter("S");
    EXPECT_EQ(lines(), std::vector<std::string>{"heading filter: S"});
    EXPECT_EQ(idsOf(list->sections()), (std::vector<std::string>{"ANN-1", "BOB-1"}));
    // The column keeps every heading while one is chosen.
    EXPECT_EQ(list->headings(), (std::vector<Heading>{{"B", 1}, {"S", 2}}));
    EXPECT_EQ(list->flatIDs(), (std::vector<std::string>{"ANN-1", "BOB-1"}));
    EXPECT_EQ(list->flatPosition("BOB-1"), 1u);
    EXPECT_EQ(list->flatPosition("DAN-1"), std::nullopt);
    list->setHeadingFilter(std::nullopt);
    EXPECT_EQ(list->flatPosition("DAN-1"), 0u);

    // Under a circle and a heading, in either order, the same people; a
    // heading the list no longer has filters no more.
    list->setHeadingFilter("S");
    list->setCircleFilter(ContactCircle::closest);
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"ANN-1"});
    list->setCircleFilter(std::nullopt);
    list->setHeadingFilter(std::nullopt);
    list->setCircleFilter(ContactCircle::closest);
    list->setHeadingFilter("S");
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"ANN-1"});
    list->setCircleFilter(std::nullopt);
    list->setHeadingFilter("B");
    list->setAccountFilter("home");
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"ANN-1"});
    EXPECT_EQ(list->headingFilter(), std::nullopt);
    list->setAccountFilter(std::nullopt);

    list->setPendingTrash({"ANN-1"});
    EXPECT_EQ(idsOf(list->sections()), (std::vector<std::string>{"DAN-1", "BOB-1"}));
    list->setPendingTrash({});
    EXPECT_EQ(list->matchCount(), 3);

    // Hidden people are shown on their own, never among the others.
    list->setShowingHidden(true);
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"CAT-1"});
    EXPECT_EQ(list->matchCount(), 1);
}

TEST_F(PeopleListTest, WithNothingFilteringTheIndexSectionsAreShownThemselves) {
    auto list = loaded();
    ASSERT_FALSE(list->isIndexing());
    for (const auto order : allSortOrders()) {
        list->setSortOrder(order);
        const auto indexed = list->indexed(order);
        ASSERT_NE(indexed, nullptr);
        EXPECT_EQ(list->sharedSections(), indexed) << rawValue(order);
        EXPECT_EQ(*indexed, buildSections(order, list->people())) << rawValue(order);
    }
    list->setSortOrder(SortOrder::lastName);
    list->setDescending(true);
    EXPECT_EQ(list->sections(), inDirection(buildSections(SortOrder::lastName, list->people()), true));
    EXPECT_EQ(titlesOf(list->sections()), (std::vector<std::string>{"B", "A"}));
    // Blanks are no search: the same sections, not a filtered copy.
    const auto shown = list->sharedSections();
    list->setSearchText(" \t");
    EXPECT_EQ(list->sharedSections(), shown);
    EXPECT_FALSE(list->lastSearch().has_value());
}

// --- Operations ------------------------------------------------------------------

TEST_F(PeopleListTest, AFullCircleRefusesAnotherPersonAndCirclesAreWrittenIntoEveryCard) {
    for (int i = 0; i < 5; ++i) {
        const auto id = fmt::format("CLOSE-{}", i);
        writeCard("home", id,
                  vcard(id, "Close", fmt::format("Friend{}", i), anchor(fmt::format("KC{}", i), "?r=1")));
    }
    auto list = loaded();
    EXPECT_EQ(list->circleCounts(), (CircleCounts{{ContactCircle::closest, 5}}));
    const auto bobCard = readFile(root() / "home" / "BOB-1.vcf");

    auto refused = perform([&](auto done) { list->setCircle("BOB-1", ContactCircle::closest, done); });
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error(), ActionError{CircleError{ContactCircle::closest}});
    EXPECT_EQ(list->actionError(), "Your 5 is full. Move someone out of it first.");
    EXPECT_EQ(readFile(root() / "home" / "BOB-1.vcf"), bobCard);

    // Jane, in two cards, goes into the circle around it, which has room.
    list->clearActionError();
    ASSERT_TRUE(
        perform([&](auto done) { list->setCircle("JANE-1", ContactCircle::goodFriends, done); }).ok());
    EXPECT_EQ(list->person("JANE-2")->circle, ContactCircle::goodFriends);
    EXPECT_NE(readFile(root() / "home" / "JANE-1.vcf").find("r=2"), std::string::npos);
    EXPECT_NE(readFile(root() / "work" / "JANE-2.vcf").find("r=2"), std::string::npos);
    EXPECT_EQ(list->circleCounts(),
              (CircleCounts{{ContactCircle::closest, 5}, {ContactCircle::goodFriends, 1}}));
    EXPECT_EQ(list->actionError(), std::nullopt);

    // Someone leaves the closest circle; now there is room.
    ASSERT_TRUE(perform([&](auto done) { list->setCircle("CLOSE-0", std::nullopt, done); }).ok());
    ASSERT_TRUE(perform([&](auto done) { list->setCircle("BOB-1", ContactCircle::closest, done); }).ok());
    EXPECT_EQ(list->person("BOB-1")->circle, ContactCircle::closest);
    EXPECT_EQ(list->person("CLOSE-0")->circle, std::nullopt);
}

TEST_F(PeopleListTest, HidingAPersonTakesThemOutOfTheList) {
    auto list = loaded();
    ASSERT_TRUE(perform([&](auto done) { list->setHidden("JANE-2", true, done); }).ok());
    EXPECT_EQ(list->hiddenCount(), 1);
    EXPECT_EQ(idsOf(list->sections()), std::vector<std::string>{"BOB-1"});
    ASSERT_TRUE(perform([&](auto done) { list->setHidden("JANE-2", false, done); }).ok());
    EXPECT_EQ(list->hiddenCount(), 0);

    const auto unknown = perform([&](auto done) { list->setHidden("NOBODY", true, done); });
    ASSERT_FALSE(unknown.ok());
    EXPECT_EQ(list->actionError(), AddressBookError::notFound().description());
}

TEST_F(PeopleListTest, AnEntryMarkedFormerKeepsItsValueAndIdentityAndTurnsBack) {
    auto list = loaded();
    const auto before = readCard(*list, "BOB-1");
    ASSERT_TRUE(before.has_value());
    ASSERT_EQ(before->phones.size(), 1u);
    const auto phone = before->phones.front();
    EXPECT_EQ(phone.label, "work");

    ASSERT_TRUE(perform([&](auto done) { list->markFormer("BOB-1", phone.id, done); }).ok());
    // The refetch replaced the cached card.
    const auto* marked = list->cachedCard("BOB-1");
    ASSERT_NE(marked, nullptr);
    ASSERT_EQ(marked->phones.size(), 1u);
    EXPECT_EQ(marked->phones.front().label, "ex-work");
    EXPECT_EQ(marked->phones.front().value, phone.value);
    EXPECT_EQ(marked->phones.front().id, phone.id);
    EXPECT_NE(readFile(root() / "home" / "BOB-1.vcf").find("ex-work"), std::string::npos);

    ASSERT_TRUE(perform([&](auto done) { list->markCurrent("BOB-1", phone.id, done); }).ok());
    EXPECT_EQ(list->cachedCard("BOB-1")->phones.front().label, "work");
    EXPECT_EQ(list->cachedCard("BOB-1")->phones.front().id, phone.id);

    const auto missing = perform([&](auto done) { list->markFormer("BOB-1", "no-such-entry", done); });
    ASSERT_FALSE(missing.ok());
    EXPECT_EQ(missing.error(), ActionError{AddressBookError::notFound()});
}

} // namespace
} // namespace kinbook
