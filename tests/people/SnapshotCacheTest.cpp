#include "KinbookKit/people/SnapshotCache.h"

#include "tests/support/SavedEnvironment.h"
#include "tests/support/TempFolder.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <iterator>

namespace kinbook {
namespace {

using testing::readFile;
using testing::TempFolder;
using testing::writeFile;

Person samplePerson(std::string id) {
    Person person;
    person.id = std::move(id);
    person.givenName = "Zoë \"Zo\"";
    person.middleName = "back\\slash";
    person.familyName = "Ørsted-Łukasz";
    person.nickname = "tab\there";
    person.organization = "Ünïcode GmbH \u0001 ctl";
    person.jobTitle = "乐队指挥 🎻";
    person.department = "";
    person.phoneNumbers = {"+1 (212) 555-0100", "+44 20 7946 0958", "ext. 12"};
    person.emailAddresses = {"zoe@example.com"};
    person.accountIDs = {"acc-1", "acc-2"};
    person.hasImage = true;
    person.postalCodes = {"10001-1234"};
    person.places = {"New York\nUSA"};
    person.filledCount = 11;
    person.detailed = true;
    person.kinID = "kinbook://c/ab12cd34";
    person.hidden = true;
    person.circle = ContactCircle::goodFriends;
    person.isPrimaryCard = true;
    person.memberIDs = {person.id, "other-card"};
    person.derive();
    return person;
}

AddressBookSnapshot sampleSnapshot() {
    AddressBookSnapshot snapshot;
    snapshot.people.push_back(samplePerson("card-1"));
    Person plain;
    plain.id = "card-2";
    plain.derive();
    snapshot.people.push_back(plain);
    snapshot.accounts = {{"acc-1", "iCloud"}, {"acc-2", "Work \"Exchange\""}};
    snapshot.historyToken = std::vector<std::uint8_t>{0, 1, 2, 250, 255};
    snapshot.fullReadAt =
        std::chrono::system_clock::time_point(std::chrono::microseconds(1'767'225'600'123'456));
    return snapshot;
}

class SnapshotCacheTest : public ::testing::Test {
protected:
    TempFolder folder;
    SnapshotCache cache{folder / "caches" / "kinbook" / "kinbook-snapshot.json"};

    std::optional<AddressBookSnapshot> readText(const std::string& text) {
        std::filesystem::create_directories(cache.url().parent_path());
        writeFile(cache.url(), SnapshotCache::seal(text));
        return cache.read();
    }
};

TEST_F(SnapshotCacheTest, WritesIntoAFolderThatDoesNotExistYetReadsBackEqualAndRemoves) {
    cache.write(AddressBookSnapshot{});
    EXPECT_EQ(cache.read(), AddressBookSnapshot{});

    const auto snapshot = sampleSnapshot();
    cache.write(snapshot);
    const auto read = cache.read();
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(*read, snapshot);
    // Person equality covers the stored fields; the keys are compared too.
    ASSERT_EQ(read->people.size(), 2u);
    EXPECT_EQ(read->people[0].keys(), snapshot.people[0].keys());
    EXPECT_EQ(read->people[1].displayName(), "No Name");
    // Nothing is left beside the file.
    const auto beside = std::filesystem::directory_iterator(cache.url().parent_path());
    EXPECT_EQ(std::distance(begin(beside), end(beside)), 1);

    // A text that is not UTF-8 is never written: the cache stays as it was.
    auto damaged = snapshot;
    damaged.people[1].id = "card-\xff";
    cache.write(damaged);
    EXPECT_EQ(cache.read(), snapshot);

    cache.remove();
    EXPECT_FALSE(std::filesystem::exists(cache.url()));
    EXPECT_EQ(cache.read(), std::nullopt);
    cache.remove(); // a missing file is no error
}

// The file as a general JSON library holds it.
nlohmann::json fileJSON(const AddressBookSnapshot& snapshot) {
    return nlohmann::json::parse(SnapshotCache::encode(snapshot).value());
}

TEST_F(SnapshotCacheTest, TheFileIsTheSnapshotsOwnJSONUnderFormatTen) {
    const auto snapshot = sampleSnapshot();
    cache.write(snapshot);
    const std::string bytes = readFile(cache.url());
    const auto file = nlohmann::json::parse(SnapshotCache::unseal(bytes).value());
    EXPECT_EQ(file.at("format"), 10);
    const auto& stored = file.at("snapshot");
    ASSERT_EQ(stored.at("people").size(), snapshot.people.size());
    for (std::size_t i = 0; i < snapshot.people.size(); ++i) {
        EXPECT_EQ(stored["people"][i], snapshot.people[i].toJSON()) << i;
    }
    EXPECT_EQ(stored.at("accounts"),
              nlohmann::json::parse(
                  R"([{"id":"acc-1","name":"iCloud"},{"id":"acc-2","name":"Work \"Exchange\""}])"));
    EXPECT_EQ(stored.at("historyToken"), "AAEC+v8=");
    // Seconds since 2001-01-01.
    EXPECT_DOUBLE_EQ(stored.at("fullReadAt").get<double>(), 788'918'400.123456);
    // Absent, the token and the time are left out.
    const auto empty = fileJSON(AddressBookSnapshot{});
    EXPECT_FALSE(empty.at("snapshot").contains("historyToken"));
    EXPECT_FALSE(empty.at("snapshot").contains("fullReadAt"));

    // And the same JSON written by a general encoder reads back too, also
    // when it escapes every character outside ASCII.
    EXPECT_EQ(readText(file.dump()), snapshot);
    const auto escaped = file.dump(-1, ' ', true);
    ASSERT_NE(escaped.find("\\ud83c\\udfbb"), std::string::npos)
        << "the violin is written as a surrogate pair";
    EXPECT_EQ(SnapshotCache::decode(escaped), snapshot);
}

TEST_F(SnapshotCacheTest, MissingEmptyInvalidAndOtherFormatsReadAsNone) {
    EXPECT_EQ(cache.read(), std::nullopt) << "missing";
    const auto valid = fileJSON(sampleSnapshot());
    ASSERT_TRUE(readText(valid.dump()).has_value());
    ASSERT_TRUE(SnapshotCache::decode(valid.dump() + "\n").has_value()) << "a final line break is no damage";

    // The valid file with one change.
    const auto with = [&](const std::function<void(nlohmann::json&)>& change) {
        auto json = valid;
        change(json);
        return json.dump();
    };
    const auto format9 = with([](auto& json) { json["format"] = 9; });
    const auto person = [&](const std::function<void(nlohmann::json&)>& change) {
        return with([&](auto& json) { change(json["snapshot"]["people"][0]); });
    };
    const std::pair<std::string, std::string> cases[] = {
        {"empty", ""},
        {"blank", "  \n"},
        {"not JSON", "kinbook"},
        {"an array", "[]"},
        {"format 9", format9},
        {"format as text", with([](auto& json) { json["format"] = "10"; })},
        {"no format", with([](auto& json) { json.erase("format"); })},
        {"no snapshot", with([](auto& json) { json.erase("snapshot"); })},
        {"no people", with([](auto& json) { json["snapshot"].erase("people"); })},
        {"no accounts", with([](auto& json) { json["snapshot"].erase("accounts"); })},
        {"an account id as a number", with([](auto& json) { json["snapshot"]["accounts"][0]["id"] = 5; })},
        {"a yes as text", person([](auto& json) { json["hasImage"] = "yes"; })},
        {"a person without id", person([](auto& json) { json.erase("id"); })},
        {"a count as text", person([](auto& json) { json["filledCount"] = "11"; })},
        {"a count out of range", person([](auto& json) { json["filledCount"] = 1ll << 40; })},
        {"some derived keys only", person([](auto& json) { json.erase("sortKey"); })},
        {"a damaged token", with([](auto& json) { json["snapshot"]["historyToken"] = "not base64!"; })},
        {"a read time as text", with([](auto& json) { json["snapshot"]["fullReadAt"] = "yesterday"; })},
        {"trailing text", valid.dump() + " {}"},
    };
    // Escapes that are not JSON's, in a text the reader takes apart itself.
    const std::string badEscapes[] = {"\\x41",    "\\u12G4",        "\\udc00", "\\ud83c",
                                      "\\ud83cx", "\\ud83c\\u0041", "\\'"};
    for (const auto& escape : badEscapes) {
        auto text = valid.dump();
        const auto at = text.find("card-1");
        ASSERT_NE(at, std::string::npos);
        text.insert(at, escape);
        EXPECT_EQ(SnapshotCache::decode(text), std::nullopt) << escape;
    }
    for (const auto& [what, text] : cases) {
        EXPECT_EQ(SnapshotCache::decode(text), std::nullopt) << what;
    }
    EXPECT_EQ(readText(""), std::nullopt) << "an empty file";
    EXPECT_EQ(readText(format9), std::nullopt) << "a file of format 9";
}

TEST_F(SnapshotCacheTest, ADamagedCacheIsNotBelievedEvenWhenItIsStillValidJSON) {
    cache.write(sampleSnapshot());
    const std::string written = readFile(cache.url());
    ASSERT_EQ(cache.read(), sampleSnapshot());

    // One letter of an address changed: still valid JSON, still a snapshot.
    std::string renamed = written;
    const auto at = renamed.find("zoe@example.com");
    ASSERT_NE(at, std::string::npos);
    renamed[at] = 'y';
    ASSERT_TRUE(SnapshotCache::decode(renamed.substr(renamed.find('\n') + 1)));
    // A wrong checksum, a checksum line cut short, and the bare JSON of a
    // cache from before the checksum.
    std::string wrongSum = written;
    wrongSum[wrongSum.find('\n') - 1] ^= 1;
    const std::pair<std::string, std::string> damaged[] = {
        {"a changed letter", renamed},
        {"a changed checksum", wrongSum},
        {"a cut checksum line", written.substr(0, 20)},
        {"no checksum line", written.substr(written.find('\n') + 1)},
        {"a line break lost", written.substr(0, written.find('\n')) + written.substr(written.find('\n') + 1)},
    };
    for (const auto& [what, bytes] : damaged) {
        writeFile(cache.url(), bytes);
        EXPECT_EQ(cache.read(), std::nullopt) << what;
    }
    // The next write replaces it with one that is believed.
    cache.write(sampleSnapshot());
    EXPECT_EQ(cache.read(), sampleSnapshot());
}

TEST_F(SnapshotCacheTest, FilesEndingAtAndAroundAPageBoundaryReadWithoutReadingPastTheirEnd) {
    // The reader looks up to a few dozen bytes past the end of the file's
    // text; a file that fills its last page to the brim must still give it
    // zeros there, whole or cut off in the middle of a text.
    const auto whole = SnapshotCache::encode(sampleSnapshot());
    ASSERT_TRUE(whole.has_value());
    const std::size_t page = 4096;
    const std::size_t checksumLine = SnapshotCache::seal("").size();
    for (std::size_t size = page - 72; size <= page + 1; ++size) {
        std::string padded = *whole;
        padded.resize(size - checksumLine, ' ');
        EXPECT_EQ(readText(padded), sampleSnapshot()) << size << " bytes";

        // The same length, ending inside a long escaped text.
        std::string cut = *whole;
        cut.insert(cut.find("\"places\":[") + 10, "\"" + std::string(size, 'a'));
        cut.resize(size - checksumLine);
        EXPECT_EQ(readText(cut), std::nullopt) << size << " bytes, cut in a text";
    }
}

// What a general JSON library makes of a file: the judge of whether damage
// left valid JSON. What it takes for JSON is then read from its own
// rewriting, whose layout (keys sorted, people after accounts) is not the
// writer's and goes through the general reader.
std::optional<AddressBookSnapshot> decodedByJSONLibrary(const std::string& text) {
    const auto json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_discarded()) {
        return std::nullopt;
    }
    return SnapshotCache::decode(json.dump());
}

TEST(SnapshotCacheDecode, CutOrDamagedBytesNeverCrashItAndReadAsAJSONLibraryReadsThem) {
    const auto whole = SnapshotCache::encode(sampleSnapshot());
    ASSERT_TRUE(whole.has_value());
    ASSERT_TRUE(SnapshotCache::decode(*whole).has_value());
    for (std::size_t length = 0; length < whole->size(); ++length) {
        ASSERT_EQ(SnapshotCache::decode(std::string_view(*whole).substr(0, length)), std::nullopt)
            << "cut after " << length << " bytes";
    }
    int decoded = 0;
    int tried = 0;
    for (std::size_t position = 0; position < whole->size(); ++position) {
        for (const char replacement : {'\0', '"', '}', ',', '\\', '\xff', '0', ' '}) {
            auto damaged = *whole;
            damaged[position] = replacement;
            const auto read = SnapshotCache::decode(damaged);
            EXPECT_EQ(read, decodedByJSONLibrary(damaged))
                << "byte " << position << " as " << static_cast<int>(replacement) << ": "
                << damaged.substr(position > 30 ? position - 30 : 0, 60);
            decoded += read.has_value() ? 1 : 0;
            ++tried;
        }
    }
    // Some damage lands inside a text and still decodes; most does not.
    EXPECT_LT(decoded, tried / 2);
}

// A large address book is decoded in runs, two at a time; each person must
// land in their own place, the parts must hold them in order, and damage in
// any run spoils the whole read.
TEST(SnapshotCacheDecode, ALargeBookReadsBackInOrderAndDamageInAnyRunIsNone) {
    AddressBookSnapshot snapshot = sampleSnapshot();
    for (int i = 0; i < 20000; ++i) {
        auto person = samplePerson("card-" + std::to_string(i + 3));
        person.givenName = "Person " + std::to_string(i);
        if (i % 3000 == 0) {
            // Written escaped, this is no boundary between two people.
            person.nickname = "},{\"id\":\"card-3\"";
        }
        person.derive();
        snapshot.people.push_back(std::move(person));
    }
    const auto whole = SnapshotCache::encode(snapshot);
    ASSERT_TRUE(whole.has_value());
    const auto decoded = SnapshotCache::decode(*whole);
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(*decoded, snapshot);

    TempFolder folder;
    SnapshotCache cache(folder / "kinbook-snapshot.json");
    cache.write(snapshot);
    const auto parts = cache.readParts();
    ASSERT_TRUE(parts.has_value());
    EXPECT_GT(parts->people.size(), 2u);
    EXPECT_TRUE(parts->snapshot.people.empty());
    std::vector<Person> joined;
    for (const auto& run : parts->people) {
        joined.insert(joined.end(), run.begin(), run.end());
    }
    EXPECT_EQ(joined, snapshot.people);
    EXPECT_EQ(parts->snapshot.accounts, snapshot.accounts);
    EXPECT_EQ(parts->snapshot.historyToken, snapshot.historyToken);

    for (const std::string id : {"card-10", "card-9000", "card-19999"}) {
        auto damaged = *whole;
        // The person keeps valid JSON but loses a field every person has.
        const auto at = damaged.find("\"id\":\"" + id + "\"");
        ASSERT_NE(at, std::string::npos);
        damaged.replace(at, 4, "\"xx\"");
        EXPECT_EQ(SnapshotCache::decode(damaged), std::nullopt) << id;
    }
}

TEST_F(SnapshotCacheTest, PeopleStoredWithoutKeysGetThemWorkedOutAndUnknownCirclesReadAsNone) {
    const auto person = samplePerson("card-1");
    auto json = person.toJSON();
    for (const auto* key : {"displayName", "sortKey", "sectionLetter", "firstNameSortKey",
                            "firstNameSectionLetter", "areaCodes", "searchText", "phoneDigits"}) {
        json.erase(key);
    }
    json["kinID"] = nullptr;
    json["circle"] = 42;
    const nlohmann::json file = {{"format", 10},
                                 {"snapshot", {{"people", {json}}, {"accounts", nlohmann::json::array()}}}};
    const auto read = readText(file.dump());
    ASSERT_TRUE(read.has_value());
    ASSERT_EQ(read->people.size(), 1u);
    EXPECT_EQ(read->people[0].keys(), person.keys());
    EXPECT_EQ(read->people[0].kinID, std::nullopt);
    EXPECT_EQ(read->people[0].circle, std::nullopt);
}

TEST(SnapshotCacheLocation, TheUsersCachesFolderOrNone) {
    const testing::SavedEnvironment saved{"XDG_CACHE_HOME", "HOME"};
    ::setenv("HOME", "/home/ann", 1);
    ::setenv("XDG_CACHE_HOME", "/somewhere/cache", 1);
    ASSERT_NE(SnapshotCache::make(), nullptr);
    EXPECT_EQ(SnapshotCache::make()->url(), "/somewhere/cache/kinbook/kinbook-snapshot.json");
    ::setenv("XDG_CACHE_HOME", "relative/cache", 1);
    ASSERT_NE(SnapshotCache::make(), nullptr);
    EXPECT_EQ(SnapshotCache::make()->url(), "/home/ann/.cache/kinbook/kinbook-snapshot.json");
    ::unsetenv("XDG_CACHE_HOME");
    ::unsetenv("HOME");
    EXPECT_EQ(SnapshotCache::make(), nullptr);
}

} // namespace
} // namespace kinbook
