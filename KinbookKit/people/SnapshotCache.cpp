#include "KinbookKit/people/SnapshotCache.h"

#include "KinbookKit/AtomicFile.h"
#include "KinbookKit/SideBySide.h"
#include "KinbookKit/records/Iso8601.h"
#include "KinbookKit/records/PersonFields.h"
#include "KinbookKit/records/PersonJsonReader.h"
#include "KinbookKit/records/PersonJsonWriter.h"
#include "KinbookKit/text/Base64.h"
#include "KinbookKit/text/KinLog.h"

#include <fcntl.h>
#include <simdjson.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

namespace kinbook {
namespace {

namespace ondemand = simdjson::ondemand;

constexpr std::string_view kFileName = "kinbook-snapshot.json";

const KinLog& cacheLog() {
    static const KinLog log("list");
    return log;
}

// MARK: - The checksum line

// XXH3 runs at memory speed, where a cryptographic hash would cost more than
// the read itself; it guards against damage, not against an attacker, who
// could as well write the cards. The file is hashed in blocks of a megabyte
// on two threads, and the checksum is the hash of the blocks' hashes: over
// the 100 MB of 100,000 people one thread takes about 14 ms, which a second
// core, where one is free, shares.
constexpr std::string_view kSealHead = "kinbook-snapshot xxh3 ";
constexpr std::size_t kSealSize = kSealHead.size() + 16 + 1;
constexpr std::size_t kChecksumBlock = std::size_t{1} << 20;

std::uint64_t checksumOf(std::string_view bytes) {
    const std::size_t blocks = (bytes.size() + kChecksumBlock - 1) / kChecksumBlock;
    std::vector<std::uint64_t> sums(blocks);
    std::atomic<std::size_t> next{0};
    const auto hashBlocks = [&] {
        for (std::size_t block = next++; block < blocks; block = next++) {
            const std::string_view part = bytes.substr(block * kChecksumBlock, kChecksumBlock);
            sums[block] = XXH3_64bits(part.data(), part.size());
        }
    };
    if (blocks >= 4 && std::thread::hardware_concurrency() >= 2) {
        runSideBySide(hashBlocks, hashBlocks);
    } else {
        hashBlocks();
    }
    return XXH3_64bits(sums.data(), sums.size() * sizeof(std::uint64_t));
}

// The line that goes before `json` in the file.
std::string sealLine(std::string_view json) {
    std::string line(kSealHead);
    const std::uint64_t checksum = checksumOf(json);
    for (int shift = 60; shift >= 0; shift -= 4) {
        line += "0123456789abcdef"[(checksum >> shift) & 0xF];
    }
    line += '\n';
    return line;
}

// MARK: - Writing

// The cache is written by hand rather than through a JSON tree: at 100,000
// people a tree costs several times the file in memory and most of the time.
// The layout is the snapshot's JSON: its people as PersonJsonWriter writes
// them, then the accounts, the history token and the time of the read.
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
            appendPersonJson(m_out, snapshot.people[i], InvalidUTF8::copy);
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
    template <typename Number>
    void number(Number value) {
        // The shortest text that reads back as the same number.
        std::array<char, 32> buffer{};
        const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
        m_out.append(buffer.data(), result.ptr);
    }

    // Bytes from 0x80 up are copied as they are; the whole file is checked
    // for valid UTF-8 once it is written.
    void string(std::string_view text) { appendJsonString(m_out, text, InvalidUTF8::copy); }

