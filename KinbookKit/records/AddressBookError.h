#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kinbook {

// The user's permission to use the address book. On a vdir it follows the
// folder: readable and writable is granted, readable only is limited,
// missing is not determined (asking creates it), unreadable is denied.
enum class AddressBookAccess { notDetermined, granted, limited, denied };

// The authorisation states a contact store reports.
enum class StoreAuthorization { notDetermined = 0, restricted = 1, denied = 2, authorized = 3, limited = 4 };

AddressBookAccess accessFromStoreAuthorization(StoreAuthorization status);
// Any raw value the store may report; values it does not define are denied.
AddressBookAccess accessFromStoreAuthorization(int rawStatus);

std::string_view accessName(AddressBookAccess access);

// An error of the address-book layer. The layer's own cases carry fixed
// messages; any other failure of the store passes through with its own.
struct AddressBookError {
    enum class Code {
        readOnly,
        notFound,
        hasNote,
        store, // a failure of the store itself, described by `storeDescription`
    };

    Code code = Code::store;
    std::string storeDescription;

    static AddressBookError readOnly() { return {Code::readOnly, {}}; }
    static AddressBookError notFound() { return {Code::notFound, {}}; }
    static AddressBookError hasNote() { return {Code::hasNote, {}}; }
    static AddressBookError store(std::string description) { return {Code::store, std::move(description)}; }

    // The message shown to the user.
    std::string description() const;

    bool operator==(const AddressBookError&) const = default;
};

} // namespace kinbook
