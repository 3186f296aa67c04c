#include "KinbookKit/vcard/EntryRegistry.h"

#include <gtest/gtest.h>

namespace kinbook {
namespace {

using Entry = EntryRegistry::Entry;

Entry tel(std::string raw, std::optional<std::string> pid = std::nullopt) {
    const std::string value = raw.substr(raw.find(':') + 1);
    return Entry{"TEL", EntryRegistry::fingerprintOf(raw), normalizedEntryValue("TEL", value),
                 std::move(pid)};
}

Entry email(std::string raw) {
    const std::string value = raw.substr(raw.find(':') + 1);
    return Entry{"EMAIL", EntryRegistry::fingerprintOf(raw), normalizedEntryValue("EMAIL", value),
                 std::nullopt};
}

TEST(EntryRegistry, UntouchedLinesKeepTheirIdentityWithoutAnythingStored) {
    EntryRegistry first;
    EntryRegistry later; // a new run: nothing remembered
    // Two identical lines are told apart by their order.
    const std::vector<Entry> entries = {tel("TEL;TYPE=CELL:+1 212 555 0100"), tel("TEL:555 0101"),
                                        email("EMAIL:a@b.c"), email("EMAIL:a@b.c")};
    const auto ids = first.identify("card", entries);
    EXPECT_EQ(later.identify("card", entries), ids);
    EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), 4u);
    // Reordering lines keeps each line's identity.
    const std::vector<Entry> reordered = {entries[2], entries[1], entries[0], entries[3]};
    EXPECT_EQ(later.identify("card", reordered), (std::vector<std::string>{ids[2], ids[1], ids[0], ids[3]}));
    // The same line on another card is another entry.
    EXPECT_NE(later.identify("other", entries)[0], ids[0]);
}

TEST(EntryRegistry, AnIdentityMovesWithALineKinbookRewrote) {
    EntryRegistry registry;
    std::vector<Entry> before = {tel("TEL;TYPE=CELL:+1 212 555 0100"), email("EMAIL:a@b.c")};
    const auto ids = registry.identify("card", before);
    // The editor changed the number's digits and added an e-mail with its own id.
    std::vector<Entry> after = {tel("TEL;TYPE=CELL:+1 212 555 0199"), email("EMAIL:a@b.c"),
                                email("EMAIL:new@b.c")};
    const std::vector<std::string> intended = {ids[0], ids[1], "EDITOR-UUID"};
    registry.record("card", after, intended);
    EXPECT_EQ(registry.identify("card", after), intended);
}

TEST(EntryRegistry, RememberedCardsAreMatchedAgainAfterAnOutsideEdit) {
    EntryRegistry registry;
    const std::vector<Entry> written = {tel("TEL:+1 212 555 0100"), tel("item1.TEL:555 0101"),
                                        email("EMAIL:A@B.C")};
    const std::vector<std::string> ids = {"phone-1", "phone-2", "mail-1"};
    registry.record("card", written, ids);

    // Another program renumbered a group (fingerprints leave groups out, so the
    // caller passes the line without it), re-typed the e-mail in capitals and
    // changed one number in place.
    const std::vector<Entry> outside = {tel("TEL:+1 (212) 555-0100 "), tel("TEL:555 0102"),
                                        email("EMAIL:a@b.c")};
    EXPECT_EQ(registry.identify("card", outside), ids);

    // With two numbers changed at once nothing can say which is which: they get
    // fresh identities rather than a guess.
    const std::vector<Entry> twoChanged = {tel("TEL:111 1111"), tel("TEL:222 2222"), email("EMAIL:a@b.c")};
    const auto fresh = registry.identify("card", twoChanged);
    EXPECT_NE(fresh[0], "phone-1");
    EXPECT_NE(fresh[1], "phone-2");
    EXPECT_EQ(fresh[2], "mail-1");
}

TEST(EntryRegistry, PidIsTheFirstKey) {
    EntryRegistry registry;
    registry.record("card", std::vector<Entry>{tel("TEL;PID=1.1:1", "1.1"), tel("TEL;PID=2.1:2", "2.1")},
                    std::vector<std::string>{"one", "two"});
    // The values swapped places, the PIDs stayed with their entries.
    const auto ids = registry.identify(
        "card", std::vector<Entry>{tel("TEL;PID=2.1:1", "2.1"), tel("TEL;PID=1.1:2", "1.1")});
    EXPECT_EQ(ids, (std::vector<std::string>{"two", "one"}));
}

TEST(EntryRegistry, NormalisedValues) {
    EXPECT_EQ(normalizedEntryValue("TEL", " +1 (212) 555-0100 "), "+12125550100");
    EXPECT_EQ(normalizedEntryValue("tel", "0044 20+7946"), "0044207946");
    EXPECT_EQ(normalizedEntryValue("EMAIL", " Jane@Example.COM"), "jane@example.com");
    EXPECT_EQ(normalizedEntryValue("ADR", " ;;1 Main St;; "), ";;1 Main St;;");
}

} // namespace
} // namespace kinbook
