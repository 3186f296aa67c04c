// kinbook import and export on real vdirs with the real sample cards: every
// card goes in once, reads the same after an export and a re-import, and a
// bad file or card is named without losing the others.

#include "KinbookKit/vcard/VCard.h"
#include "KinbookKit/vcard/VCardProperty.h"
#include "tests/cli/KinbookRun.h"
#include "tests/support/Files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

namespace kinbook {
namespace {

namespace fs = std::filesystem;

// The cards of a vdir account, by UID, each as its properties read.
using Cards = std::map<std::string, std::vector<std::pair<std::string, std::string>>>;

std::vector<std::pair<std::string, std::string>> propertiesOf(const VCard& card) {
    std::vector<std::pair<std::string, std::string>> properties;
    for (const auto* property : card.properties()) {
        properties.emplace_back(property->name(), property->text());
    }
    return properties;
}

Cards cardsIn(const fs::path& folder) {
    Cards cards;
    for (const auto& entry : fs::directory_iterator(folder)) {
        const auto card = VCard::parse(testing::readFile(entry.path()));
        EXPECT_TRUE(card.ok()) << entry.path();
        if (card.ok()) {
            EXPECT_TRUE(cards.emplace(card->uid().value_or(""), propertiesOf(card.value())).second)
                << entry.path();
        }
    }
    return cards;
}

std::vector<std::string> samples() {
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(fs::path(KINBOOK_TESTDATA_DIR) / "vcard-real")) {
        if (entry.path().extension() == ".vcf") {
            files.push_back(entry.path().string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

TEST(ImportExportCommand, TheRealSamplesGoInOnceAndComeBackTheSame) {
    testing::KinbookHome home;
    const fs::path first = home.path() / "first";
    const fs::path second = home.path() / "second";
    fs::create_directories(first / "home");
    fs::create_directories(second / "home");
    // One card with a KinID anchor, which must name the same person after the trip.
    const fs::path anchored = home.path() / "anchored.vcf";
    testing::writeFile(anchored, "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Ann Smith\r\nN:Smith;Ann;;;\r\n"
                                 "URL:kinbook://c/AAAA0001\r\nUID:ann\r\nEND:VCARD\r\n");

    std::vector<std::string> arguments = {"--contacts", first.string(), "import", "--json",
                                          anchored.string()};
    const auto files = samples();
    ASSERT_EQ(files.size(), 25u);
    arguments.insert(arguments.end(), files.begin(), files.end());
    const auto imported = home.run(arguments);
    ASSERT_EQ(imported.exitCode, 0) << imported.err;
    const auto added = imported.json()["added"];
    EXPECT_GE(added.size(), 30u) << imported.out;
    EXPECT_TRUE(imported.json()["malformed"].empty()) << imported.out;

    const auto again = home.run(arguments).json();
    EXPECT_TRUE(again["added"].empty()) << again;
    EXPECT_EQ(again["duplicates"].size(), added.size());
    const Cards stored = cardsIn(first / "home");
    EXPECT_EQ(stored.size(), added.size());

    // Every sample card with a UID is stored as it reads in its file.
    for (const auto& file : files) {
        const auto cards = VCard::parseAll(testing::readFile(file));
        ASSERT_TRUE(cards.ok()) << file;
        for (const auto& card : cards.value()) {
            if (const auto uid = card.uid()) {
                ASSERT_TRUE(stored.contains(*uid)) << file;
                EXPECT_EQ(stored.at(*uid), propertiesOf(card)) << file;
            }
        }
    }

    const fs::path exported = home.path() / "everyone.vcf";
    const auto written = home.run({"--contacts", first.string(), "export", "-o", exported.string()});
    ASSERT_EQ(written.exitCode, 0) << written.err;
    const auto reimported = home.run({"--contacts", second.string(), "import", "--json", exported.string()});
    ASSERT_EQ(reimported.exitCode, 0) << reimported.err;
    EXPECT_EQ(cardsIn(second / "home"), stored);
    const auto ann = home.run({"--contacts", second.string(), "show", "ann", "--json"}).json();
    EXPECT_EQ(ann["person"]["kinID"], "AAAA0001");

    // Export of one person to standard output.
    const auto one = home.run({"--contacts", second.string(), "export", "ann"});
    EXPECT_EQ(one.out, testing::readFile(anchored));
}

TEST(ImportExportCommand, BadFilesAndCardsAreNamedWithoutLosingTheRest) {
    testing::KinbookHome home;
    const fs::path book = home.path() / "book";
    fs::create_directories(book / "home");
    const fs::path mixed = home.path() / "mixed.vcf";
    testing::writeFile(mixed, "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Bob\r\nUID:bob\r\nEND:VCARD\r\n"
                              "BEGIN:VCARD\r\nVERSION:3.0\r\nUID:empty\r\nEND:VCARD\r\n"
                              "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Bob again\r\nUID:bob\r\nEND:VCARD\r\n"
                              "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Cut Off\r\n");
    const fs::path notes = home.path() / "notes.txt";
    testing::writeFile(notes, "just some text\n");

    auto run = home.run({"--contacts", book.string(), "import", mixed.string(), "missing.vcf"});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("can't read missing.vcf"), std::string::npos) << run.err;
    run = home.run({"--contacts", book.string(), "import", mixed.string(), notes.string()});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("holds no vCard"), std::string::npos) << run.err;
    EXPECT_TRUE(fs::is_empty(book / "home")) << "a bad file stops the import before anything is added";

    run = home.run({"--contacts", book.string(), "import", mixed.string()});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("Added 1 contact; skipped 1 card already there."), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("Skipped card 2 of " + mixed.string() + " (empty): it holds nothing."),
              std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("Skipped card 4 of " + mixed.string() + " (Cut Off): it is cut off"),
              std::string::npos)
        << run.out;
    EXPECT_EQ(cardsIn(book / "home").size(), 1u);
}

} // namespace
} // namespace kinbook