    std::string& m_out;
};

// MARK: - Reading

// Any decoding failure ends the read with no snapshot; these return false
// for it.
using simdjson::SUCCESS;

// Strings are taken from the file's own bytes rather than through the
// parser's string buffer: at 100,000 people that buffer would be tens of
// megabytes of fresh memory, touched once.
bool readString(ondemand::value& value, std::string& out) {
    ondemand::raw_json_string raw;
    if (value.get_raw_json_string().get(raw) != SUCCESS) {
        return false;
    }
    return readJsonString(raw.raw(), out) != nullptr;
}

bool readStrings(ondemand::value& value, std::vector<std::string>& out) {
    ondemand::array array;
    if (value.get_array().get(array) != SUCCESS) {
        return false;
    }
    // The texts are found first so that the list is made at its size: most
    // lists hold one to three entries, and growing them would allocate twice.
    // The texts stay in the file's bytes for the whole read.
    std::array<const char*, 8> found{};
    std::size_t count = 0;
    out.clear();
    const auto takeFound = [&] {
        out.reserve(out.size() + count);
        for (std::size_t i = 0; i < count; ++i) {
            if (readJsonString(found[i], out.emplace_back()) == nullptr) {
                return false;
            }
        }
        count = 0;
        return true;
    };
    for (auto element : array) {
        ondemand::raw_json_string raw;
        if (element.get_raw_json_string().get(raw) != SUCCESS) {
            return false;
        }
        if (count == found.size() && !takeFound()) {
            return false;
        }
        found[count++] = raw.raw();
    }
    return takeFound();
}

// A person's list, read through texts kept per thread and packed at its size.
bool readStrings(ondemand::value& value, Texts& out) {
    thread_local std::vector<std::string> texts;
    if (!readStrings(value, texts)) {
        return false;
    }
    out = texts;
    return true;
}

// Null reads as absent for the optional fields, as a general JSON encoder
// may write them.
bool isNull(ondemand::value& value, bool& null) {
    return value.is_null().get(null) == SUCCESS;
}

// A key's text, its escapes undone; none for a key JSON does not allow. The
// text stays valid until the next key is read on this thread.
std::optional<std::string_view> keyText(const ondemand::raw_json_string& key) {
    const char* begin = key.raw();
    std::size_t length = 0;
    while (begin[length] != '"' && begin[length] != '\\') {
        ++length;
    }
    if (begin[length] == '"') {
        return std::string_view(begin, length);
    }
    // Kinbook never writes escapes in its keys, but JSON allows them.
    thread_local std::string unescaped;
    if (readJsonString(begin, unescaped) == nullptr) {
        return std::nullopt;
    }
    return std::string_view(unescaped);
}

// The general reader's way with each kind of field, as written by
// PersonJsonWriter.
bool readValue(ondemand::value& value, std::string& out) {
    return readString(value, out);
}
bool readValue(ondemand::value& value, Texts& out) {
    return readStrings(value, out);
}
bool readValue(ondemand::value& value, std::vector<std::string>& out) {
    return readStrings(value, out);
}
bool readValue(ondemand::value& value, bool& out) {
    return value.get_bool().get(out) == SUCCESS;
}
bool readValue(ondemand::value& value, int& out) {
    std::int64_t number = 0;
    if (value.get_int64().get(number) != SUCCESS || number < INT32_MIN || number > INT32_MAX) {
        return false;
    }
    out = static_cast<int>(number);
    return true;
}
bool readValue(ondemand::value& value, std::optional<std::string>& out) {
    bool null = false;
    if (!isNull(value, null)) {
        return false;
    }
    if (null) {
        out.reset();
        return true;
    }
    return readString(value, out.emplace());
}
bool readValue(ondemand::value& value, std::optional<ContactCircle>& out) {
    bool null = false;
    if (!isNull(value, null)) {
        return false;
    }
    out.reset();
    if (null) {
        return true;
    }
    std::int64_t raw = 0;
    if (value.get_int64().get(raw) != SUCCESS) {
        return false;
    }
    // A circle this version doesn't know reads as none.
    out = circleFromRawValue(raw);
    return true;
}

static_assert(kPersonFieldCount <= 32, "the fields seen are marked in 32 bits");

constexpr std::uint32_t bit(std::size_t field) {
    return std::uint32_t{1} << field;
}

// The fields for which `test` holds, as bits by their place among the fields.
template <typename Test>
constexpr std::uint32_t personFieldBits(Test test) {
    std::uint32_t bits = 0;
    std::size_t at = 0;
    forEachPersonField([&](auto field) {
        if (test(field)) {
            bits |= bit(at);
        }
        ++at;
    });
    return bits;
}

// Every person has every stored field but the optional ones; the derived
// keys are there all together, or none and the keys are worked out again.
constexpr std::uint32_t kStoredFields =
    personFieldBits([](auto field) { return !decltype(field)::derived && !decltype(field)::optional; });
constexpr std::uint32_t kDerivedFields = personFieldBits([](auto field) { return decltype(field)::derived; });
constexpr std::uint32_t kSearchTextField =
    personFieldBits([](auto field) { return decltype(field)::name == "searchText"; });

// Whether the key whose text starts at `raw` is `name`; the file is padded,
// so comparing a few bytes past a short key is safe.
bool keyIs(const char* raw, std::string_view name) {
    return std::memcmp(raw, name.data(), name.size()) == 0 && raw[name.size()] == '"';
}

// The field a key names, by its place among the fields; kUnknownField for a
// key of no field, kDamagedKey for one JSON does not allow. The fields are
// tried in the order the writer puts them, starting after the last one
// found, so that the usual file is read with one comparison per key.
constexpr int kUnknownField = -1;
constexpr int kDamagedKey = -2;

int personFieldOf(const ondemand::raw_json_string& key, std::size_t& guess) {
    if (guess < kPersonFieldNames.size() && keyIs(key.raw(), kPersonFieldNames[guess])) {
        return static_cast<int>(guess++);
    }
    const auto name = keyText(key);
    if (!name) {
        return kDamagedKey;
    }
    for (std::size_t i = 0; i < kPersonFieldNames.size(); ++i) {
        if (kPersonFieldNames[i] == *name) {
            guess = i + 1;
            return static_cast<int>(i);
        }
    }
    return kUnknownField;
}

bool readPersonField(std::size_t which, ondemand::value& value, Person& person, PersonKeys& keys) {
    return visitPersonField(which, [&](auto field) {
        using Field = decltype(field);
        if constexpr (Field::derived) {
            return readValue(value, keys.*Field::key);
        } else {
            return readValue(value, person.*Field::member);
        }
    });
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
        const int which = personFieldOf(field.key(), guess);
        if (which == kDamagedKey) {
            return false;
        }
        if (which == kUnknownField) {
            continue;
        }
        if (!readPersonField(static_cast<std::size_t>(which), field.value(), person, keys)) {
            return false;
        }
        seen |= bit(static_cast<std::size_t>(which));
    }
    if ((seen & kStoredFields) != kStoredFields) {
        return false;
    }
    // Keys stored beside the fields they came from are taken as they are;
    // without the search text the set is taken as absent, and worked out.
    if ((seen & kSearchTextField) != 0) {
        if ((seen & kDerivedFields) != kDerivedFields) {
            return false;
        }
        person.adoptKeys(keys);
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
        const auto name = keyText(field.key());
        if (!name) {
            return false;
        }
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

// The general reader's people, one after another: a file in Kinbook's own
// layout, the large one, is read by the faster path below.
bool readPeople(ondemand::array& array, std::vector<Person>& people) {
    people.clear();
    for (auto element : array) {
        ondemand::value value;
        if (std::move(element).get(value) != SUCCESS || !readPerson(value, people.emplace_back())) {
            return false;
        }
    }
    return true;
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
        const auto name = keyText(field.key());
        if (!name) {
            return false;
        }
        ondemand::value& item = field.value();
        if (name == "people") {
            ondemand::array array;
            if (item.get_array().get(array) != SUCCESS) {
                return false;
            }
            if (!readPeople(array, snapshot.people)) {
                return false;
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
                // Seconds as a double keep microseconds exactly for centuries
                // around 2001; rounding to them reads a written time back equal.
                snapshot.fullReadAt =
                    std::chrono::round<std::chrono::microseconds>(dateFromReferenceSeconds(seconds));
            }
        }
    }
    return hasPeople && hasAccounts;
}

// Any JSON with the snapshot's fields, in any order and layout.
std::optional<AddressBookSnapshot> decodeAnyFile(simdjson::padded_string_view json) {
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
        const auto name = keyText(field.key());
        if (!name) {
            return std::nullopt;
        }
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

// What the writer puts before the first person.
constexpr std::string_view kWrittenHead = "{\"format\":10,\"snapshot\":{\"people\":[";
// Where one written person ends and the next begins. Outside a string a
// quote is never escaped, and inside one every quote is: in valid JSON this
// text only ever stands between two objects of a list.
constexpr std::string_view kBetweenPeople = "},{\"id\":\"";
// The list of people is read in runs of about this many bytes, taken in turn
// by two threads: runs small enough that neither thread waits long for the
// other at the end, large enough that finding where they begin costs nothing.
constexpr std::size_t kBytesPerRun = std::size_t{4} << 20;
// Below this size one thread reads the whole list.
constexpr std::size_t kBytesForTwoThreads = std::size_t{2} << 20;
// A person takes 700 to 1,000 bytes as written; each run's list is made for
// that many up front, and grows like any list if there are more.
constexpr std::size_t kTypicalPersonBytes = 700;

using Parts = SnapshotCache::Parts;

// Reads written people one after another from `at`, until the comma at
// `stop` or the bracket that closes the list. Returns where it ended: `stop`,
// or just past the bracket; null when a person is not as written.
const char* readWrittenPeople(const char* at, const char* stop, std::vector<Person>& people) {
    if (*at == ']') {
        return at + 1;
    }
    for (;;) {
        at = readWrittenPerson(at, people.emplace_back());
        if (at == nullptr || at == stop) {
            return at;
        }
        if (*at == ']') {
            return at + 1;
        }
        if (*at != ',') {
            return nullptr;
        }
        ++at;
    }
}

// The file exactly as this program writes it, read without a JSON parser
// walking every person: the list of people is read by hand, in runs that two
// threads take in turn when it is large, each run into a list of its own so
// that nobody is moved afterwards; what follows the list (accounts, token,
// read time) is read by the general reader. None for anything else, which
// the general reader then judges on its own.
std::optional<Parts> decodeWrittenFile(simdjson::padded_string_view json) {
    const std::string_view text(json.data(), json.size());
    if (!text.starts_with(kWrittenHead)) {
        return std::nullopt;
    }
    const char* const begin = text.data() + kWrittenHead.size();
    const char* const end = text.data() + text.size();
    // Each run after the first starts at the first person boundary past its
    // share of the file.
    std::vector<const char*> starts{begin};
    if (text.size() >= kBytesForTwoThreads && std::thread::hardware_concurrency() >= 2) {
        const std::size_t runs = std::max<std::size_t>(2, text.size() / kBytesPerRun);
        for (std::size_t run = 1; run < runs; ++run) {
            const auto from =
                std::max(static_cast<std::size_t>(starts.back() - text.data()), text.size() / runs * run);
            const auto boundary = text.find(kBetweenPeople, from);
            if (boundary == std::string_view::npos) {
                break;
            }
            starts.push_back(text.data() + boundary + 2);
        }
    }

    std::vector<std::vector<Person>> people(starts.size());
    // Where each run's reading ended; null where it failed.
    std::vector<const char*> ends(starts.size(), nullptr);
    std::atomic<std::size_t> nextRun{0};
    const auto readRuns = [&] {
        for (std::size_t run = nextRun++; run < starts.size(); run = nextRun++) {
            const bool last = run + 1 == starts.size();
            const char* const runEnd = last ? end : starts[run + 1];
            if (!simdjson::validate_utf8(starts[run], static_cast<std::size_t>(runEnd - starts[run]))) {
                continue;
            }
            people[run].reserve(static_cast<std::size_t>(runEnd - starts[run]) / kTypicalPersonBytes + 1);
            // A run before the last ends at the comma before the next one.
            ends[run] = readWrittenPeople(starts[run], last ? nullptr : runEnd - 1, people[run]);
        }
    };
    if (starts.size() == 1) {
        readRuns();
    } else {
        runSideBySide(readRuns, readRuns);
    }
    for (std::size_t run = 0; run + 1 < starts.size(); ++run) {
        if (ends[run] != starts[run + 1] - 1) {
            return std::nullopt;
        }
    }
    const char* const peopleEnd = ends.back();
    if (peopleEnd == nullptr) {
        return std::nullopt;
    }

    // The rest of the file, behind an empty list of people.
    std::string rest;
    rest.reserve(kWrittenHead.size() + 1 + static_cast<std::size_t>(end - peopleEnd));
    rest.append(kWrittenHead).append("]").append(peopleEnd, end);
    auto snapshot = decodeAnyFile(simdjson::padded_string(rest));
    if (!snapshot) {
        return std::nullopt;
    }
    return Parts{std::move(*snapshot), std::move(people)};
}

std::optional<Parts> decodeFile(simdjson::padded_string_view json) {
    if (auto parts = decodeWrittenFile(json)) {
        return parts;
    }
    auto snapshot = decodeAnyFile(json);
    if (!snapshot) {
        return std::nullopt;
    }
    Parts parts;
    parts.people.push_back(std::move(snapshot->people));
    snapshot->people.clear();
    parts.snapshot = std::move(*snapshot);
    return parts;
}

// The snapshot of a file read in parts, its people in one list.
std::optional<AddressBookSnapshot> whole(std::optional<Parts> parts) {
    if (!parts) {
        return std::nullopt;
    }
    auto& people = parts->snapshot.people;
    if (parts->people.size() == 1) {
        people = std::move(parts->people.front());
        return std::move(parts->snapshot);
    }
    std::size_t count = 0;
    for (const auto& run : parts->people) {
        count += run.size();
    }
    people.reserve(count);
    for (auto& run : parts->people) {
        people.insert(people.end(), std::make_move_iterator(run.begin()), std::make_move_iterator(run.end()));
    }
    return std::move(parts->snapshot);
}

// A file's bytes followed by the zeroed padding the parser reads past the
// end. The file is mapped rather than read: its pages are already in the
// system's file cache (it was written by the last full read), and mapping
// them costs a few milliseconds where copying 100 MB into fresh memory,
// which the system must first zero, costs tens. The padding is a reserved
// stretch of zero pages directly behind the mapping.
//
// A mapped file that another program shortens while it is read would end
// the process; the cache file is private to the user and is only ever
// replaced whole (written beside and renamed), never shortened in place, so
// a replacement leaves the mapped file as it was. Where the file system
// cannot map files, it is read into the reserved memory instead.
class FileBytes {
public:
    static std::optional<FileBytes> read(const std::filesystem::path& path) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            return std::nullopt;
        }
        struct stat info {};
        auto result = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)
                          ? readFrom(fd, static_cast<std::size_t>(info.st_size))
                          : std::nullopt;
        ::close(fd);
        return result;
    }

    FileBytes(FileBytes&& other) noexcept
        : m_data(std::exchange(other.m_data, nullptr)), m_size(other.m_size), m_capacity(other.m_capacity) {}
    FileBytes& operator=(FileBytes&&) = delete;
    FileBytes(const FileBytes&) = delete;
    FileBytes& operator=(const FileBytes&) = delete;
    ~FileBytes() {
        if (m_data != nullptr) {
            ::munmap(m_data, m_capacity);
        }
    }

    simdjson::padded_string_view view() const {
        return simdjson::padded_string_view(static_cast<const char*>(m_data), m_size, m_capacity);
    }

