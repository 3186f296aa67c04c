#include "KinbookKit/setup/DemoAddressBook.h"

#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/platform/VipsImageScaler.h"
#include "KinbookKit/platform/VipsPortraitPainter.h"
#include "KinbookKit/records/ExLabel.h"
#include "KinbookKit/records/PastJob.h"
#include "KinbookKit/text/AppLog.h"
#include "KinbookKit/text/KinLog.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

namespace kinbook {
namespace {

using testing::readFile;
using testing::TempFolder;
namespace fs = std::filesystem;

// Portraits without libvips: a few recognisable bytes per person.
class FakePainter final : public PortraitPainter {
public:
    std::optional<std::vector<std::uint8_t>> portrait(std::string_view initials, std::uint32_t rgb,
                                                      int pixels) override {
        ++calls;
        std::vector<std::uint8_t> bytes = {0xFF, 0xD8, static_cast<std::uint8_t>(rgb),
                                           static_cast<std::uint8_t>(pixels)};
        bytes.insert(bytes.end(), initials.begin(), initials.end());
        return bytes;
    }
    int calls = 0;
};

class DemoAddressBookTest : public ::testing::Test {
protected:
    std::vector<Person> readPeople(const fs::path& root) {
        VdirAddressBook::Options options;
        options.root = root;
        options.stateFolder = folder / "state";
        // The store's log goes to the test's folder, never the user's.
        options.log = std::make_shared<KinLog>("store", appLog);
        book = std::make_unique<VdirAddressBook>(options);
        auto read = book->readAll({});
        EXPECT_TRUE(read.ok());
        accounts = read.ok() ? read->snapshot.accounts : std::vector<Account>{};
        return read.ok() ? read->snapshot.people : std::vector<Person>{};
    }

    std::map<std::string, std::string> filesUnder(const fs::path& root) {
        std::map<std::string, std::string> files;
        for (const auto& entry : fs::recursive_directory_iterator(root)) {
            if (entry.is_regular_file()) {
                files[fs::relative(entry.path(), root).string()] = readFile(entry.path());
            }
        }
        return files;
    }

