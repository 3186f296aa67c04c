#include "KinbookKit/people/SnapshotCache.h"

#include "KinbookKit/AtomicFile.h"
#include "KinbookKit/records/Iso8601.h"
#include "KinbookKit/text/Base64.h"

#include <simdjson.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

namespace kinbook {
namespace {

namespace ondemand = simdjson::ondemand;

constexpr std::string_view kFileName = "kinbook-snapshot.json";

// MARK: - Writing

// The cache is written by hand rather than through a JSON tree: at 100,000
// people a tree costs several times the file in memory and most of the time.
// The layout is the snapshot's own JSON (AddressBookSnapshot::toJSON), keys
// in field order.
class SnapshotWriter {
public:
    explicit SnapshotWriter(std::string& out) : m_out(out) {}

    void file(const AddressBookSnapshot& snapshot) {
        m_out += "{\"format\":";
        number(SnapshotCache::kFormat);
        m_out += ",\"snapshot\":{\"people\":[";
        for (std::size_t i = 0; i < snapshot.people.size(); ++i) {
            if (i > 0) {
                m_out += ',';
            }
            person(snapshot.people[i]);
        }
        m_out += "],\"accounts\":[";
        for (std::size_t i = 0; i < snapshot.accounts.size(); ++i) {
            if (i > 0) {
                m_out += ',';
            }
            m_out += "{\"id\":";
            string(snapshot.accounts[i].id);
            m_out += ",\"name\":";
            string(snapshot.accounts[i].name);
            m_out += '}';
        }
        m_out += ']';
        if (snapshot.historyToken) {
            m_out += ",\"historyToken\":";
            string(base64Encode(*snapshot.historyToken));
        }
        if (snapshot.fullReadAt) {
            m_out += ",\"fullReadAt\":";
            number(secondsSinceReferenceDate(*snapshot.fullReadAt));
        }
        m_out += "}}";
    }

private:
    void person(const Person& person) {
        m_out += "{\"id\":";
        string(person.id);
        field("givenName", person.givenName);
        field("middleName", person.middleName);
        field("familyName", person.familyName);
        field("nickname", person.nickname);
        field("organization", person.organization);
        field("jobTitle", person.jobTitle);
        field("department", person.department);
        field("phoneNumbers", person.phoneNumbers);
        field("emailAddresses", person.emailAddresses);
        field("accountIDs", person.accountIDs);
        field("hasImage", person.hasImage);
        field("postalCodes", person.postalCodes);
        field("places", person.places);
        key("filledCount");
        number(person.filledCount);
        field("detailed", person.detailed);
        if (person.kinID) {
            field("kinID", *person.kinID);
        }
        field("hidden", person.hidden);
        if (person.circle) {
            key("circle");
            number(rawValue(*person.circle));
        }
        field("isPrimaryCard", person.isPrimaryCard);
        field("memberIDs", person.memberIDs);
        const PersonKeys& keys = person.keys();
        field("displayName", keys.displayName);
        field("sortKey", keys.sortKey);
        field("sectionLetter", keys.sectionLetter);
        field("firstNameSortKey", keys.firstNameSortKey);
        field("firstNameSectionLetter", keys.firstNameSectionLetter);
        field("areaCodes", keys.areaCodes);
        field("searchText", keys.searchText);
        field("phoneDigits", keys.phoneDigits);
        m_out += '}';
    }

    void key(std::string_view name) {
        m_out += ",\"";
        m_out += name;
        m_out += "\":";
    }
    void field(std::string_view name, const std::string& value) {
        key(name);
        string(value);
    }
    void field(std::string_view name, bool value) {
        key(name);
        m_out += value ? "true" : "false";
    }
    void field(std::string_view name, const std::vector<std::string>& values) {
        key(name);
        m_out += '[';
        for (std::size_t i = 0; i < values.size(); ++i) {
            if (i > 0) {
                m_out += ',';
            }
            string(values[i]);
        }
        m_out += ']';
    }

    template <typename Number>
    void number(Number value) {
        // The shortest text that reads back as the same number.
        std::array<char, 32> buffer{};
        const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
        m_out.append(buffer.data(), result.ptr);
    }

