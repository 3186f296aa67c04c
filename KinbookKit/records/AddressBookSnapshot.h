#pragma once

#include "KinbookKit/records/Account.h"
#include "KinbookKit/records/Person.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

namespace kinbook {

// What one full read of the address book produced: the raw per-card people,
// the accounts, the change-history position taken at the start of the read,
// and when the read was made. The snapshot cache stores exactly this.
struct AddressBookSnapshot {
    std::vector<Person> people;
    std::vector<Account> accounts;
    std::optional<std::vector<std::uint8_t>> historyToken; // opaque; stored as Base64
    std::optional<std::chrono::system_clock::time_point>
        fullReadAt; // seconds since 2001-01-01, to the microsecond

    bool operator==(const AddressBookSnapshot&) const = default;
};

} // namespace kinbook
