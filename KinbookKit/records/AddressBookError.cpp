#include "KinbookKit/records/AddressBookError.h"

namespace kinbook {

AddressBookAccess accessFromStoreAuthorization(StoreAuthorization status) {
    switch (status) {
    case StoreAuthorization::notDetermined:
        return AddressBookAccess::notDetermined;
    case StoreAuthorization::restricted:
    case StoreAuthorization::denied:
        return AddressBookAccess::denied;
    case StoreAuthorization::authorized:
        return AddressBookAccess::granted;
    case StoreAuthorization::limited:
        return AddressBookAccess::limited;
    }
    return AddressBookAccess::denied;
}

AddressBookAccess accessFromStoreAuthorization(int rawStatus) {
    if (rawStatus < 0 || rawStatus > static_cast<int>(StoreAuthorization::limited)) {
        return AddressBookAccess::denied;
    }
    return accessFromStoreAuthorization(static_cast<StoreAuthorization>(rawStatus));
}

std::string_view accessName(AddressBookAccess access) {
    switch (access) {
    case AddressBookAccess::notDetermined:
        return "notDetermined";
    case AddressBookAccess::granted:
        return "granted";
    case AddressBookAccess::limited:
        return "limited";
    case AddressBookAccess::denied:
        return "denied";
    }
    return "denied";
}

std::string AddressBookError::description() const {
    switch (code) {
    case Code::readOnly:
        return "This address book can't be edited.";
    case Code::notFound:
        return "That contact no longer exists.";
    case Code::hasNote:
        return "This contact has a note, and macOS won't let apps change a contact with a note until Apple "
               "grants "
               "the notes permission (requested). Change it in Apple's Contacts app for now.";
    case Code::store:
        return storeDescription;
    }
    return storeDescription;
}

} // namespace kinbook
