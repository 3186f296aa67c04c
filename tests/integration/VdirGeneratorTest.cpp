// The synthetic address book the benchmarks run on: reproducible, shaped
// like a real synced one, and made only of cards the codec reads cleanly.

#include "bench/VdirGenerator.h"

#include "KinbookKit/vcard/VCard.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <string_view>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::TempFolder;

// Relative path -> bytes of every file under `root`.
std::map<std::string, std::string> treeOf(const fs::path& root) {
    std::map<std::string, std::string> tree;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            tree[fs::relative(entry.path(), root).string()] = readFile(entry.path());
        }
    }
    return tree;
}

// Whether `text` is well-formed UTF-8 (no overlong forms or surrogates
// checked: the generator's pools have none).
bool isUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        unsigned char lead = static_cast<unsigned char>(text[i]);
        std::size_t length = lead < 0x80           ? 1
                             : (lead >> 5) == 0x6  ? 2
                             : (lead >> 4) == 0xE  ? 3
                             : (lead >> 3) == 0x1E ? 4
                                                   : 0;
        if (length == 0 || i + length > text.size()) {
            return false;
        }
        for (std::size_t k = 1; k < length; ++k) {
            if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) {
                return false;
            }
        }
        i += length;
    }
    return true;
}

// Every physical line ends in CRLF, holds at most 75 octets and is UTF-8 on
// its own: a fold never splits a character, which would make the file
// unreadable to vdirsyncer.
bool linesAreWellFolded(std::string_view bytes) {
    std::size_t start = 0;
    while (start < bytes.size()) {
        std::size_t end = bytes.find("\r\n", start);
        if (end == std::string_view::npos || end - start > 75 || !isUtf8(bytes.substr(start, end - start)) ||
            bytes.substr(start, end - start).find_first_of("\r\n") != std::string_view::npos) {
            return false;
        }
        start = end + 2;
    }
    return true;
}

VdirGeneratorReport generate(const fs::path& root, VdirGeneratorOptions options) {
    auto report = VdirGenerator(options).write(root);
    EXPECT_TRUE(report.ok()) << (report.ok() ? "" : report.error());
    return report.valueOr({});
}

TEST(VdirGeneratorTest, TheSameSeedWritesTheSameBytesAndAnotherSeedDoesNot) {
    TempFolder temp;
    generate(temp / "first", {.people = 200, .seed = 7, .accounts = 3});
    generate(temp / "again", {.people = 200, .seed = 7, .accounts = 3});
    generate(temp / "other", {.people = 200, .seed = 8, .accounts = 3});
    const auto first = treeOf(temp / "first");
    EXPECT_EQ(treeOf(temp / "again"), first);
    EXPECT_NE(treeOf(temp / "other"), first);
}

TEST(VdirGeneratorTest, NeverWritesIntoAFolderThatHasFiles) {
    TempFolder temp;
    fs::create_directories(temp / "root");
    testing::writeFile(temp / "root" / "mine.vcf", "keep");
    auto report = VdirGenerator({.people = 10}).write(temp / "root");
    EXPECT_FALSE(report.ok());
    EXPECT_EQ(treeOf(temp / "root").size(), 1u);
    EXPECT_EQ(readFile(temp / "root" / "mine.vcf"), "keep");
}

class GeneratedBookTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_temp = new TempFolder;
        s_report = generate(s_temp->path() / "book", {.people = 2000, .seed = 42, .accounts = 3});
    }
    static void TearDownTestSuite() {
        delete s_temp;
        s_temp = nullptr;
    }
    static fs::path root() { return s_temp->path() / "book"; }

    static inline TempFolder* s_temp = nullptr;
    static inline VdirGeneratorReport s_report;
};