    TempFolder folder;
    AppLog appLog{folder / "log" / "app.log"};
    FakePainter painter;
    std::unique_ptr<VdirAddressBook> book;
    std::vector<Account> accounts;
};

TEST_F(DemoAddressBookTest, ShowsWhatKinbookDoesOverTwoAccounts) {
    const fs::path root = folder / "contacts";
    const fs::path sidecarPeople = folder / "Sidecar" / "Documents" / "People";
    // The user already has a folder for Zoë (KinID VMXXQKFB), under another name.
    fs::create_directories(sidecarPeople / "Zoë Lefèvre VMXXQKFB");
    auto report = writeDemoAddressBook(root, folder / "Sidecar", &painter);
    ASSERT_TRUE(report.ok()) << report.error();
    EXPECT_EQ(report->accounts, 2u);
    EXPECT_GE(report->people, 30u);
    EXPECT_GT(report->cards, report->people);
    EXPECT_GE(report->photos, 5u);
    EXPECT_TRUE(report->warnings.empty());

    const auto people = readPeople(root);
    ASSERT_EQ(people.size(), report->cards);
    std::set<std::string> accountNames;
    for (const auto& account : accounts) {
        accountNames.insert(account.name);
    }
    EXPECT_EQ(accountNames, (std::set<std::string>{"On My Computer", "Work"}));

    // Linked people: cards in both accounts under one KinID, with at most
    // one primary card each, and at least one pair without a primary mark.
    std::map<std::string, std::vector<const Person*>> byKinID;
    CircleCounts circles;
    int hidden = 0;
    int photos = 0;
    bool nonLatin = false;
    for (const auto& person : people) {
        if (person.kinID) {
            byKinID[*person.kinID].push_back(&person);
        }
        hidden += person.hidden ? 1 : 0;
        photos += person.hasImage ? 1 : 0;
        nonLatin = nonLatin ||
                   (!person.givenName.empty() && static_cast<unsigned char>(person.givenName[0]) >= 0xC0);
    }
    int linked = 0;
    int linkedWithoutPrimary = 0;
    for (const auto& [kinID, cards] : byKinID) {
        if (cards.size() < 2) {
            if (cards[0]->circle) {
                ++circles[*cards[0]->circle];
            }
            continue;
        }
        ++linked;
        ASSERT_EQ(cards.size(), 2u) << kinID;
        EXPECT_NE(cards[0]->accountIDs, cards[1]->accountIDs) << kinID;
        EXPECT_EQ(cards[0]->circle, cards[1]->circle) << kinID;
        const int primaries = (cards[0]->isPrimaryCard ? 1 : 0) + (cards[1]->isPrimaryCard ? 1 : 0);
        EXPECT_LE(primaries, 1) << kinID;
        linkedWithoutPrimary += primaries == 0 ? 1 : 0;
        if (cards[0]->circle) {
            ++circles[*cards[0]->circle];
        }
    }
    EXPECT_GE(linked, 3);
    EXPECT_GE(linkedWithoutPrimary, 1);
    EXPECT_GE(hidden, 2);
    EXPECT_EQ(static_cast<std::size_t>(photos), report->photos);
    EXPECT_TRUE(nonLatin);
    // Every circle has someone, and none holds more than it may.
    for (const ContactCircle circle : allCircles()) {
        EXPECT_GT(circles[circle], 0) << rawValue(circle);
        if (const auto capacity = circleCapacity(circle)) {
            EXPECT_LE(cumulativeSize(circles, circle), *capacity) << rawValue(circle);
        }
    }

    // Former entries of every kind read back as former.
    std::set<std::string> formerKinds;
    for (const auto& person : people) {
        auto card = book->card(person.id);
        ASSERT_TRUE(card.ok()) << person.id;
        for (const auto& [kind, items] :
             {std::pair{"phone", &card->phones}, std::pair{"email", &card->emails},
              std::pair{"address", &card->addresses}}) {
            for (const auto& item : *items) {
                if (ExLabel::isFormer(item.label)) {
                    formerKinds.insert(kind);
                    EXPECT_FALSE(item.value.empty());
                }
            }
        }
    }
    EXPECT_EQ(formerKinds, (std::set<std::string>{"phone", "email", "address"}));

    // Past jobs go to the sidecar and leave existing folders alone.
    EXPECT_GE(report->pastJobFiles, 2u);
    EXPECT_FALSE(fs::exists(sidecarPeople / "Zoë Lefèvre VMXXQKFB" / "jobs.json"));

    std::size_t files = 0;
    for (const auto& entry : fs::directory_iterator(sidecarPeople)) {
        const auto jobsFile = entry.path() / "jobs.json";
        if (!fs::exists(jobsFile)) {
            continue;
        }
        ++files;
        // "<display name> <KinID>": the KinID after the last blank.
        const std::string name = entry.path().filename().string();
        EXPECT_EQ(name.size() - name.rfind(' '), 9u) << name;
        const auto jobs = PastJob::decodeList(readFile(jobsFile));
        ASSERT_TRUE(jobs) << name;
        ASSERT_FALSE(jobs->empty());
        EXPECT_FALSE(jobs->front().isEmpty());
    }
    EXPECT_EQ(files, report->pastJobFiles);
}

TEST_F(DemoAddressBookTest, TheSameBuildWritesTheSameCards) {
    ASSERT_TRUE(writeDemoAddressBook(folder / "one", std::nullopt, &painter).ok());
    ASSERT_TRUE(writeDemoAddressBook(folder / "two", std::nullopt, &painter).ok());
    const auto one = filesUnder(folder / "one");
    EXPECT_EQ(one, filesUnder(folder / "two"));
    EXPECT_TRUE(one.contains("default/displayname"));
    EXPECT_TRUE(one.contains("work/displayname"));
    // Nothing is left beside the address book.
    for (const auto& entry : fs::directory_iterator(folder.path())) {
        EXPECT_NE(entry.path().filename().string().front(), '.') << entry.path();
    }
}

TEST_F(DemoAddressBookTest, NeverWritesIntoAnExistingFolder) {
    const fs::path root = folder / "contacts";
    fs::create_directories(root);
    testing::writeFile(root / "mine.vcf", "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Mine\r\nEND:VCARD\r\n");
    auto report = writeDemoAddressBook(root, std::nullopt, &painter);
    ASSERT_FALSE(report.ok());
    EXPECT_NE(report.error().find(root.string()), std::string::npos);
    EXPECT_EQ(filesUnder(root).size(), 1u);
}

TEST_F(DemoAddressBookTest, AnUnwritableSidecarCostsOnlyThePastJobs) {
    testing::writeFile(folder / "Sidecar", "a file where the folder should be");
    auto report = writeDemoAddressBook(folder / "contacts", folder / "Sidecar", &painter);
    ASSERT_TRUE(report.ok());
    EXPECT_EQ(report->pastJobFiles, 0u);
    EXPECT_EQ(report->warnings.size(), 1u);
    EXPECT_TRUE(fs::exists(folder / "contacts" / "work"));
}

TEST_F(DemoAddressBookTest, OnlyTheFirstRunOfTheEmbeddedDefaultIsSeeded) {
    Configuration configuration;
    configuration.dataFolder = folder / "data";
    configuration.contacts = configuration.embeddedContacts();
    configuration.sidecar.reset();

    auto first = seedDemoAddressBookOnFirstRun(configuration, &painter);
    ASSERT_TRUE(first.ok());
    ASSERT_TRUE(first->has_value());
    const int paintedOnce = painter.calls;

    // The user deleted every card: the empty address book stays empty.
    fs::remove_all(configuration.contacts / "work");
    auto second = seedDemoAddressBookOnFirstRun(configuration, &painter);
    ASSERT_TRUE(second.ok());
    EXPECT_FALSE(second->has_value());
    EXPECT_FALSE(fs::exists(configuration.contacts / "work"));
    EXPECT_EQ(painter.calls, paintedOnce);

    // A configured address book is the user's: never seeded, even when missing.
    configuration.contacts = folder / "configured";
    configuration.contactsSource = Configuration::Source::configFile;
    auto configured = seedDemoAddressBookOnFirstRun(configuration, &painter);
    ASSERT_TRUE(configured.ok());
    EXPECT_FALSE(configured->has_value());
    EXPECT_FALSE(fs::exists(folder / "configured"));
}

TEST_F(DemoAddressBookTest, PortraitsAreRealJpegs) {
    VipsPortraitPainter vips;
    const auto portrait = vips.portrait("ZL", 0xD35400, 240);
    ASSERT_TRUE(portrait);
    ASSERT_GT(portrait->size(), 200u);
    EXPECT_EQ((*portrait)[0], 0xFF);
    EXPECT_EQ((*portrait)[1], 0xD8);
    // libvips reads it back as an image.
    VipsImageScaler scaler;
    EXPECT_TRUE(scaler.thumbnail(*portrait, 64));
    // Initials in any script.
    EXPECT_TRUE(vips.portrait("芳王", 0xB03A2E, 64));
    EXPECT_FALSE(vips.portrait("AB", 0, 4));
}

} // namespace
} // namespace kinbook
