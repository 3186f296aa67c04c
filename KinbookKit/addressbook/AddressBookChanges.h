#pragma once

#include "KinbookKit/records/Person.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kinbook {

// What changed in the address book since a history token: the people to read
// again, the cards that are gone, the accounts holding the changed people, and
// the token to pass next time. A value.
struct AddressBookChanges {
    // The journal cannot say what changed (the token names another journal, is
    // damaged, or is older than what the journal keeps): drop everything and do
    // a full read. All other fields are then empty or absent.
    bool startOver = false;
    std::vector<Person> changed;                    // changed and added people, read with details
    std::set<std::string> deleted;                  // ids of cards that no longer exist
    std::map<std::string, Texts> membership;        // changed person id -> account ids
    std::optional<std::vector<std::uint8_t>> token; // opaque; the position after these changes

    bool operator==(const AddressBookChanges&) const = default;
};

} // namespace kinbook