TEST_F(GeneratedBookTest, CountsMatchTheReportAndTheShapeOfASyncedBook) {
    std::size_t cards = 0;
    std::uint64_t bytes = 0;
    std::set<std::string> uids;
    std::size_t accounts = 0;
    for (const auto& folder : fs::directory_iterator(root())) {
        ASSERT_TRUE(folder.is_directory());
        ++accounts;
        EXPECT_FALSE(readFile(folder.path() / "displayname").empty()) << folder.path();
        for (const auto& file : fs::directory_iterator(folder.path())) {
            bytes += file.file_size();
            if (file.path().extension() == ".vcf") {
                ++cards;
                EXPECT_TRUE(uids.insert(file.path().stem().string()).second) << "UID twice: " << file.path();
            }
        }
    }
    EXPECT_EQ(accounts, 3u);
    EXPECT_EQ(cards, s_report.cards);
    EXPECT_EQ(bytes, s_report.bytes);
    EXPECT_EQ(s_report.people, 2000u);
    const double cardsPerPerson = static_cast<double>(cards - s_report.groupCards) / 2000.0;
    EXPECT_GT(cardsPerPerson, 1.15);
    EXPECT_LT(cardsPerPerson, 1.25);
    EXPECT_EQ(cards - s_report.groupCards, 2000u + s_report.linkedPeople);
    EXPECT_GE(s_report.groupCards, 3u);
    const double bytesPerCard = static_cast<double>(bytes) / static_cast<double>(cards);
    EXPECT_GT(bytesPerCard, 550.0);
    EXPECT_LT(bytesPerCard, 850.0);
}

TEST_F(GeneratedBookTest, EveryCardReadsCleanlyAndLinkedCardsShareOneAnchorAcrossAccounts) {
    // KinID -> the account folders of the cards that carry it.
    std::map<std::string, std::multiset<std::string>> anchors;
    std::map<std::string_view, int> seen;
    const std::string_view features[] = {"BDAY;X-APPLE-OMIT-YEAR=1604;value=date:1604-",
                                         "BDAY:--",
                                         "X-ABLabel:ex-work",
                                         "PHOTO;ENCODING=b;",
                                         "X-ADDRESSBOOKSERVER-KIND:group",
                                         "X-SOCIALPROFILE;",
                                         "IMPP;",
                                         ".X-ABADR:",
                                         "TEL;TYPE=CELL:+1 ",
                                         "NOTE:",
                                         "?r=",
                                         "h=1",
                                         "p=1",
                                         "FN:Иван",
                                         "FN:Γιώργος",
                                         "FN:王",
                                         "FN:佐藤",
                                         "N:العلي"};
    for (const auto& folder : fs::directory_iterator(root())) {
        const std::string account = folder.path().filename().string();
        for (const auto& file : fs::directory_iterator(folder.path())) {
            if (file.path().extension() != ".vcf") {
                continue;
            }
            SCOPED_TRACE(file.path().string());
            const std::string bytes = readFile(file.path());
            EXPECT_TRUE(linesAreWellFolded(bytes));
            auto card = VCard::parse(bytes);
            ASSERT_TRUE(card.ok());
            EXPECT_TRUE(card->warnings().empty());
            EXPECT_EQ(card->additionalCardCount(), 0u);
            EXPECT_EQ(card->uid(), file.path().stem().string());
            EXPECT_NE(card->first("FN"), nullptr);
            for (const VCardProperty* url : card->find("URL")) {
                std::string text = url->text();
                if (text.rfind("kinbook://c/", 0) == 0) {
                    anchors[text.substr(12, 8)].insert(account);
                    const VCardProperty* label = card->companion(*url, "X-ABLabel");
                    ASSERT_NE(label, nullptr);
                    EXPECT_EQ(label->text(), "Vellumary Contacts");
                }
            }
            if (const VCardProperty* photo = card->first("PHOTO")) {
                auto image = photo->binary();
                ASSERT_TRUE(image.has_value());
                ASSERT_GE(image->bytes.size(), 4u);
                EXPECT_EQ(image->bytes[0], 0xFF);
                EXPECT_EQ(image->bytes[1], 0xD8);
                EXPECT_EQ(image->bytes[image->bytes.size() - 1], 0xD9);
            }
            for (std::string_view feature : features) {
                if (bytes.find(feature) != std::string::npos) {
                    ++seen[feature];
                }
            }
        }
    }
    for (std::string_view feature : features) {
        EXPECT_GT(seen[feature], 0) << "no card has " << feature;
    }
    std::size_t shared = 0;
    for (const auto& [id, accounts] : anchors) {
        ASSERT_EQ(id.size(), 8u);
        EXPECT_EQ(id.find_first_not_of("0123456789ABCDEFGHJKMNPQRSTVWXYZ"), std::string::npos) << id;
        ASSERT_LE(accounts.size(), 2u) << id;
        if (accounts.size() == 2) {
            ++shared;
            EXPECT_EQ(accounts.count(*accounts.begin()), 1u) << "both cards of " << id << " in one account";
        }
    }
    EXPECT_EQ(shared, s_report.linkedPeople);
    EXPECT_GT(anchors.size(), shared); // some single cards carry an anchor too
}

} // namespace
} // namespace kinbook