    // A JSON string. Bytes from 0x80 up are copied as they are; the whole
    // file is checked for valid UTF-8 once it is written.
    void string(std::string_view text) {
        static constexpr char kHex[] = "0123456789abcdef";
        m_out += '"';
        std::size_t runStart = 0;
        for (std::size_t i = 0; i < text.size(); ++i) {
            const auto byte = static_cast<unsigned char>(text[i]);
            if (byte >= 0x20 && byte != '"' && byte != '\\') {
                continue;
            }
            m_out.append(text.data() + runStart, i - runStart);
            runStart = i + 1;
            m_out += '\\';
            switch (byte) {
            case '"':
                m_out += '"';
                break;
            case '\\':
                m_out += '\\';
                break;
            case '\n':
                m_out += 'n';
                break;
            case '\r':
                m_out += 'r';
                break;
            case '\t':
                m_out += 't';
                break;
            case '\b':
                m_out += 'b';
                break;
            case '\f':
                m_out += 'f';
                break;
            default:
                m_out += "u00";
                m_out += kHex[byte >> 4];
                m_out += kHex[byte & 0xf];
                break;
            }
        }
        m_out.append(text.data() + runStart, text.size() - runStart);
        m_out += '"';
    }

    std::string& m_out;
};

// MARK: - Reading

// Any decoding failure ends the read with no snapshot; these return false
// for it.
using simdjson::SUCCESS;

bool readString(ondemand::value& value, std::string& out) {
    std::string_view text;
    if (value.get_string().get(text) != SUCCESS) {
        return false;
    }
    out.assign(text);
    return true;
}

bool readStrings(ondemand::value& value, std::vector<std::string>& out) {
    ondemand::array array;
    if (value.get_array().get(array) != SUCCESS) {
        return false;
    }
    out.clear();
    for (auto element : array) {
        std::string_view text;
        if (element.get_string().get(text) != SUCCESS) {
            return false;
        }
        out.emplace_back(text);
    }
    return true;
}

bool readBool(ondemand::value& value, bool& out) {
    return value.get_bool().get(out) == SUCCESS;
}

bool readInt(ondemand::value& value, int& out) {
    std::int64_t number = 0;
    if (value.get_int64().get(number) != SUCCESS || number < INT32_MIN || number > INT32_MAX) {
        return false;
    }
    out = static_cast<int>(number);
    return true;
}

// Null reads as absent for the optional fields, as in the snapshot's JSON.
bool isNull(ondemand::value& value, bool& null) {
    return value.is_null().get(null) == SUCCESS;
}

// A key as it stands in the file. Kinbook's keys never need escapes; a key
// written with escapes is not one of them and is passed over.
std::string_view rawKey(const ondemand::raw_json_string& key) {
    const char* begin = key.raw();
    std::size_t length = 0;
    while (begin[length] != '"') {
        if (begin[length] == '\\') {
            return {};
        }
        ++length;
    }
    return {begin, length};
}

enum PersonField : int {
    id,
    givenName,
    middleName,
    familyName,
    nickname,
    organization,
    jobTitle,
    department,
    phoneNumbers,
    emailAddresses,
    accountIDs,
    hasImage,
    postalCodes,
    places,
    filledCount,
    detailed,
    hidden,
    isPrimaryCard,
    memberIDs,
    // Optional stored fields.
    kinID,
    circle,
    // Derived keys: all of them, or none and the keys are worked out again.
    displayName,
    sortKey,
    sectionLetter,
    firstNameSortKey,
    firstNameSectionLetter,
    areaCodes,
    searchText,
    phoneDigits,
    personFieldCount,
};

// In the order the writer puts them, so that the usual file is read with one
// comparison per key.
constexpr std::array<std::pair<std::string_view, PersonField>, personFieldCount> kPersonKeys{{
    {"id", id},
    {"givenName", givenName},
    {"middleName", middleName},
    {"familyName", familyName},
    {"nickname", nickname},
    {"organization", organization},
    {"jobTitle", jobTitle},
    {"department", department},
    {"phoneNumbers", phoneNumbers},
    {"emailAddresses", emailAddresses},
    {"accountIDs", accountIDs},
    {"hasImage", hasImage},
    {"postalCodes", postalCodes},
    {"places", places},
    {"filledCount", filledCount},
    {"detailed", detailed},
    {"kinID", kinID},
    {"hidden", hidden},
    {"circle", circle},
    {"isPrimaryCard", isPrimaryCard},
    {"memberIDs", memberIDs},
    {"displayName", displayName},
    {"sortKey", sortKey},
    {"sectionLetter", sectionLetter},
    {"firstNameSortKey", firstNameSortKey},
    {"firstNameSectionLetter", firstNameSectionLetter},
    {"areaCodes", areaCodes},
    {"searchText", searchText},
    {"phoneDigits", phoneDigits},
}};

constexpr std::uint32_t bit(PersonField field) {
    return std::uint32_t{1} << field;
}
constexpr std::uint32_t kStoredFields = bit(kinID) - 1;
constexpr std::uint32_t kDerivedFields = (bit(personFieldCount) - 1) & ~(bit(displayName) - 1);

int personFieldOf(std::string_view name, std::size_t& guess) {
    if (guess < kPersonKeys.size() && kPersonKeys[guess].first == name) {
        return kPersonKeys[guess++].second;
    }
    for (std::size_t i = 0; i < kPersonKeys.size(); ++i) {
        if (kPersonKeys[i].first == name) {
            guess = i + 1;
            return kPersonKeys[i].second;
        }
    }
    return -1;
}

bool readPersonField(PersonField which, ondemand::value& value, Person& person, PersonKeys& keys) {
    switch (which) {
    case id:
        return readString(value, person.id);
    case givenName:
        return readString(value, person.givenName);
    case middleName:
        return readString(value, person.middleName);
    case familyName:
        return readString(value, person.familyName);
    case nickname:
        return readString(value, person.nickname);
    case organization:
        return readString(value, person.organization);
    case jobTitle:
        return readString(value, person.jobTitle);
    case department:
        return readString(value, person.department);
    case phoneNumbers:
        return readStrings(value, person.phoneNumbers);
    case emailAddresses:
        return readStrings(value, person.emailAddresses);
    case accountIDs:
        return readStrings(value, person.accountIDs);
    case hasImage:
        return readBool(value, person.hasImage);
    case postalCodes:
        return readStrings(value, person.postalCodes);
    case places:
        return readStrings(value, person.places);
    case filledCount:
        return readInt(value, person.filledCount);
    case detailed:
        return readBool(value, person.detailed);
    case hidden:
        return readBool(value, person.hidden);
    case isPrimaryCard:
        return readBool(value, person.isPrimaryCard);
    case memberIDs:
        return readStrings(value, person.memberIDs);
    case kinID: {
        bool null = false;
        if (!isNull(value, null)) {
            return false;
        }
        if (null) {
            person.kinID.reset();
            return true;
        }
        return readString(value, person.kinID.emplace());
    }
    case circle: {
        bool null = false;
        if (!isNull(value, null)) {
            return false;
        }
        person.circle.reset();
        if (null) {
            return true;
        }
        std::int64_t raw = 0;
        if (value.get_int64().get(raw) != SUCCESS) {
            return false;
        }
        // A circle this version doesn't know reads as none.
        person.circle = circleFromRawValue(raw);
        return true;
    }
    case displayName:
        return readString(value, keys.displayName);
    case sortKey:
        return readString(value, keys.sortKey);
    case sectionLetter:
        return readString(value, keys.sectionLetter);
    case firstNameSortKey:
        return readString(value, keys.firstNameSortKey);
    case firstNameSectionLetter:
        return readString(value, keys.firstNameSectionLetter);
    case areaCodes:
        return readStrings(value, keys.areaCodes);
    case searchText:
        return readString(value, keys.searchText);
    case phoneDigits:
        return readStrings(value, keys.phoneDigits);
    case personFieldCount:
        break;
    }
    return false;
}

bool readPerson(ondemand::value& value, Person& person) {
    ondemand::object object;
    if (value.get_object().get(object) != SUCCESS) {
        return false;
    }
    PersonKeys keys;
    std::uint32_t seen = 0;
    std::size_t guess = 0;
    for (auto entry : object) {
        ondemand::field field;
        if (std::move(entry).get(field) != SUCCESS) {
            return false;
        }
        const int which = personFieldOf(rawKey(field.key()), guess);
        if (which < 0) {
            continue;
        }
        if (!readPersonField(static_cast<PersonField>(which), field.value(), person, keys)) {
            return false;
        }
        seen |= bit(static_cast<PersonField>(which));
    }
    if ((seen & kStoredFields) != kStoredFields) {
        return false;
    }
    // Keys stored beside the fields they came from are taken as they are;
    // without the search text the set is taken as absent, as the snapshot's
    // own JSON reader does.
    if (seen & bit(searchText)) {
        if ((seen & kDerivedFields) != kDerivedFields) {
            return false;
        }
        person.adoptKeys(std::move(keys));
    } else {
        person.derive();
    }
    return true;
}

bool readAccount(ondemand::value& value, Account& account) {
    ondemand::object object;
    if (value.get_object().get(object) != SUCCESS) {
        return false;
    }
    bool hasID = false;
    bool hasName = false;
    for (auto entry : object) {
        ondemand::field field;
        if (std::move(entry).get(field) != SUCCESS) {
            return false;
        }
        const auto name = rawKey(field.key());
        if (name == "id") {
            hasID = readString(field.value(), account.id);
            if (!hasID) {
                return false;
            }
        } else if (name == "name") {
            hasName = readString(field.value(), account.name);
            if (!hasName) {
                return false;
            }
        }
    }
    return hasID && hasName;
}

bool readSnapshot(ondemand::value& value, AddressBookSnapshot& snapshot) {
    ondemand::object object;
    if (value.get_object().get(object) != SUCCESS) {
        return false;
    }
    bool hasPeople = false;
    bool hasAccounts = false;
    for (auto entry : object) {
        ondemand::field field;
        if (std::move(entry).get(field) != SUCCESS) {
            return false;
        }
        const auto name = rawKey(field.key());
        ondemand::value& item = field.value();
        if (name == "people") {
            ondemand::array array;
            if (item.get_array().get(array) != SUCCESS) {
                return false;
            }
            snapshot.people.clear();
            for (auto element : array) {
                ondemand::value personValue;
                if (std::move(element).get(personValue) != SUCCESS) {
                    return false;
                }
                Person& person = snapshot.people.emplace_back();
                if (!readPerson(personValue, person)) {
                    return false;
                }
            }
            hasPeople = true;
        } else if (name == "accounts") {
            ondemand::array array;
            if (item.get_array().get(array) != SUCCESS) {
                return false;
            }
            snapshot.accounts.clear();
            for (auto element : array) {
                ondemand::value accountValue;
                if (std::move(element).get(accountValue) != SUCCESS ||
                    !readAccount(accountValue, snapshot.accounts.emplace_back())) {
                    return false;
                }
            }
            hasAccounts = true;
        } else if (name == "historyToken") {
            bool null = false;
            if (!isNull(item, null)) {
                return false;
            }
            snapshot.historyToken.reset();
            if (!null) {
                std::string_view text;
                if (item.get_string().get(text) != SUCCESS) {
                    return false;
                }
                auto bytes = base64Decode(text);
                if (!bytes) {
                    return false;
                }
                snapshot.historyToken = std::move(*bytes);
            }
        } else if (name == "fullReadAt") {
            bool null = false;
            if (!isNull(item, null)) {
                return false;
            }
            snapshot.fullReadAt.reset();
            if (!null) {
                double seconds = 0;
                if (item.get_double().get(seconds) != SUCCESS) {
                    return false;
                }
                // As the snapshot's own reader does: seconds as a double keep
                // microseconds exactly, and rounding to them reads a written
                // time back equal.
                snapshot.fullReadAt =
                    std::chrono::round<std::chrono::microseconds>(dateFromReferenceSeconds(seconds));
            }
        }
    }
    return hasPeople && hasAccounts;
}

std::optional<AddressBookSnapshot> decodeFile(const simdjson::padded_string& json) {
    ondemand::parser parser;
    ondemand::document document;
    if (parser.iterate(json).get(document) != SUCCESS) {
        return std::nullopt;
    }
    ondemand::object object;
    if (document.get_object().get(object) != SUCCESS) {
        return std::nullopt;
    }
    std::optional<std::int64_t> format;
    std::optional<AddressBookSnapshot> snapshot;
    for (auto entry : object) {
        ondemand::field field;
        if (std::move(entry).get(field) != SUCCESS) {
            return std::nullopt;
        }
        const auto name = rawKey(field.key());
        if (name == "format") {
            std::int64_t value = 0;
            if (field.value().get_int64().get(value) != SUCCESS || value != SnapshotCache::kFormat) {
                // Another layout: discarded without looking further.
                return std::nullopt;
            }
            format = value;
        } else if (name == "snapshot") {
            snapshot.emplace();
            if (!readSnapshot(field.value(), *snapshot)) {
                return std::nullopt;
            }
        }
    }
    // Anything after the object means the file is not what was written.
    if (!format || !snapshot || document.current_location().error() != simdjson::OUT_OF_BOUNDS) {
        return std::nullopt;
    }
    return snapshot;
}

// Creates the folder and any missing parents, private to the user: the cache
// holds every name and number of the address book.
bool makeFolders(const std::filesystem::path& folder) {
    if (folder.empty()) {
        return true;
    }
    struct stat info {};
    if (::stat(folder.c_str(), &info) == 0) {
        return S_ISDIR(info.st_mode);
    }
    if (folder.has_parent_path() && folder.parent_path() != folder && !makeFolders(folder.parent_path())) {
        return false;
    }
    return ::mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST;
}

} // namespace

std::optional<std::string> SnapshotCache::encode(const AddressBookSnapshot& snapshot) {
    std::string json;
    // About 700 bytes a person with the derived keys.
    json.reserve(1024 + snapshot.people.size() * 768);
    SnapshotWriter(json).file(snapshot);
    // Text that is not UTF-8 cannot be JSON; like any encoding error, it
    // leaves the cache as it was.
    if (!simdjson::validate_utf8(json.data(), json.size())) {
        return std::nullopt;
    }
    return json;
}

std::optional<AddressBookSnapshot> SnapshotCache::decode(std::string_view json) {
    return decodeFile(simdjson::padded_string(json));
}

std::unique_ptr<SnapshotCache> SnapshotCache::make() {
    std::filesystem::path caches;
    // A relative XDG_CACHE_HOME is invalid and is ignored.
    if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg != nullptr && xdg[0] == '/') {
        caches = xdg;
    } else if (const char* home = std::getenv("HOME"); home != nullptr && home[0] == '/') {
        caches = std::filesystem::path(home) / ".cache";
    } else {
        return nullptr;
    }
    return std::make_unique<SnapshotCache>(caches / "kinbook" / kFileName);
}

std::optional<AddressBookSnapshot> SnapshotCache::read() const {
    std::lock_guard lock(m_mutex);
    simdjson::padded_string json;
    if (simdjson::padded_string::load(m_url.string()).get(json) != SUCCESS) {
        return std::nullopt;
    }
    return decodeFile(json);
}

void SnapshotCache::write(const AddressBookSnapshot& snapshot) const {
    std::lock_guard lock(m_mutex);
    const auto json = encode(snapshot);
    if (!json || !makeFolders(m_url.parent_path())) {
        return;
    }
    // A cache is no user data, but a reader must never see half of one.
    writeFileAtomically(m_url, *json, 0600);
}

void SnapshotCache::remove() const {
    std::lock_guard lock(m_mutex);
    std::error_code ignored;
    std::filesystem::remove(m_url, ignored);
}

} // namespace kinbook
