#include "KinbookKit/sidecar/ContactTrash.h"

#include "KinbookKit/records/Iso8601.h"
#include "KinbookKit/text/Lzfse.h"
#include "tests/support/TempFolder.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <cstdlib>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// File names follow the local time zone; the tests pin one.
class ContactTrashTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }

    static TrashFile person(std::string name, std::chrono::system_clock::time_point at) {
        TrashFile file;
        file.name = std::move(name);
        file.deletedAt = at;
        file.cards = {
            {"icloud", "iCloud", "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Ann\r\nEND:VCARD\r\n", "met in Oslo"},
            {"gmail", "Gmail", "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Ann\r\nEND:VCARD\r\n", std::nullopt},
            {"gmail2", "Gmail", "BEGIN:VCARD\r\nEND:VCARD\r\n", std::nullopt}};
        return file;
    }

    // 2024-03-05 14:07:09 UTC.
    const std::chrono::system_clock::time_point at =
        std::chrono::sys_days{std::chrono::March / 5 / 2024} + 14h + 7min + 9s;
    testing::TempFolder folder;
    ContactTrash trash{folder.path()};
};

TEST_F(ContactTrashTest, FilesAreNamedByTimeAndSafeNameAndATakenNameGetsANumber) {
    EXPECT_EQ(trash.root(), folder / "Trash");
    EXPECT_EQ(trash.write(person("Ann Lee", at)).value(), "2024-03-05 140709 Ann Lee.kincontact");
    EXPECT_EQ(trash.write(person("Ann Lee", at)).value(), "2024-03-05 140709 Ann Lee 2.kincontact");
    EXPECT_EQ(trash.write(person("Ann Lee", at)).value(), "2024-03-05 140709 Ann Lee 3.kincontact");
    EXPECT_EQ(trash.write(person("AC/DC: a\\b\n", at)).value(), "2024-03-05 140709 AC-DC- a-b-.kincontact");
    // However long the name, the file can be made, and no character is cut in half.
    const auto longName = trash.write(person(std::string(300, 'x') + std::string(100, '\xC3'), at));
    ASSERT_TRUE(longName.ok());
    EXPECT_LE(longName->size(), 255u);
    EXPECT_TRUE(fs::exists(trash.root() / *longName));
}

TEST_F(ContactTrashTest, TheFileIsCompressedJsonUnderTheProductsKeysAndReadsBackWhole) {
    const TrashFile file = person("Ann Lee", at);
    const auto id = trash.write(file).value();
    const std::string bytes = testing::readFile(trash.root() / id);
    const auto json =
        lzfseDecompress({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}, 1 << 20);
    ASSERT_TRUE(json.ok());
    const auto document = nlohmann::json::parse(json->begin(), json->end());
    EXPECT_EQ(document["version"], 1);
    EXPECT_EQ(document["name"], "Ann Lee");
    EXPECT_DOUBLE_EQ(document["deletedAt"].get<double>(), secondsSinceReferenceDate(at));
    EXPECT_EQ(document["cards"][0]["accountID"], "icloud");
    EXPECT_EQ(document["cards"][0]["accountName"], "iCloud");
    EXPECT_EQ(document["cards"][0]["vcard"], "QkVHSU46VkNBUkQNClZFUlNJT046My4wDQpGTjpBbm4NCkVORDpWQ0FSRA0K");
    EXPECT_EQ(document["cards"][0]["note"], "met in Oslo");
    EXPECT_FALSE(document["cards"][1].contains("note")); // absent, not null, for a card without one

    EXPECT_EQ(trash.read(id).value(), file);
    EXPECT_TRUE(trash.remove(id).ok());
    EXPECT_FALSE(trash.read(id).ok());
    EXPECT_FALSE(trash.remove(id).ok());
}

TEST_F(ContactTrashTest, TheListIsNewestFirstAndSkipsDamagedFilesWithoutDeletingThem) {
    const auto older = trash.write(person("Older", at - 1h)).value();
    const auto newer = trash.write(person("Newer", at)).value();
    const std::string good = testing::readFile(trash.root() / newer);

    std::string flipped = good;
    flipped[flipped.size() / 2] = static_cast<char>(flipped[flipped.size() / 2] ^ 0x5a);
    // Well-formed and compressed, but missing every field but one.
    const std::string fields = "{\"version\":1}";
    const auto notATrashFile =
        lzfseCompress({reinterpret_cast<const std::uint8_t*>(fields.data()), fields.size()});
    const std::string notJson(reinterpret_cast<const char*>(notATrashFile.data()), notATrashFile.size());
    // A bomb: a small file whose content would be far larger than any person.
    const std::vector<std::uint8_t> zeros(ContactTrash::maxContentSize + 1, '0');
    const auto bomb = lzfseCompress(zeros);
    ASSERT_LT(bomb.size(), 1u << 20);

    testing::writeFile(trash.root() / "truncated.kincontact", good.substr(0, good.size() - 9));
    testing::writeFile(trash.root() / "flipped.kincontact", flipped);
    testing::writeFile(trash.root() / "fields.kincontact", notJson);
    testing::writeFile(trash.root() / "bomb.kincontact",
                       std::string(reinterpret_cast<const char*>(bomb.data()), bomb.size()));
    testing::writeFile(trash.root() / "notes.txt", "not a Trash file");

    const auto items = trash.list();
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0], (TrashItem{newer, "Newer", at, {"iCloud", "Gmail"}}));
    EXPECT_EQ(items[1].id, older);
    for (const char* damaged : {"truncated", "flipped", "fields", "bomb"}) {
        const std::string id = std::string(damaged) + ".kincontact";
        EXPECT_TRUE(fs::exists(trash.root() / id)) << damaged;
        const auto read = trash.read(id);
        ASSERT_FALSE(read.ok()) << damaged;
        EXPECT_NE(read.error().find(id), std::string::npos) << read.error();
    }

    // Emptying deletes the Trash files, damaged ones too, and nothing else.
    EXPECT_EQ(trash.empty().value(), 6u);
    EXPECT_TRUE(trash.list().empty());
    EXPECT_TRUE(fs::exists(trash.root() / "notes.txt"));
}

TEST(TrashFileTest, OnlyVersionOneIsReadAndNoVersionNumberOverflows) {
    // Found by fuzzing: a version of 1e111 overflowed its conversion.
    const std::string rest = R"(,"name":"Ann","deletedAt":1.5,"cards":[]})";
    EXPECT_TRUE(TrashFile::fromJSON(R"({"version":1)" + rest).ok());
    for (const std::string version : {"1e111", "-1e111", "1.5", "\"1\"", "2", "18446744073709551617"}) {
        const auto read = TrashFile::fromJSON(R"({"version":)" + version + rest);
        ASSERT_FALSE(read.ok()) << version;
        EXPECT_NE(read.error().find("version"), std::string::npos) << read.error();
    }
}

TEST_F(ContactTrashTest, AnIdNeverReachesOutsideTheTrashFolder) {
    testing::writeFile(folder / "outside.kincontact", ContactTrash::encode(person("x", at)));
    for (const char* id : {"../outside.kincontact", "/etc/passwd", "", ".kincontact", "a/b.kincontact"}) {
        EXPECT_FALSE(trash.read(id).ok()) << id;
        EXPECT_FALSE(trash.remove(id).ok()) << id;
    }
    EXPECT_TRUE(fs::exists(folder / "outside.kincontact"));
    EXPECT_TRUE(trash.list().empty());
    EXPECT_EQ(trash.empty().value(), 0u); // no folder yet is an empty Trash
}

} // namespace
} // namespace kinbook