private:
    FileBytes(void* data, std::size_t size, std::size_t capacity)
        : m_data(data), m_size(size), m_capacity(capacity) {}

    static std::optional<FileBytes> readFrom(int fd, std::size_t expected) {
        const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        const std::size_t capacity = (expected + simdjson::SIMDJSON_PADDING + page - 1) / page * page;
        void* data = ::mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (data == MAP_FAILED) {
            return std::nullopt;
        }
        FileBytes bytes(data, 0, capacity);
        if (expected == 0) {
            return bytes;
        }
        // The file's last page reads as zeros past its end, and the reserved
        // pages behind it give the rest of the padding.
        if (::mmap(data, expected, PROT_READ, MAP_PRIVATE | MAP_FIXED | MAP_POPULATE, fd, 0) != MAP_FAILED) {
            bytes.m_size = expected;
            return bytes;
        }
        // A file that grew since it was measured is read up to that size,
        // one that shrank up to its end; either is then judged as JSON.
        auto* out = static_cast<char*>(data);
        while (bytes.m_size < expected) {
            const ssize_t got = ::read(fd, out + bytes.m_size, expected - bytes.m_size);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got < 0) {
                return std::nullopt;
            }
            if (got == 0) {
                break;
            }
            bytes.m_size += static_cast<std::size_t>(got);
        }
        return bytes;
    }

    void* m_data;
    std::size_t m_size;
    std::size_t m_capacity;
};

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
    return whole(decodeFile(simdjson::padded_string(json)));
}

