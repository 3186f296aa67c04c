#include "KinbookKit/records/AddressBookSnapshot.h"

#include "KinbookKit/records/Iso8601.h"
#include "KinbookKit/text/Base64.h"

#include <nlohmann/json.hpp>

namespace kinbook {

nlohmann::json AddressBookSnapshot::toJSON() const {
    auto peopleJSON = nlohmann::json::array();
    for (const auto& person : people) {
        peopleJSON.push_back(person.toJSON());
    }
    auto accountsJSON = nlohmann::json::array();
    for (const auto& account : accounts) {
        accountsJSON.push_back(account.toJSON());
    }
    nlohmann::json json = {{"people", std::move(peopleJSON)}, {"accounts", std::move(accountsJSON)}};
    if (historyToken) {
        json["historyToken"] = base64Encode(*historyToken);
    }
    if (fullReadAt) {
        json["fullReadAt"] = secondsSinceReferenceDate(*fullReadAt);
    }
    return json;
}

std::optional<AddressBookSnapshot> AddressBookSnapshot::fromJSON(const nlohmann::json& json) {
    if (!json.is_object()) {
        return std::nullopt;
    }
    const auto people = json.find("people");
    const auto accounts = json.find("accounts");
    if (people == json.end() || accounts == json.end() || !people->is_array() || !accounts->is_array()) {
        return std::nullopt;
    }
    AddressBookSnapshot snapshot;
    snapshot.people.reserve(people->size());
    for (const auto& entry : *people) {
        auto person = Person::fromJSON(entry);
        if (!person) {
            return std::nullopt;
        }
        snapshot.people.push_back(std::move(*person));
    }
    for (const auto& entry : *accounts) {
        auto account = Account::fromJSON(entry);
        if (!account) {
            return std::nullopt;
        }
        snapshot.accounts.push_back(std::move(*account));
    }
    if (const auto token = json.find("historyToken"); token != json.end() && !token->is_null()) {
        if (!token->is_string()) {
            return std::nullopt;
        }
        auto bytes = base64Decode(token->get_ref<const std::string&>());
        if (!bytes) {
            return std::nullopt;
        }
        snapshot.historyToken = std::move(*bytes);
    }
    if (const auto readAt = json.find("fullReadAt"); readAt != json.end() && !readAt->is_null()) {
        if (!readAt->is_number()) {
            return std::nullopt;
        }
        // Seconds as a double keep microseconds exactly for centuries around
        // 2001; rounding to them makes a written time read back equal.
        snapshot.fullReadAt =
            std::chrono::round<std::chrono::microseconds>(dateFromReferenceSeconds(readAt->get<double>()));
    }
    return snapshot;
}

} // namespace kinbook
