#include "KinbookKit/addressbook/StoredEntryRegistry.h"

#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

namespace kinbook {
namespace {

using Entry = EntryRegistry::Entry;

Entry tel(std::string raw) {
    const std::string value = raw.substr(raw.find(':') + 1);
    return Entry{"TEL", EntryRegistry::fingerprintOf(raw), normalizedEntryValue("TEL", value), std::nullopt};
}

TEST(StoredEntryRegistry, PersistsMovedIdentitiesAndSurvivesADamagedFile) {
    testing::TempFolder folder;
    const auto file = folder / "entry-ids.json";
    const std::vector<Entry> after = {tel("TEL:+1 212 555 0199")};
    {
        StoredEntryRegistry registry(file);
        registry.record("card", after, std::vector<std::string>{"kept-id"});
        ASSERT_TRUE(registry.flush());
    }
    EXPECT_EQ(StoredEntryRegistry(file).identify("card", after), std::vector<std::string>{"kept-id"});

    testing::writeFile(file, "{\"card\": [{\"id\": 5}]");
    StoredEntryRegistry damaged(file);
    EXPECT_EQ(damaged.identify("card", after),
              (std::vector<std::string>{EntryRegistry::derivedID("card", after[0], 0)}));
}

} // namespace
} // namespace kinbook