std::string SnapshotCache::seal(std::string_view json) {
    return sealLine(json).append(json);
}

std::optional<std::string_view> SnapshotCache::unseal(std::string_view file) {
    if (file.size() < kSealSize || !file.starts_with(kSealHead) || file[kSealSize - 1] != '\n') {
        return std::nullopt;
    }
    std::uint64_t claimed = 0;
    const char* const digits = file.data() + kSealHead.size();
    const auto [end, error] = std::from_chars(digits, digits + 16, claimed, 16);
    const std::string_view json = file.substr(kSealSize);
    if (error != std::errc{} || end != digits + 16 || !std::all_of(digits, digits + 16, [](char c) {
            return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
        })) {
        return std::nullopt;
    }
    if (checksumOf(json) != claimed) {
        return std::nullopt;
    }
    return json;
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
    return whole(readParts());
}

std::optional<SnapshotCache::Parts> SnapshotCache::readParts() const {
    std::lock_guard lock(m_mutex);
    const auto file = FileBytes::read(m_url);
    if (!file) {
        return std::nullopt;
    }
    const auto bytes = file->view();
    const auto json = unseal(std::string_view(bytes.data(), bytes.size()));
    if (!json) {
        if (bytes.size() > 0) {
            cacheLog().error("cache: the checksum fails; reading the address book anew");
        }
        return std::nullopt;
    }
    // The JSON keeps the file's padding behind it.
    return decodeFile(simdjson::padded_string_view(json->data(), json->size(), bytes.capacity() - kSealSize));
}

void SnapshotCache::write(const AddressBookSnapshot& snapshot) const {
    std::lock_guard lock(m_mutex);
    auto json = encode(snapshot);
    if (!json || !makeFolders(m_url.parent_path())) {
        return;
    }
    // A cache is no user data, but a reader must never see half of one.
    json->insert(0, sealLine(*json));
    writeFileAtomically(m_url, *json, 0600);
}

void SnapshotCache::remove() const {
    std::lock_guard lock(m_mutex);
    std::error_code ignored;
    std::filesystem::remove(m_url, ignored);
}

} // namespace kinbook
