#include "KinbookKit/addressbook/VdirAddressBook.h"

#include "KinbookKit/AtomicFile.h"
#include "KinbookKit/Executor.h"
#include "KinbookKit/SecureRandom.h"
#include "KinbookKit/addressbook/CardFileReader.h"
#include "KinbookKit/addressbook/CardListing.h"
#include "KinbookKit/addressbook/DraftMerge.h"
#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/vcard/CardEntries.h"
#include "KinbookKit/vcard/CardReader.h"
#include "KinbookKit/vcard/CardScanner.h"
#include "KinbookKit/vcard/CardWriter.h"
#include "KinbookKit/vcard/VCard.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

namespace kinbook {
namespace {

namespace fs = std::filesystem;

bool isHidden(const std::string& name) {
    return !name.empty() && name.front() == '.';
}

bool isCardFileName(const std::string& name) {
    return !isHidden(name) && name.size() > 4 && name.ends_with(".vcf");
}

// What tells one version of a card file from another: a rewrite by anyone
// (sync, an editor, a second Kinbook) replaces the inode or changes the size
// or the modification time.
struct FileStamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t mtimeNs = 0;
    bool operator==(const FileStamp&) const = default;
};

FileStamp stampFrom(const struct stat& info) {
    return FileStamp{info.st_dev, info.st_ino, info.st_size,
                     static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec};
}

std::optional<FileStamp> stampOf(const fs::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        return std::nullopt;
    }
    return stampFrom(info);
}

// The whole file; none when it can't be read (gone, unreadable, too large).
// `stamp` gets the stamp of the very file that was read, from its open
// descriptor: a stamp taken by name after the read could be a later
// rewrite's, whose change a save would then overwrite unseen.
std::optional<std::string> readWholeFile(const fs::path& path, std::string* problem = nullptr,
                                         FileStamp* stamp = nullptr) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (problem) {
            *problem = std::strerror(errno);
        }
        return std::nullopt;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) ||
        static_cast<std::uint64_t>(info.st_size) > CardBatchReader::kLargestCard) {
        if (problem) {
            *problem = S_ISREG(info.st_mode) ? "file too large" : "not a regular file";
        }
        ::close(fd);
        return std::nullopt;
    }
    std::string bytes;
    bytes.resize(static_cast<std::size_t>(info.st_size));
    std::size_t got = 0;
    while (got < bytes.size()) {
        const ssize_t n = ::read(fd, bytes.data() + got, bytes.size() - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        got += static_cast<std::size_t>(n);
    }
    // The file may have shrunk since fstat; keep what was there.
    bytes.resize(got);
    if (stamp != nullptr) {
        // Taken again after the read: a write in place (same inode) during
        // the read shows as a stamp the file no longer has, and the save
        // that follows is refused rather than built on torn bytes.
        struct stat after {};
        *stamp = ::fstat(fd, &after) == 0 ? stampFrom(after) : FileStamp{};
        if (*stamp != stampFrom(info)) {
            *stamp = FileStamp{};
        }
    }
    ::close(fd);
    return bytes;
}

// The lock file of the address book at `root`: one per book in Kinbook's
// state folder, named by the book's folder so that every process finds the
// same one.
fs::path lockFileFor(const fs::path& stateFolder, const fs::path& root) {
    const std::string key = fs::absolute(root).lexically_normal().string();
    std::uint64_t hash = 1469598103934665603ull; // FNV-1a: stable across runs and builds
    for (const unsigned char c : key) {
        hash = (hash ^ c) * 1099511628211ull;
    }
    return stateFolder / "locks" / fmt::format("{:016x}.lock", hash);
}

// How a full read fared with one listed file.
enum class ReadOutcome : std::uint8_t {
    gone,       // vanished since the listing, or not a regular file
    unreadable, // there, but it couldn't be read
    notCard,    // read, but it holds no card
    group,      // a group card: kept, never shown as a person
    person,
};

std::string readMetadata(const fs::path& file) {
    auto text = readWholeFile(file);
    if (!text) {
        return {};
    }
    const std::string_view trimmed = trimAsciiSpace(*text);
    // iCloud reports empty properties as the text "None".
    return trimmed == "None" ? std::string() : std::string(trimmed);
}

// The root folder's own name, "contacts" for "/home/ana/contacts/".
std::string rootName(const fs::path& root) {
    const fs::path normal = root.lexically_normal();
    return normal.has_filename() ? normal.filename().string() : normal.parent_path().filename().string();
}

bool holdsCardFile(const fs::path& folder) {
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        if (CardListing::isCardFileName(it->path().filename().native())) {
            return true;
        }
    }
    return false;
}

// A file name for a new card: its UID when the UID is made of characters
// every sync tool keeps, else a fresh UUID.
std::string fileNameFor(std::string_view uid) {
    const bool safe = !uid.empty() && uid.size() <= 200 && std::all_of(uid.begin(), uid.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
               c == '.' || c == '-' || c == '+';
    }) && uid.front() != '.';
    return (safe ? std::string(uid) : makeUUID()) + ".vcf";
}

// The log line of a failed save: "save failed (" with the error's domain,
// its code and its details, one space apart, and ")".
std::string saveFailed(const AddressBookError& error, std::string_view what) {
    std::string_view code = "store";
    switch (error.code) {
    case AddressBookError::Code::readOnly:
        code = "readOnly";
        break;
    case AddressBookError::Code::notFound:
        code = "notFound";
        break;
    case AddressBookError::Code::hasNote:
        code = "hasNote";
        break;
    case AddressBookError::Code::store:
        break;
    }
    return fmt::format("save failed (AddressBookError {} {}: {})", code, what, error.description());
}

AddressBookError conflictError() {
    return AddressBookError::store("The card changed on disk while it was being saved. Try again.");
}

AddressBookError scriptError(const ContactsAppScript::Failure& failure) {
    return AddressBookError::store(failure.description());
}

// Stands in for a book given no scripting host: there is nothing to play
// the Contacts application, so every script fails and changes nothing.
class NoScriptHost final : public ScriptHost {
public:
    AutomationPermission automationPermission() override { return AutomationPermission::granted; }
    Result<std::vector<std::string>, ScriptError> run(std::string_view) override {
        return failure(ScriptError{ScriptError::Kind::runtime, "nothing here runs scripts"});
    }
};

// The name by which a store would link two cards: given and family name,
// else the organisation.
std::string linkingName(std::string_view given, std::string_view family, std::string_view organization) {
    const std::string_view first = trimAsciiSpace(given);
    const std::string_view last = trimAsciiSpace(family);
    std::string name(first);
    if (!first.empty() && !last.empty()) {
        name += ' ';
    }
    name += last;
    if (name.empty()) {
        name = std::string(trimAsciiSpace(organization));
    }
    return asciiLowered(name);
}

constexpr std::string_view kUnscriptableMessage = "This contact has a note, so its phonetic name and dates "
                                                  "can only be changed in the Contacts app for now.";
constexpr std::string_view kChangedSinceMessage =
    "The contact changed elsewhere since, so this can't be undone without losing that change.";

bool mentionsNote(std::string_view bytes) {
    for (std::size_t at = bytes.find_first_of("Nn"); at != std::string_view::npos;
         at = bytes.find_first_of("Nn", at + 1)) {
        if (startsWithIgnoringAsciiCase(bytes.substr(at), "NOTE")) {
            return true;
        }
    }
    return false;
}

// The first eight bytes of a text as one number that sorts as the text does.
std::uint64_t sortPrefix(std::string_view text) {
    std::uint64_t prefix = 0;
    for (std::size_t i = 0; i < 8; ++i) {
        prefix = (prefix << 8) | (i < text.size() ? static_cast<unsigned char>(text[i]) : 0u);
    }
    return prefix;
}

// Which accounts hold each person, for a full read of a large address book:
// the people are put in id order by a sort that mostly compares numbers,
// each half of the map is filled on its own thread, every entry at the end,
// and the second half's entries are moved over without allocating again.
// For one id held twice, the later person's accounts count, as they would
// had each been set in turn.
Membership membershipOf(const std::vector<Person>& people, unsigned threads) {
    struct Entry {
        std::uint64_t prefix;
        std::uint32_t index;
    };
    std::vector<Entry> order(people.size());
    for (std::size_t i = 0; i < people.size(); ++i) {
        order[i] = {sortPrefix(people[i].id), static_cast<std::uint32_t>(i)};
    }
    std::stable_sort(order.begin(), order.end(), [&](const Entry& a, const Entry& b) {
        if (a.prefix != b.prefix) {
            return a.prefix < b.prefix;
        }
        return people[a.index].id < people[b.index].id;
    });
    // An id held twice keeps only its last entry.
    std::vector<Entry> unique;
    unique.reserve(order.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        if (i + 1 < order.size() && people[order[i].index].id == people[order[i + 1].index].id) {
            continue;
        }
        unique.push_back(order[i]);
    }
    auto fill = [&](std::size_t begin, std::size_t end, Membership& part) {
        for (std::size_t i = begin; i < end; ++i) {
            const Person& person = people[unique[i].index];
            part.emplace_hint(part.end(), person.id, person.accountIDs);
        }
    };
    Membership membership;
    if (threads < 2 || unique.size() < 4096) {
        fill(0, unique.size(), membership);
        return membership;
    }
    const std::size_t half = unique.size() / 2;
    Membership upper;
    runInParallel(
        2, [&](unsigned part) { part == 0 ? fill(0, half, membership) : fill(half, unique.size(), upper); });
    while (!upper.empty()) {
        membership.insert(membership.end(), upper.extract(upper.begin()));
    }
    return membership;
}

} // namespace

struct VdirAddressBook::Loaded {
    CardFile file;
    std::string bytes;
    VCard card;
    FileStamp stamp; // of the bytes read
};

// Kinbook's own read-modify-write of one address book, one at a time: the
// process's writers through the mutex, other Kinbook processes through an
// flock on the book's lock file. Reads take neither.
struct VdirAddressBook::WriteLock {
    std::unique_lock<std::mutex> local;
    int fd = -1;

    WriteLock(std::mutex& mutex, const fs::path& lockFile) : local(mutex) {
        if (lockFile.empty()) {
            return;
        }
        std::error_code error;
        fs::create_directories(lockFile.parent_path(), error);
        fd = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        // Without a lock file (a read-only state folder) writes still go
        // one at a time in this process and each is checked by its stamp.
        while (fd >= 0 && ::flock(fd, LOCK_EX) != 0) {
            if (errno != EINTR) {
                ::close(fd);
                fd = -1;
            }
        }
    }
    ~WriteLock() {
        if (fd >= 0) {
            ::close(fd); // releases the flock
        }
    }
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;
};

VdirAddressBook::WriteLock VdirAddressBook::lockForWriting() {
    return WriteLock(m_writeMutex, m_lockFile);
}

VdirAddressBook::VdirAddressBook(Options options)
    : m_options(std::move(options)), m_log(m_options.log ? m_options.log : std::make_shared<KinLog>("store")),
      m_entries(m_options.stateFolder.empty() ? fs::path() : m_options.stateFolder / "entry-ids.json"),
      m_noteGuard(m_options.heldNotesFile.empty() ? NoteGuard::defaultFile() : m_options.heldNotesFile, m_log,
                  m_options.noteStep, NoteGuard::bookKey(m_options.root)) {
    if (!m_options.pauseBeforeRetry) {
        m_options.pauseBeforeRetry = [](std::chrono::milliseconds delay) {
            std::this_thread::sleep_for(delay);
        };
    }
    if (!m_options.cardReaders) {
        m_options.cardReaders = CardFileReader::factory();
    }
    if (m_options.readThreads == 0) {
        m_options.readThreads = 1;
    }
    const fs::path stateFolder =
        m_options.stateFolder.empty() ? ChangeJournal::defaultStateFolder() : m_options.stateFolder;
    m_lockFile = lockFileFor(stateFolder, m_options.root);
    ChangeJournal::Options journalOptions;
    journalOptions.scanThreads = m_options.readThreads;
    m_journal = std::make_unique<ChangeJournal>(
        stateFolder, m_options.root,
        [](const fs::path& path) {
            auto bytes = readWholeFile(path);
            if (!bytes) {
                return std::optional<std::string>();
            }
            auto person =
                scanPerson(*bytes, path.filename().string(), path.parent_path().filename().string(), false);
            return person ? std::optional<std::string>(person->id) : std::nullopt;
        },
        journalOptions);
}

VdirAddressBook::~VdirAddressBook() {
    {
        std::lock_guard watch(m_watchMutex);
        stopWatching();
    }
    m_contactsApp.reset();
}

AddressBookAccess VdirAddressBook::access() {
    std::error_code error;
    const auto status = fs::status(m_options.root, error);
    if (!fs::exists(status)) {
        return AddressBookAccess::notDetermined;
    }
    if (!fs::is_directory(status) || ::access(m_options.root.c_str(), R_OK | X_OK) != 0) {
        return AddressBookAccess::denied;
    }
    return ::access(m_options.root.c_str(), W_OK) == 0 ? AddressBookAccess::granted
                                                       : AddressBookAccess::limited;
}

AddressBookAccess VdirAddressBook::requestAccess() {
    if (access() != AddressBookAccess::notDetermined) {
        return access();
    }
    // Asking for an address book that isn't there yet makes one, with one
    // local account, so a first run has somewhere to put cards.
    std::error_code error;
    fs::create_directories(m_options.root / "default", error);
    if (!error) {
        writeFileAtomically(m_options.root / "default" / "displayname", m_options.newAccountName + "\n");
        m_log->info(fmt::format("created address book with account \"{}\"", m_options.newAccountName));
    } else {
        m_log->error(fmt::format("couldn't create address book: {}", error.message()));
    }
    return access();
}

std::vector<std::string> VdirAddressBook::accountFolders() const {
    // Listed afresh on each call, so a folder that appears while Kinbook
    // runs is an account at once.
    return CardListing::accountNames(m_options.root);
}

bool VdirAddressBook::holdsNoCards() const {
    const auto folders = accountFolders();
    return std::none_of(folders.begin(), folders.end(),
                        [&](const std::string& folder) { return holdsCardFile(m_options.root / folder); });
}

std::vector<VdirAddressBook::CardFile> VdirAddressBook::cardFiles() const {
    std::vector<CardFile> files;
    for (const auto& account : accountFolders()) {
        std::error_code error;
        for (fs::directory_iterator it(m_options.root / account, error), end; !error && it != end;
             it.increment(error)) {
            const std::string name = it->path().filename().string();
            std::error_code typeError;
            if (isCardFileName(name) && it->is_regular_file(typeError)) {
                files.push_back({it->path(), account});
            }
        }
    }
    return files;
}

std::optional<std::string> VdirAddressBook::defaultAccountID() {
    const auto folders = accountFolders();
    if (m_options.defaultAccountID &&
        std::find(folders.begin(), folders.end(), *m_options.defaultAccountID) != folders.end()) {
        return m_options.defaultAccountID;
    }
    if (folders.empty()) {
        return std::nullopt;
    }
    return folders.front();
}

Result<std::vector<Account>, AddressBookError> VdirAddressBook::accounts() {
    if (access() == AddressBookAccess::denied || access() == AddressBookAccess::notDetermined) {
        return failure(
            AddressBookError::store("The address book folder can't be read: " + m_options.root.string()));
    }
    const auto defaultID = defaultAccountID();
    std::vector<Account> accounts;
    for (const auto& folder : accountFolders()) {
        AccountContainer container;
        container.id = folder;
        container.name = readMetadata(m_options.root / folder / "displayname");
        if (container.name.empty()) {
            // Cards kept directly in the root are one address book named
            // after the root folder.
            container.name = folder == "." ? rootName(m_options.root) : folder;
        }
        const auto kind = m_options.accountKinds.find(folder);
        container.kind = kind == m_options.accountKinds.end() ? AccountContainer::Kind::local : kind->second;
        container.isDefault = defaultID == folder;
        accounts.push_back(Account::from(container));
    }
    return accounts;
}

bool VdirAddressBook::isReadOnly(const std::string& accountID) const {
    return m_options.readOnlyAccounts.contains(accountID) ||
           ::access((m_options.root / accountID).c_str(), W_OK) != 0;
}

std::uint32_t VdirAddressBook::accountIndex(const std::string& accountID) {
    const auto known = std::find(m_accountIDs.begin(), m_accountIDs.end(), accountID);
    if (known != m_accountIDs.end()) {
        return static_cast<std::uint32_t>(known - m_accountIDs.begin());
    }
    m_accountIDs.push_back(accountID);
    return static_cast<std::uint32_t>(m_accountIDs.size() - 1);
}

VdirAddressBook::CardFile VdirAddressBook::fileAt(std::string_view cardID,
                                                  const CardIndex::Place& place) const {
    const std::string& accountID = m_accountIDs[place.account];
    return CardFile{m_options.root / accountID /
                        (place.fileName.empty() ? std::string(cardID) + ".vcf" : std::string(place.fileName)),
                    accountID};
}

namespace {

// Settles which of several files holding one UID keeps it, the same way
// whatever order the folders list them in: the first by account and file
// name keeps the UID; each other gets an id made from its account and file
// name, and made to differ from every UID and id the index holds, so that
// nothing aimed at one card ever reaches another. `collided` are the files
// whose UID the index gave to an earlier one. Returns the new id of each
// file that no longer goes by its UID.
std::vector<std::pair<std::size_t, std::string>>
settleDuplicateUIDs(const CardListing& listing, const std::vector<Person>& people,
                    const std::vector<ReadOutcome>& outcomes,
                    const std::vector<std::uint32_t>& accountIndexes,
                    const std::vector<std::size_t>& collided, CardIndex& index, LoadReport& report) {
    const auto& files = listing.files();
    std::map<std::string_view, std::vector<std::size_t>> holders; // by UID, for a stable order
    for (const std::size_t i : collided) {
        holders[people[i].id];
    }
    // The file each UID went to first is found by one pass over them all;
    // this runs only when there are duplicates.
    for (std::size_t i = 0; i < people.size() && i < outcomes.size(); ++i) {
        if (outcomes[i] == ReadOutcome::person) {
            if (auto found = holders.find(people[i].id); found != holders.end()) {
                found->second.push_back(i);
            }
        }
    }
    std::vector<std::pair<std::size_t, std::string>> renamed;
    for (auto& [uid, group] : holders) {
        std::sort(group.begin(), group.end(), [&](std::size_t a, std::size_t b) {
            return std::pair(listing.accountName(files[a]), listing.name(files[a])) <
                   std::pair(listing.accountName(files[b]), listing.name(files[b]));
        });
        LoadReport::DuplicateUID duplicate{std::string(uid), {}};
        for (std::size_t k = 0; k < group.size(); ++k) {
            const CardListing::File& file = files[group[k]];
            const std::uint32_t account = accountIndexes[file.account];
            duplicate.files.push_back(listing.path(file));
            if (k == 0) {
                index.set(uid, account, listing.name(file));
                continue;
            }
            const std::string base =
                cardIDFromFileName(listing.accountName(file) + "-" + std::string(listing.name(file)));
            std::string id = base;
            for (int n = 2; index.find(id) != nullptr; ++n) {
                id = fmt::format("{}-{}", base, n);
            }
            index.insert(id, account, listing.name(file));
            renamed.emplace_back(group[k], std::move(id));
        }
        report.duplicates.push_back(std::move(duplicate));
    }
    return renamed;
}

// Kinbook's own temporary files are this old at least before a read
// removes them: a write renames its temporary file within moments, and one
// that old was left by a write that never finished (a crash, a kill).
constexpr std::chrono::minutes kLeftoverAge{15};

} // namespace

std::vector<Person> VdirAddressBook::readEveryCard(bool details, std::vector<std::uint8_t>* token) {
    // Nothing is read before the ticket is taken: a need for a scan of
    // everything that arises during the read is then not lost.
    std::uint64_t ticket = 0;
    if (token != nullptr) {
        std::lock_guard lock(m_mutex);
        ticket = journal().surveyTicket();
    }
    // The people are read into slots made beforehand. While the folders are
    // listed, another thread makes as many as the last read found (and room
    // for some more), so that a read of much the same book doesn't wait
    // for them.
    std::vector<Person> people;
    std::optional<CardListing> listing;
    if (const std::size_t expected = m_lastCardCount.load(); expected > 0 && m_options.readThreads > 1) {
        runInParallel(2, [&](unsigned part) {
            if (part == 0) {
                listing = CardListing::list(m_options.root, m_options.readThreads);
            } else {
                people.reserve(expected + expected / 8);
                people.resize(expected);
            }
        });
    } else {
        listing = CardListing::list(m_options.root, m_options.readThreads);
    }
    if (!listing) {
        std::lock_guard lock(m_mutex);
        m_index = CardIndex();
        if (token != nullptr) {
            *token = journal().currentToken();
        }
        return {};
    }
    const auto& files = listing->files();
    const std::size_t count = files.size();
    people.resize(count);
    m_lastCardCount = count;
    std::vector<std::uint32_t> accountIndexes;
    {
        std::lock_guard lock(m_mutex);
        for (const auto& account : listing->accounts()) {
            accountIndexes.push_back(accountIndex(account.name));
        }
    }

    // Each read thread takes the next batch of files, reads it in one go
    // (the options' card reader) and puts each person in its file's own slot, so the
    // people come out in listing order however the work was shared.
    constexpr std::size_t kBatchSize = CardBatchReader::kBatchSize;
    const std::size_t batches = (count + kBatchSize - 1) / kBatchSize;
    std::vector<ReadOutcome> outcomes(count, ReadOutcome::gone);
    std::vector<CardBatchReader::Stamp> stamps(token != nullptr ? count : 0);
    std::vector<std::size_t> hashes(count); // of each card id, for the index
    std::vector<std::atomic<bool>> batchRead(batches);
    for (auto& read : batchRead) {
        read.store(false, std::memory_order_relaxed);
    }
    const unsigned threads = std::min<unsigned>(m_options.readThreads, static_cast<unsigned>(count / 64 + 1));
    std::vector<std::vector<std::pair<std::size_t, std::string>>> problems(threads);
    std::atomic<std::size_t> next{0};

    // The index is made in listing order, batch by batch as batches are
    // read, between the main thread's own batches. A second file with one
    // UID is known by an id made from its account and file name; the people
    // take those ids only after the journal has seen the ids as read.
    CardIndex index(count);
    std::vector<std::size_t> collided; // files whose UID an earlier one holds
    std::size_t indexed = 0;
    auto indexReadBatches = [&](bool waitForAll) {
        while (indexed < batches) {
            std::atomic<bool>& read = batchRead[indexed];
            if (!read.load(std::memory_order_acquire)) {
                if (!waitForAll) {
                    return;
                }
                read.wait(false, std::memory_order_acquire);
                continue;
            }
            for (std::size_t i = indexed * kBatchSize; i < std::min(count, (indexed + 1) * kBatchSize); ++i) {
                if (outcomes[i] != ReadOutcome::person) {
                    continue;
                }
                const CardListing::File& file = files[i];
                const std::uint32_t account = accountIndexes[file.account];
                // Two files with one UID (a copy made by hand, a broken sync)
                // would be one card to everyone else; Kinbook keeps both
                // visible. Which one keeps the UID is settled once every UID
                // is known, by file name, not by the order the folder lists
                // them in.
                if (!index.insert(people[i].id, hashes[i], account, listing->name(file))) {
                    collided.push_back(i);
                }
            }
            ++indexed;
        }
    };
    auto work = [&](unsigned thread) {
        const std::unique_ptr<CardBatchReader> reader = m_options.cardReaders(token != nullptr);
        std::array<CardBatchReader::File, kBatchSize> batch;
        std::array<CardBatchReader::Result, kBatchSize> results;
        for (;;) {
            const std::size_t begin = next.fetch_add(kBatchSize);
            if (begin >= count) {
                return;
            }
            const std::size_t size = std::min(count - begin, kBatchSize);
            for (std::size_t k = 0; k < size; ++k) {
                const CardListing::File& file = files[begin + k];
                batch[k] = {listing->folderFD(file), listing->cName(file), file.knownRegular};
            }
            reader->read(std::span(batch.data(), size), std::span(results.data(), size));
            for (std::size_t k = 0; k < size; ++k) {
                const std::size_t i = begin + k;
                const CardBatchReader::Result& read = results[k];
                if (token != nullptr && read.stamp) {
                    stamps[i] = *read.stamp;
                }
                if (!read.problem.empty()) {
                    problems[thread].emplace_back(i, read.problem);
                }
                if (read.outcome != CardBatchReader::Outcome::read) {
                    // A file that is there but can't be read still counts for
                    // the journal, with its state.
                    outcomes[i] = read.outcome == CardBatchReader::Outcome::unreadable && read.stamp
                                      ? ReadOutcome::unreadable
                                      : ReadOutcome::gone;
                    continue;
                }
                const CardListing::File& file = files[i];
                bool isGroup = false;
                if (!scanPersonInto(people[i], read.bytes, listing->name(file), listing->accountName(file),
                                    details, &isGroup)) {
                    outcomes[i] = ReadOutcome::notCard;
                    problems[thread].emplace_back(i, "not a vCard");
                    continue;
                }
                // Contact groups stored as cards are kept, never shown as people.
                outcomes[i] = isGroup ? ReadOutcome::group : ReadOutcome::person;
                hashes[i] = CardIndex::hashOf(people[i].id);
            }
            std::atomic<bool>& read = batchRead[begin / kBatchSize];
            read.store(true, std::memory_order_release);
            read.notify_all();
            if (thread == 0) {
                indexReadBatches(false);
            }
        }
    };
    runInParallel(threads, [&](unsigned thread) {
        work(thread);
        if (thread == 0) {
            indexReadBatches(true);
        }
    });
    LoadReport report;
    std::vector<std::pair<std::size_t, std::string>> renamed;
    if (!collided.empty()) {
        renamed = settleDuplicateUIDs(*listing, people, outcomes, accountIndexes, collided, index, report);
    }

    CardIndex previous; // dropped once the lock is released
    std::unique_lock lock(m_mutex);
    if (token != nullptr) {
        // The journal learns the files from this read, with the ids as read
        // (a second file with one UID included), instead of statting them all
        // again.
        ChangeJournal::Survey survey;
        for (const auto& account : listing->accounts()) {
            if (account.unreadable) {
                survey.unreadableAccounts.push_back(account.name);
            }
        }
        survey.files.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            if (outcomes[i] == ReadOutcome::gone) {
                continue;
            }
            const bool hasCard = outcomes[i] == ReadOutcome::person || outcomes[i] == ReadOutcome::group;
            survey.files.push_back({listing->accountName(files[i]), listing->name(files[i]),
                                    hasCard ? std::string_view(people[i].id) : std::string_view(),
                                    stamps[i].inode, stamps[i].size, stamps[i].mtimeNs});
        }
        *token = journal().tokenAfterSurvey(survey, ticket);
    }
    for (auto& [i, id] : renamed) {
        people[i].id = std::move(id);
        people[i].memberIDs = {people[i].id};
    }
    // Groups and files without a card leave holes, filled from the end: the
    // order stays the same from one read of the same files to the next, and
    // nearly every person stays where it was read.
    std::size_t end = count;
    for (std::size_t i = 0; i < end; ++i) {
        if (outcomes[i] == ReadOutcome::person) {
            continue;
        }
        while (end > i + 1 && outcomes[end - 1] != ReadOutcome::person) {
            --end;
        }
        if (end == i + 1) {
            end = i;
            break;
        }
        people[i] = std::move(people[end - 1]);
        outcomes[i] = ReadOutcome::person;
        --end;
    }
    people.erase(people.begin() + static_cast<std::ptrdiff_t>(end), people.end());
    previous = std::exchange(m_index, std::move(index));
    lock.unlock();

    std::vector<std::pair<std::size_t, std::string>> skipped;
    for (auto& list : problems) {
        std::move(list.begin(), list.end(), std::back_inserter(skipped));
    }
    std::sort(skipped.begin(), skipped.end());
    for (const auto& [i, problem] : skipped) {
        m_log->error(fmt::format("skipped card {}: {}", listing->path(files[i]).string(), problem));
    }
    report.skippedFiles = skipped.size();
    for (const auto& duplicate : report.duplicates) {
        std::string names;
        for (const auto& file : duplicate.files) {
            names += (names.empty() ? "" : ", ") + file.string();
        }
        m_log->error(fmt::format("cards sharing the UID \"{}\": {}; the first keeps it as its id",
                                 duplicate.uid, names));
    }
    reportPassedOver(*listing, report);
    {
        std::lock_guard reportLock(m_reportMutex);
        m_loadReport = std::move(report);
    }
    return people;
}

void VdirAddressBook::reportPassedOver(const CardListing& listing, LoadReport& report) {
    for (const auto& account : listing.accounts()) {
        if (account.unreadable) {
            ++report.unreadableFolders;
            m_log->error(fmt::format("skipped account folder {}: it could not be read",
                                     (m_options.root / account.name).string()));
        }
    }
    std::vector<const CardListing::Oddity*> temporaries;
    for (const auto& oddity : listing.oddities()) {
        switch (oddity.kind) {
        case CardListing::Oddity::Kind::upperCaseExtension:
            ++report.skippedFiles;
            m_log->error(fmt::format("skipped card {}: only files ending in \".vcf\" are read",
                                     listing.path(oddity).string()));
            break;
        case CardListing::Oddity::Kind::notRegular:
            ++report.skippedFiles;
            m_log->error(fmt::format("skipped card {}: not a regular file", listing.path(oddity).string()));
            break;
        case CardListing::Oddity::Kind::temporary:
            temporaries.push_back(&oddity);
            break;
        }
    }
    report.removedTemporaries = sweepTemporaries(listing, temporaries);
}

std::size_t VdirAddressBook::removeLeftoverTemporaries() {
    if (m_temporariesSwept.load()) {
        return 0;
    }
    const auto listing = CardListing::list(m_options.root, 1);
    if (!listing) {
        return 0;
    }
    std::vector<const CardListing::Oddity*> temporaries;
    for (const auto& oddity : listing->oddities()) {
        if (oddity.kind == CardListing::Oddity::Kind::temporary) {
            temporaries.push_back(&oddity);
        }
    }
    return sweepTemporaries(*listing, temporaries);
}

std::size_t VdirAddressBook::sweepTemporaries(const CardListing& listing,
                                              const std::vector<const CardListing::Oddity*>& temporaries) {
    std::size_t removed = 0;
    if (temporaries.empty()) {
        m_temporariesSwept = true;
        return removed;
    }
    // A Kinbook process writing this address book right now holds its lock:
    // its temporary files are left alone then, and an old one is taken on
    // the next read. The age keeps away from the writes of a process whose
    // state folder (and so whose lock) is another.
    const int lockFD = m_lockFile.empty() ? -1 : ::open(m_lockFile.c_str(), O_RDWR | O_CLOEXEC);
    if (lockFD < 0 || ::flock(lockFD, LOCK_EX | LOCK_NB) != 0) {
        if (lockFD >= 0) {
            ::close(lockFD);
        }
        return removed;
    }
    const auto oldest = std::chrono::system_clock::now() - kLeftoverAge;
    for (const CardListing::Oddity* temporary : temporaries) {
        const int folderFD = listing.accounts()[temporary->account].fd;
        struct stat info {};
        if (folderFD < 0 || ::fstatat(folderFD, temporary->name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(info.st_mode)) {
            continue;
        }
        const auto written = std::chrono::system_clock::time_point(
            std::chrono::duration_cast<std::chrono::system_clock::duration>(
                std::chrono::seconds(info.st_mtim.tv_sec) + std::chrono::nanoseconds(info.st_mtim.tv_nsec)));
        if (written > oldest) {
            continue;
        }
        if (::unlinkat(folderFD, temporary->name.c_str(), 0) == 0) {
            ++removed;
            m_log->info(fmt::format("removed {}: left by a write that never finished",
                                    listing.path(*temporary).string()));
        }
    }
    ::close(lockFD); // releases the lock
    m_temporariesSwept = true;
    return removed;
}

LoadReport VdirAddressBook::loadReport() const {
    std::lock_guard lock(m_reportMutex);
    return m_loadReport;
}

Result<FullRead, AddressBookError> VdirAddressBook::readAll(const ReadOptions& options) {
    if (access() == AddressBookAccess::denied || access() == AddressBookAccess::notDetermined) {
        return failure(
            AddressBookError::store("The address book folder can't be read: " + m_options.root.string()));
    }
    restoreHeldNotesOnce();
    FullRead result;
    auto accountList = accounts();
    if (!accountList.ok()) {
        return failure(accountList.error());
    }
    result.snapshot.accounts = std::move(accountList.value());

    const auto start = m_options.clock->monotonicNow();
    // The token comes with the read: the journal learns every file from it
    // as it was read, so a change made during the read (after its file was
    // read, or to a file listed too late) is what the next refresh reports.
    std::vector<std::uint8_t> token;
    result.snapshot.people = readEveryCard(options.details, options.takeToken ? &token : nullptr);
    if (options.takeToken) {
        result.snapshot.historyToken = std::move(token);
    }
    if (options.membership) {
        const auto membershipStart = m_options.clock->monotonicNow();
        result.membership = membershipOf(result.snapshot.people, m_options.readThreads);
        m_log->info(fmt::format("step membership: {} accounts in {} ms", result.snapshot.accounts.size(),
                                m_options.clock->millisecondsSince(membershipStart)));
    }
    m_log->info(fmt::format("step enumerate details={} {} in {} ms", options.details ? "true" : "false",
                            result.snapshot.people.size(), m_options.clock->millisecondsSince(start)));
    result.snapshot.fullReadAt =
        std::chrono::time_point_cast<std::chrono::microseconds>(m_options.clock->now());
    return result;
}

Result<AddressBookChanges, AddressBookError>
VdirAddressBook::changesSince(std::span<const std::uint8_t> token) {
    const auto start = m_options.clock->monotonicNow();
    ChangeSet changes;
    {
        std::lock_guard lock(m_mutex);
        changes = journal().changesSince(std::vector<std::uint8_t>(token.begin(), token.end()));
    }
    AddressBookChanges result;
    if (changes.dropEverything()) {
        result.startOver = true;
        return result;
    }
    result.token = changes.token();
    result.deleted = changes.deleted();
    const auto changedIDs = changes.changed();
    if (changedIDs.empty()) {
        m_log->info(fmt::format("changes: 0 changed, {} deleted, in {} ms", result.deleted.size(),
                                m_options.clock->millisecondsSince(start)));
        return result;
    }
    const std::vector<std::string> ids(changedIDs.begin(), changedIDs.end());
    // A card that is (or became) a group card is no person: it leaves the
    // list like a deleted one, and nothing else is read for it.
    std::set<std::string> groups;
    result.changed = readCards(ids, &groups);
    result.deleted.insert(groups.begin(), groups.end());
    for (const auto& person : result.changed) {
        result.membership[person.id] = person.accountIDs;
    }
    m_log->info(fmt::format("changes: {} changed, {} deleted, read in {} ms", result.changed.size(),
                            result.deleted.size(), m_options.clock->millisecondsSince(start)));
    return result;
}

void VdirAddressBook::rebuildIndex() {
    // Reading every card's id is the only way to find a card that moved or
    // whose file was replaced under a new name; it happens only on a miss.
    readEveryCard(false, nullptr);
}

std::optional<VdirAddressBook::CardFile> VdirAddressBook::locate(std::string_view cardID) {
    {
        std::lock_guard lock(m_mutex);
        const auto* found = m_index.find(cardID);
        if (found != nullptr) {
            CardFile file = fileAt(cardID, *found);
            if (fs::exists(file.path)) {
                return file;
            }
        }
    }
    rebuildIndex();
    std::lock_guard lock(m_mutex);
    const auto* found = m_index.find(cardID);
    if (found == nullptr) {
        return std::nullopt;
    }
    return fileAt(cardID, *found);
}

Result<VdirAddressBook::Loaded, AddressBookError> VdirAddressBook::load(std::string_view cardID) {
    const auto file = locate(cardID);
    if (!file) {
        return failure(AddressBookError::notFound());
    }
    std::string problem;
    FileStamp stamp;
    auto bytes = readWholeFile(file->path, &problem, &stamp);
    if (m_options.afterRead) {
        m_options.afterRead(file->path);
    }
    if (!bytes) {
        if (!fs::exists(file->path)) {
            return failure(AddressBookError::notFound());
        }
        return failure(
            AddressBookError::store(fmt::format("Couldn't read {}: {}", file->path.string(), problem)));
    }
    auto card = VCard::parse(*bytes);
    if (!card.ok()) {
        return failure(AddressBookError::store(fmt::format("{} is not a vCard.", file->path.string())));
    }
    return Loaded{*file, std::move(*bytes), std::move(card.value()), stamp};
}

Result<std::vector<Person>, AddressBookError>
VdirAddressBook::readPeople(std::span<const std::string> cardIDs) {
    return readCards(cardIDs, nullptr);
}

std::vector<Person> VdirAddressBook::readCards(std::span<const std::string> cardIDs,
                                               std::set<std::string>* groups) {
    // A card the index does not know (a start from the cache has no index
    // yet, and group cards are never in it) is found where the journal last
    // saw it; finding it through the index would mean reading every card.
    std::map<std::string, std::vector<std::pair<std::string, std::string>>> seen;
    {
        std::lock_guard lock(m_mutex);
        std::set<std::string> unindexed;
        for (const auto& id : cardIDs) {
            if (m_index.find(id) == nullptr) {
                unindexed.insert(id);
            }
        }
        seen = journal().filesOf(unindexed);
    }
    const auto scan = [&](const CardFile& file, bool& isGroup) -> std::optional<Person> {
        auto bytes = readWholeFile(file.path);
        if (!bytes) {
            return std::nullopt;
        }
        return scanPerson(*bytes, file.path.filename().string(), file.accountID, true, &isGroup);
    };
    std::vector<Person> people;
    for (const auto& id : cardIDs) {
        bool isGroup = false;
        std::optional<Person> person;
        // Only a file that still holds the card by that id is believed: one
        // of two files with one UID, or a file rewritten for another card,
        // is found through the index.
        if (const auto found = seen.find(id); found != seen.end() && found->second.size() == 1) {
            const auto& [account, name] = found->second.front();
            person = scan(CardFile{m_options.root / account / name, account}, isGroup);
            if (person && person->id != id) {
                person.reset();
                isGroup = false;
            }
        }
        if (!person) {
            const auto file = locate(id);
            if (!file) {
                continue;
            }
            person = scan(*file, isGroup);
        }
        if (person && isGroup && groups != nullptr) {
            groups->insert(id);
        }
        if (person && !isGroup) {
            person->id = id;
            person->memberIDs = {id};
            people.push_back(std::move(*person));
        }
    }
    return people;
}

Result<std::vector<std::string>, AddressBookError> VdirAddressBook::allCardIDs() {
    if (access() == AddressBookAccess::denied || access() == AddressBookAccess::notDetermined) {
        return failure(
            AddressBookError::store("The address book folder can't be read: " + m_options.root.string()));
    }
    const auto people = readEveryCard(false, nullptr);
    std::vector<std::string> ids;
    ids.reserve(people.size());
    for (const auto& person : people) {
        ids.push_back(person.id);
    }
    return ids;
}

Result<ContactCard, AddressBookError> VdirAddressBook::card(std::string_view cardID) {
    auto loaded = load(cardID);
    if (!loaded.ok()) {
        return failure(loaded.error());
    }
    std::lock_guard lock(m_mutex);
    ContactCard card = readContactCard(loaded->card, cardID, m_entries);
    if (card.image && m_options.imageScaler) {
        card.thumbnail = m_options.imageScaler->thumbnail(*card.image, 256);
    }
    return card;
}

Result<ContactDraft, AddressBookError> VdirAddressBook::draft(std::string_view cardID) {
    auto loaded = load(cardID);
    if (!loaded.ok()) {
        return failure(loaded.error());
    }
    std::lock_guard lock(m_mutex);
    ContactDraft draft = readDraft(loaded->card, cardID, m_entries);
    m_draftBases.insert_or_assign(std::string(cardID), draft);
    return draft;
}

Result<std::vector<CardRef>, AddressBookError> VdirAddressBook::cardsOf(std::string_view personID) {
    // A vdir has no store-side linking of cards: each card is its own
    // unified contact. Kinbook's join by KinID does the real work.
    const auto file = locate(personID);
    if (!file) {
        return failure(AddressBookError::notFound());
    }
    return std::vector<CardRef>{{std::string(personID), std::string(personID), file->accountID}};
}

Result<VdirAddressBook::EditStatus, AddressBookError> VdirAddressBook::editOnce(std::string_view cardID,
                                                                                const Edit& edit) {
    auto loaded = load(cardID);
    if (!loaded.ok()) {
        return failure(loaded.error());
    }
    if (isReadOnly(loaded->file.accountID)) {
        return failure(AddressBookError::readOnly());
    }
    if (loaded->card.additionalCardCount() > 0) {
        // A file with several cards breaks the format; rewriting it could
        // lose the others' place in someone's sync.
        return failure(
            AddressBookError::store("This card's file holds several cards; Kinbook won't change it."));
    }
    const FileStamp before = loaded->stamp;
    VCard& card = loaded->card;
    const std::string id(cardID);
    ApplyResult kept;
    {
        std::lock_guard lock(m_mutex);
        for (const auto& entry : cardEntries(card, id, m_entries)) {
            kept.entryIDs.emplace_back(entry.property, entry.id);
        }
    }
    auto applied = edit(card, id);
    if (!applied.ok()) {
        return failure(applied.error());
    }
    if (!card.isModified()) {
        return EditStatus::unchanged;
    }
    // A card without a UID takes the id it has been known by, so the id
    // stays the same and sync tools can tell the card apart.
    card.ensureUid(id);
    const std::string bytes = card.serialize();
    PendingFile pending;
    if (!writeTemporaryBeside(loaded->file.path, bytes, pending)) {
        return failure(AddressBookError::store(
            fmt::format("Couldn't write {}: {}", loaded->file.path.string(), std::strerror(errno))));
    }
    if (m_options.beforeCommit) {
        m_options.beforeCommit(loaded->file.path);
    }
    // Never overwrite a change this save has not seen, and never bring
    // back a card someone deleted meanwhile.
    const auto now = stampOf(loaded->file.path);
    if (!now) {
        discardPendingFile(pending);
        return failure(AddressBookError::notFound());
    }
    if (*now != before) {
        discardPendingFile(pending);
        return EditStatus::conflict;
    }
    if (!commitPendingFile(pending)) {
        return failure(AddressBookError::store(
            fmt::format("Couldn't replace {}: {}", loaded->file.path.string(), std::strerror(errno))));
    }
    auto written = VCard::parse(bytes);
    std::lock_guard lock(m_mutex);
    journal().recordWrite(id, loaded->file.accountID, loaded->file.path);
    if (written.ok()) {
        recordWrittenEntries(card, applied->entryIDs.empty() ? kept : applied.value(), written.value(), id,
                             m_entries);
        m_entries.flush();
    }
    return EditStatus::written;
}

Result<void, AddressBookError> VdirAddressBook::editCard(std::string_view cardID, const Edit& edit,
                                                         const char* what) {
    const WriteLock writing = lockForWriting();
    for (int attempt = 0; attempt < 2; ++attempt) {
        auto status = editOnce(cardID, edit);
        if (!status.ok()) {
            m_log->error(saveFailed(status.error(), what));
            return failure(status.error());
        }
        if (status.value() != EditStatus::conflict) {
            return {};
        }
        if (attempt == 0) {
            m_log->info("save hit 134040; retrying once");
            m_options.pauseBeforeRetry(std::chrono::milliseconds(300));
        }
    }
    m_log->error(saveFailed(conflictError(), what));
    return failure(conflictError());
}

bool VdirAddressBook::mayStage(const fs::path& file) const {
    return !m_options.stageCard || m_options.stageCard(file);
}

Result<void, AddressBookError> VdirAddressBook::editCards(std::span<const std::string> cardIDs,
                                                          const Edit& edit, const char* what) {
    const WriteLock writing = lockForWriting();
    struct Staged {
        std::string id;
        Loaded loaded;
        FileStamp stamp;
        PendingFile pending;
        std::string bytes;
        ApplyResult entries;
    };
    std::vector<Staged> staged;
    const auto fail = [&](const std::string& id, AddressBookError error) -> Result<void, AddressBookError> {
        for (const auto& card : staged) {
            discardPendingFile(card.pending);
        }
        m_log->error(saveFailed(error, fmt::format("{} {}", what, id)));
        if (error.code == AddressBookError::Code::store) {
            error.storeDescription += fmt::format(" (card {}; no card was changed)", id);
        }
        return failure(std::move(error));
    };
    for (const auto& id : cardIDs) {
        auto loaded = load(id);
        if (!loaded.ok()) {
            return fail(id, loaded.error());
        }
        if (isReadOnly(loaded->file.accountID)) {
            return fail(id, AddressBookError::readOnly());
        }
        if (loaded->card.additionalCardCount() > 0) {
            return fail(id, AddressBookError::store(
                                "This card's file holds several cards; Kinbook won't change it."));
        }
        Staged card{id, std::move(loaded.value()), {}, {}, {}, {}};
        card.stamp = card.loaded.stamp;
        {
            std::lock_guard lock(m_mutex);
            for (const auto& entry : cardEntries(card.loaded.card, id, m_entries)) {
                card.entries.entryIDs.emplace_back(entry.property, entry.id);
            }
        }
        auto applied = edit(card.loaded.card, id);
        if (!applied.ok()) {
            return fail(id, applied.error());
        }
        if (!card.loaded.card.isModified()) {
            continue;
        }
        if (!applied->entryIDs.empty()) {
            card.entries = std::move(applied.value());
        }
        card.loaded.card.ensureUid(id);
        card.bytes = card.loaded.card.serialize();
        if (!mayStage(card.loaded.file.path) ||
            !writeTemporaryBeside(card.loaded.file.path, card.bytes, card.pending)) {
            const int problem = errno != 0 ? errno : EIO;
            return fail(id, AddressBookError::store(fmt::format("Couldn't write {}: {}",
                                                                card.loaded.file.path.string(),
                                                                std::strerror(problem))));
        }
        staged.push_back(std::move(card));
    }
    // Never overwrite a change this batch has not seen.
    for (const auto& card : staged) {
        const auto now = stampOf(card.loaded.file.path);
        if (!now) {
            return fail(card.id, AddressBookError::notFound());
        }
        if (*now != card.stamp) {
            return fail(card.id, conflictError());
        }
    }
    for (std::size_t i = 0; i < staged.size(); ++i) {
        if (!commitPendingFile(staged[i].pending)) {
            const int problem = errno;
            const std::string id = staged[i].id;
            const std::string path = staged[i].loaded.file.path.string();
            // Put back the cards already replaced, from the bytes they had.
            for (std::size_t j = 0; j < i; ++j) {
                writeFileAtomically(staged[j].loaded.file.path, staged[j].loaded.bytes);
            }
            staged.erase(staged.begin(), staged.begin() + static_cast<std::ptrdiff_t>(i) + 1);
            return fail(id, AddressBookError::store(
                                fmt::format("Couldn't replace {}: {}", path, std::strerror(problem))));
        }
    }
    std::lock_guard lock(m_mutex);
    for (const auto& card : staged) {
        journal().recordWrite(card.id, card.loaded.file.accountID, card.loaded.file.path);
        if (auto written = VCard::parse(card.bytes); written.ok()) {
            recordWrittenEntries(card.loaded.card, card.entries, written.value(), card.id, m_entries);
        }
    }
    m_entries.flush();
    return {};
}

Result<std::string, AddressBookError>
VdirAddressBook::createCard(const std::string& accountID, std::string_view bytes, const std::string& uid) {
    if (isReadOnly(accountID)) {
        return failure(AddressBookError::readOnly());
    }
    fs::path path = m_options.root / accountID / fileNameFor(uid);
    if (fs::exists(path)) {
        path = m_options.root / accountID / (makeUUID() + ".vcf");
    }
    if (!writeFileAtomically(path, bytes)) {
        return failure(AddressBookError::store(
            fmt::format("Couldn't write {}: {}", path.string(), std::strerror(errno))));
    }
    std::lock_guard lock(m_mutex);
    m_index.set(uid, accountIndex(accountID), path.filename().native());
    journal().recordWrite(uid, accountID, path);
    return uid;
}

Result<std::string, AddressBookError> VdirAddressBook::createFromDraft(const ContactDraft& draft) {
    const auto accountID = draft.accountID ? draft.accountID : defaultAccountID();
    if (!accountID) {
        return failure(AddressBookError::store("There is no account to add the card to."));
    }
    const std::string uid = makeUUID();
    VCard card = newCardFor(draft, uid);
    std::string bytes;
    {
        // The new entries carry the identities the editor gave them.
        std::lock_guard lock(m_mutex);
        const auto applied = applyDraft(card, draft, uid, m_entries, m_options.clock->now());
        bytes = card.serialize();
        if (auto written = VCard::parse(bytes); written.ok()) {
            recordWrittenEntries(card, applied, written.value(), uid, m_entries);
        }
    }
    auto created = createCard(*accountID, bytes, uid);
    std::lock_guard lock(m_mutex);
    if (!created.ok()) {
        m_log->error(saveFailed(created.error(), "new card"));
        m_entries.forget(uid);
        return failure(created.error());
    }
    m_entries.flush();
    return uid;
}

bool VdirAddressBook::nameLinksToNotedCard(const ContactDraft& draft) {
    const std::string name = linkingName(draft.givenName, draft.familyName, draft.organization);
    if (name.empty()) {
        return false;
    }
    for (const auto& file : cardFiles()) {
        const auto bytes = readWholeFile(file.path);
        // Most cards carry no note: only those that mention one are parsed.
        if (!bytes || !mentionsNote(*bytes)) {
            continue;
        }
        const auto card = VCard::parse(*bytes);
        if (!card.ok() || !hasNote(card.value())) {
            continue;
        }
        const CardNames names = readCardNames(card.value());
        if (linkingName(names.givenName, names.familyName, names.organization) == name) {
            return true;
        }
    }
    return false;
}

namespace {

// The note a script sets: none clears it.
std::optional<std::string> scriptedNote(const std::string& note) {
    std::string wanted = wantedNote(note);
    if (wanted.empty()) {
        return std::nullopt;
    }
    return wanted;
}

} // namespace

Result<SaveOutcome, AddressBookError> VdirAddressBook::save(const ContactDraft& draft) {
    if (!draft.id && m_options.notesLocked && draft.note && !wantedNote(*draft.note).empty()) {
        // The card is made without its note, which then goes through the
        // Contacts application like any note where notes are locked.
        ContactDraft withoutNote = draft;
        withoutNote.note.reset();
        auto outcome = save(withoutNote);
        if (!outcome.ok()) {
            return outcome;
        }
        const std::string lines = ContactsAppScript::noteLines(outcome->id, scriptedNote(*draft.note));
        if (outcome->kind == SaveOutcome::Kind::saved) {
            return SaveOutcome{SaveOutcome::Kind::viaContactsApp, outcome->id, lines};
        }
        outcome->body += "\n" + lines;
        return outcome;
    }
    if (!draft.id) {
        const WriteLock writing = lockForWriting();
        if (!m_options.notesLocked || !nameLinksToNotedCard(draft)) {
            auto created = createFromDraft(draft);
            if (!created.ok()) {
                return failure(created.error());
            }
            m_log->info(fmt::format("saved contact ({})", created.value()));
            return SaveOutcome{SaveOutcome::Kind::saved, created.value(), {}};
        }
        // A store that protects notes would link the new card to the card
        // with a note that has its name, and then refuse it. So the card is
        // made under a name no one has, and named through the Contacts
        // application.
        m_log->error(saveFailed(AddressBookError::hasNote(), "new card"));
        ContactDraft pending = draft;
        pending.namePrefix.clear();
        pending.middleName.clear();
        pending.familyName.clear();
        pending.nameSuffix.clear();
        pending.nickname.clear();
        pending.organization.clear();
        pending.department.clear();
        pending.jobTitle.clear();
        pending.givenName = "Pending " + makeUUID().substr(0, 8);
        auto created = createFromDraft(pending);
        if (!created.ok()) {
            return failure(created.error());
        }
        m_log->info(fmt::format("saved contact ({})", created.value()));
        ContactsAppScript::Card named;
        named.id = created.value();
        named.title = trimAsciiSpace(draft.namePrefix);
        named.firstName = trimAsciiSpace(draft.givenName);
        named.middleName = trimAsciiSpace(draft.middleName);
        named.lastName = trimAsciiSpace(draft.familyName);
        named.suffix = trimAsciiSpace(draft.nameSuffix);
        named.nickname = trimAsciiSpace(draft.nickname);
        named.organization = trimAsciiSpace(draft.organization);
        named.department = trimAsciiSpace(draft.department);
        named.jobTitle = trimAsciiSpace(draft.jobTitle);
        return SaveOutcome{SaveOutcome::Kind::nameViaContactsApp, created.value(),
                           ContactsAppScript::lines(named, {ContactsAppScript::Fields::name})};
    }

    const std::string cardID = *draft.id;
    // What the card would be with the draft applied, for the script, when
    // the card has a note and the store refuses it.
    std::optional<ContactsAppScript::Card> scripted;
    std::string noteScript;
    auto result = editCard(
        cardID,
        [&](VCard& card, const std::string& id) -> Result<ApplyResult, AddressBookError> {
            std::lock_guard lock(m_mutex);
            // Only what the user changed since the draft was read: the card
            // may have been changed meanwhile, and those changes stay.
            const auto base = m_draftBases.find(id);
            const ContactDraft merged = base == m_draftBases.end()
                                            ? draft
                                            : mergeDraft(base->second, draft, readDraft(card, id, m_entries));
            // Where notes are locked, a note can't be written directly
            // either: a card that gets one goes the same way.
            const bool noteChanges = draftChangesNote(card, merged);
            if (m_options.notesLocked && (hasNote(card) || noteChanges)) {
                VCard applied = card;
                applyDraft(applied, merged, id, m_entries, m_options.clock->now());
                // The Contacts application's script sets no phonetic name and
                // no other dates: such an edit is refused rather than lost.
                const ContactDraft before = readDraft(card, id, m_entries);
                const ContactDraft after = readDraft(applied, id, m_entries);
                if (before.phoneticGivenName != after.phoneticGivenName ||
                    before.phoneticFamilyName != after.phoneticFamilyName || before.dates != after.dates) {
                    return failure(AddressBookError::store(std::string(kUnscriptableMessage)));
                }
                scripted = ContactsAppScript::Card::read(applied, id);
                noteScript = noteChanges ? ContactsAppScript::noteLines(id, scriptedNote(*merged.note)) : "";
                return failure(AddressBookError::hasNote());
            }
            return applyDraft(card, merged, id, m_entries, m_options.clock->now());
        },
        "contact");
    if (result.ok()) {
        // The next save of this draft builds on what this one wrote.
        std::lock_guard lock(m_mutex);
        m_draftBases.insert_or_assign(cardID, draft);
    }
    if (!result.ok()) {
        if (result.error().code == AddressBookError::Code::hasNote && scripted) {
            std::string body = ContactsAppScript::lines(*scripted, {ContactsAppScript::Fields::all});
            if (!noteScript.empty()) {
                body += "\n" + noteScript;
            }
            return SaveOutcome{SaveOutcome::Kind::viaContactsApp, cardID, std::move(body)};
        }
        return failure(result.error());
    }
    m_log->info(fmt::format("saved contact ({})", cardID));
    return SaveOutcome{SaveOutcome::Kind::saved, cardID, {}};
}

Result<void, AddressBookError>
VdirAddressBook::restoreCard(std::string_view cardID, std::string_view expected, std::string_view bytes) {
    const WriteLock writing = lockForWriting();
    auto loaded = load(cardID);
    if (!loaded.ok()) {
        return failure(loaded.error());
    }
    if (isReadOnly(loaded->file.accountID)) {
        return failure(AddressBookError::readOnly());
    }
    if (loaded->bytes != expected) {
        return failure(AddressBookError::store(std::string(kChangedSinceMessage)));
    }
    if (m_options.notesLocked && (hasNote(loaded->card) || mentionsNote(bytes))) {
        // Putting a noted card back byte for byte is what a store that
        // locks notes refuses; the change can't be undone here.
        return failure(AddressBookError::hasNote());
    }
    PendingFile pending;
    if (!writeTemporaryBeside(loaded->file.path, std::string(bytes), pending)) {
        return failure(AddressBookError::store(
            fmt::format("Couldn't write {}: {}", loaded->file.path.string(), std::strerror(errno))));
    }
    const auto now = stampOf(loaded->file.path);
    if (!now || *now != loaded->stamp) {
        discardPendingFile(pending);
        return failure(AddressBookError::store(std::string(kChangedSinceMessage)));
    }
    if (!commitPendingFile(pending)) {
        return failure(AddressBookError::store(
            fmt::format("Couldn't replace {}: {}", loaded->file.path.string(), std::strerror(errno))));
    }
    std::lock_guard lock(m_mutex);
    journal().recordWrite(std::string(cardID), loaded->file.accountID, loaded->file.path);
    m_log->info(fmt::format("restored contact ({})", cardID));
    return {};
}

Result<void, AddressBookError> VdirAddressBook::writeThroughContactsApp(const SaveOutcome& outcome) {
    if (outcome.kind == SaveOutcome::Kind::saved) {
        return {};
    }
    auto written = contactsApp().update(outcome.body);
    if (!written.ok()) {
        m_log->error(fmt::format("script failed ({})", written.error().message));
        return failure(scriptError(written.error()));
    }
    if (outcome.kind == SaveOutcome::Kind::nameViaContactsApp) {
        m_log->info("new card named through Contacts.app (its name links to a contact with a note)");
        return {};
    }
    std::size_t cards = 0;
    for (std::size_t at = outcome.body.find("  set p to person id "); at != std::string::npos;
         at = outcome.body.find("\n  set p to person id ", at + 1)) {
        ++cards;
    }
    m_log->info(fmt::format("wrote {} cards through Contacts.app (contact has a note)", cards));
    return {};
}

Result<void, AddressBookError> VdirAddressBook::deleteLoaded(const std::string& cardID,
                                                             const Loaded& loaded) {
    if (::unlink(loaded.file.path.c_str()) != 0) {
        if (errno == ENOENT) {
            return failure(AddressBookError::notFound());
        }
        return failure(AddressBookError::store(
            fmt::format("Couldn't delete {}: {}", loaded.file.path.string(), std::strerror(errno))));
    }
    std::lock_guard lock(m_mutex);
    journal().recordDelete(cardID, loaded.file.path);
    m_entries.forget(cardID);
    m_index.erase(cardID);
    return {};
}

Result<void, AddressBookError> VdirAddressBook::remove(std::span<const std::string> cardIDs) {
    std::vector<std::string> noted;
    std::size_t removed = 0;
    {
        const WriteLock writing = lockForWriting();
        // Every card is first moved aside to a hidden name in its folder,
        // which readers pass over; only when all are aside do they go. A
        // failure moves them back, so the batch deletes all or nothing.
        std::vector<std::pair<std::string, Loaded>> doomed;
        std::vector<std::pair<fs::path, fs::path>> aside; // card file, hidden name
        const auto fail = [&](const std::string& id,
                              AddressBookError error) -> Result<void, AddressBookError> {
            for (const auto& [file, hidden] : aside) {
                ::rename(hidden.c_str(), file.c_str());
            }
            m_log->error(fmt::format("delete failed (card {}: {})", id, error.description()));
            if (error.code == AddressBookError::Code::store) {
                error.storeDescription += fmt::format(" (card {}; no card was deleted)", id);
            }
            return failure(std::move(error));
        };
        for (const auto& id : cardIDs) {
            auto loaded = load(id);
            if (!loaded.ok()) {
                return fail(id, loaded.error());
            }
            if (isReadOnly(loaded->file.accountID)) {
                return fail(id, AddressBookError::readOnly());
            }
            if (m_options.notesLocked && hasNote(loaded->card)) {
                noted.push_back(id);
                continue;
            }
            const fs::path file = loaded->file.path;
            const fs::path hidden = file.parent_path() /
                                    ("." + file.filename().string() + "." + makeUUID().substr(0, 8) + ".tmp");
            if (!mayStage(file) || ::rename(file.c_str(), hidden.c_str()) != 0) {
                const int problem = errno != 0 ? errno : EIO;
                if (problem == ENOENT) {
                    return fail(id, AddressBookError::notFound());
                }
                return fail(id, AddressBookError::store(fmt::format("Couldn't delete {}: {}", file.string(),
                                                                    std::strerror(problem))));
            }
            aside.emplace_back(file, hidden);
            doomed.emplace_back(id, std::move(loaded.value()));
        }
        for (std::size_t i = 0; i < doomed.size(); ++i) {
            ::unlink(aside[i].second.c_str());
            std::lock_guard lock(m_mutex);
            journal().recordDelete(doomed[i].first, doomed[i].second.file.path);
            m_entries.forget(doomed[i].first);
            m_index.erase(doomed[i].first);
            ++removed;
        }
        std::lock_guard lock(m_mutex);
        m_entries.flush();
    }
    // The store refuses these; the Contacts application deletes them. Its
    // host comes back through the write lock, so this runs without it.
    for (const auto& id : noted) {
        auto deleted = contactsApp().deleteCard(id);
        if (!deleted.ok()) {
            m_log->error(fmt::format("delete failed ({})", deleted.error().message));
            return failure(scriptError(deleted.error()));
        }
        m_log->info("deleted one card through Contacts.app (it has a note)");
        ++removed;
    }
    if (cardIDs.size() == 1) {
        if (noted.empty()) {
            m_log->info("deleted one card");
        }
    } else {
        m_log->info(fmt::format("deleted contact ({} cards)", removed));
    }
    return {};
}

Result<std::string, AddressBookError> VdirAddressBook::exportVCards(std::span<const std::string> cardIDs) {
    std::string text;
    for (const auto& id : cardIDs) {
        auto loaded = load(id);
        if (!loaded.ok()) {
            return failure(loaded.error());
        }
        // A line break joins a card whose file lacks its last one to the
        // next; one card alone is its file's own bytes, so a restore or an
        // undo compares with and writes back exactly what was there.
        if (!text.empty() && text.back() != '\n') {
            text += "\r\n";
        }
        text += loaded->bytes;
    }
    return text;
}

Result<std::vector<std::string>, AddressBookError>
VdirAddressBook::importVCards(std::string_view vcards, std::optional<std::string> accountID) {
    if (!accountID) {
        accountID = defaultAccountID();
    }
    if (!accountID) {
        return failure(AddressBookError::store("There is no account to add the cards to."));
    }
    auto cards = VCard::parseAll(vcards);
    if (!cards.ok()) {
        return failure(AddressBookError::store("The data holds no vCard."));
    }
    const WriteLock writing = lockForWriting();
    if (isReadOnly(*accountID)) {
        return failure(AddressBookError::readOnly());
    }
    // Every card is written to a temporary file first; only when all are
    // written are they renamed into place, so an import adds all or nothing.
    std::vector<std::string> ids;
    std::vector<PendingFile> pending;
    std::set<fs::path> targets;
    const auto fail = [&](std::size_t committed, const std::string& which,
                          const std::string& problem) -> Result<std::vector<std::string>, AddressBookError> {
        for (std::size_t i = 0; i < pending.size(); ++i) {
            if (i < committed) {
                ::unlink(pending[i].target.c_str());
            } else {
                discardPendingFile(pending[i]);
            }
        }
        m_log->error(fmt::format("restore failed (card {}: {})", which, problem));
        return failure(AddressBookError::store(
            fmt::format("Couldn't add card {}: {} (no card was added)", which, problem)));
    };
    for (auto& card : cards.value()) {
        // A card keeps its UID, so sync tools see the same card come back,
        // unless that UID is already taken in the account.
        std::string uid = card.uid().value_or("");
        if (uid.empty() || locate(uid) || std::find(ids.begin(), ids.end(), uid) != ids.end()) {
            uid = makeUUID();
            card.setUid(uid);
        }
        fs::path path = m_options.root / *accountID / fileNameFor(uid);
        if (fs::exists(path) || targets.contains(path)) {
            path = m_options.root / *accountID / (makeUUID() + ".vcf");
        }
        PendingFile file;
        if (!mayStage(path) || !writeTemporaryBeside(path, card.serialize(), file)) {
            const int problem = errno != 0 ? errno : EIO;
            return fail(0, uid, std::strerror(problem));
        }
        pending.push_back(file);
        targets.insert(path);
        ids.push_back(uid);
    }
    for (std::size_t i = 0; i < pending.size(); ++i) {
        if (!commitPendingFile(pending[i])) {
            return fail(i, ids[i], std::strerror(errno));
        }
    }
    {
        std::lock_guard lock(m_mutex);
        for (std::size_t i = 0; i < pending.size(); ++i) {
            m_index.set(ids[i], accountIndex(*accountID), pending[i].target.filename().native());
            journal().recordWrite(ids[i], *accountID, pending[i].target);
        }
    }
    m_log->info(fmt::format("restored {} cards into {}", ids.size(), *accountID));
    return ids;
}

Result<KinID::Anchor, AddressBookError>
VdirAddressBook::changeAnchor(std::string_view cardID, const std::function<void(KinID::Anchor&)>& change) {
    KinID::Anchor written;
    // The web addresses as the anchor change leaves them, for the script,
    // when the card has a note and the store refuses it.
    std::optional<ContactsAppScript::Card> scripted;
    auto result = editCard(
        cardID,
        [&](VCard& card, const std::string& id) -> Result<ApplyResult, AddressBookError> {
            std::lock_guard lock(m_mutex);
            if (m_options.notesLocked && hasNote(card)) {
                VCard applied = card;
                written = kinbook::changeAnchor(applied, change, m_options.clock->now());
                scripted = ContactsAppScript::Card::read(applied, id);
                return failure(AddressBookError::hasNote());
            }
            auto changed = kinbook::changeAnchor(card, id, m_entries, change, m_options.clock->now());
            written = changed.anchor;
            return changed.entries;
        },
        "anchor");
    if (!result.ok() && result.error().code == AddressBookError::Code::hasNote && scripted) {
        // The circle and the hidden flag are card settings like any other:
        // a card with a note takes them through the Contacts application.
        // Its host comes back through the write lock, so this runs without it.
        auto scriptWritten =
            writeThroughContactsApp({SaveOutcome::Kind::viaContactsApp, std::string(cardID),
                                     ContactsAppScript::lines(*scripted, {ContactsAppScript::Fields::urls})});
        if (!scriptWritten.ok()) {
            return failure(scriptWritten.error());
        }
        return written;
    }
    if (!result.ok()) {
        return failure(result.error());
    }
    m_log->info("wrote KinID");
    return written;
}

Result<void, AddressBookError> VdirAddressBook::setPhoto(std::span<const std::string> cardIDs,
                                                         std::span<const std::uint8_t> jpeg) {
    auto photoEdit = [&](bool* refused) {
        return [&, refused](VCard& card, const std::string&) -> Result<ApplyResult, AddressBookError> {
            if (m_options.notesLocked && hasNote(card)) {
                if (refused != nullptr) {
                    // Left for the note guard, without a failure to log.
                    *refused = true;
                    return ApplyResult{};
                }
                return failure(AddressBookError::hasNote());
            }
            kinbook::setPhoto(card, jpeg, m_options.clock->now());
            return ApplyResult{};
        };
    };
    std::vector<std::string> noted;
    const auto setOrRefuse = [&](VCard& card,
                                 const std::string& id) -> Result<ApplyResult, AddressBookError> {
        bool refused = false;
        auto result = photoEdit(&refused)(card, id);
        if (refused) {
            noted.push_back(id);
        }
        return result;
    };
    // Every card without a note takes the photo, or none does.
    if (auto result = editCards(cardIDs, setOrRefuse, "photo"); !result.ok()) {
        return result;
    }
    if (noted.empty()) {
        m_log->info("contact photo set");
        return {};
    }
    // The store refuses cards with a note: their notes are lifted and held
    // while the photo is saved, then set back. Notes a crash left held go
    // back first, so that lifting a card's note again can't replace them.
    restoreHeldNotesOnce();
    std::optional<AddressBookError> changeError;
    auto lifted = m_noteGuard.liftWhile(noted, contactsApp(), [&]() -> Result<void, std::string> {
        for (const auto& id : noted) {
            auto result = editCard(id, photoEdit(nullptr), "photo");
            if (!result.ok()) {
                changeError = result.error();
                return failure(result.error().description());
            }
        }
        return {};
    });
    if (!lifted.ok()) {
        return failure(changeError ? *changeError : AddressBookError::store(lifted.error()));
    }
    m_log->info(fmt::format("contact photo set ({} notes lifted and restored)", lifted.value()));
    return {};
}

Result<bool, AddressBookError> VdirAddressBook::copyPhoto(std::string_view fromCardID,
                                                          std::string_view toCardID) {
    auto photo = image(fromCardID);
    if (!photo.ok()) {
        return failure(photo.error());
    }
    if (!photo.value()) {
        return false;
    }
    bool copied = true;
    auto result = editCard(
        toCardID,
        [&](VCard& card, const std::string&) -> Result<ApplyResult, AddressBookError> {
            if (m_options.notesLocked && hasNote(card)) {
                copied = false;
                return ApplyResult{};
            }
            kinbook::setPhoto(card, *photo.value(), m_options.clock->now());
            return ApplyResult{};
        },
        "photo");
    if (!result.ok()) {
        return failure(result.error());
    }
    if (!copied) {
        m_log->info("photo not copied: card has a note");
    }
    return copied;
}

std::map<std::string, std::vector<std::uint8_t>>
VdirAddressBook::thumbnails(std::span<const std::string> cardIDs) {
    std::map<std::string, std::vector<std::uint8_t>> thumbnails;
    if (!m_options.imageScaler) {
        return thumbnails;
    }
    for (const auto& id : cardIDs) {
        auto photo = image(id);
        if (!photo.ok() || !photo.value()) {
            continue;
        }
        if (auto small = m_options.imageScaler->thumbnail(*photo.value(), 256)) {
            thumbnails.emplace(id, std::move(*small));
        }
    }
    return thumbnails;
}

Result<std::optional<std::vector<std::uint8_t>>, AddressBookError>
VdirAddressBook::image(std::string_view cardID) {
    auto loaded = load(cardID);
    if (!loaded.ok()) {
        return failure(loaded.error());
    }
    const VCardProperty* photo = loaded->card.first("PHOTO");
    if (!photo) {
        return std::optional<std::vector<std::uint8_t>>();
    }
    auto binary = photo->binary();
    if (!binary) {
        return std::optional<std::vector<std::uint8_t>>();
    }
    return std::optional<std::vector<std::uint8_t>>(std::move(binary->bytes));
}

ContactsAppScript& VdirAddressBook::contactsApp() {
    std::call_once(m_contactsAppOnce, [this] {
        std::shared_ptr<ScriptHost> host =
            m_options.scriptHost ? m_options.scriptHost : std::make_shared<NoScriptHost>();
        m_contactsApp = std::make_unique<ContactsAppScript>(std::move(host));
    });
    return *m_contactsApp;
}

std::size_t VdirAddressBook::restoreHeldNotes() {
    if (m_noteGuard.held().empty()) {
        return 0;
    }
    std::vector<std::string> keptBoth;
    const std::size_t restored = m_noteGuard.restoreHeld(contactsApp(), &keptBoth);
    if (restored > 0 && m_options.restoredAfterCrash) {
        m_options.restoredAfterCrash(restored);
    }
    if (!keptBoth.empty()) {
        m_log->error(fmt::format("{} ({} cards)", NoteGuard::bothKeptMessage, keptBoth.size()));
        if (m_options.bothNotesKept) {
            m_options.bothNotesKept(keptBoth);
        }
    }
    return restored;
}

void VdirAddressBook::restoreHeldNotesOnce() {
    std::call_once(m_recoveryOnce, [this] { restoreHeldNotes(); });
}

Result<VCard, AddressBookError> VdirAddressBook::scriptedRead(std::string_view cardID) {
    auto loaded = load(cardID);
    if (!loaded.ok()) {
        return failure(loaded.error());
    }
    return std::move(loaded->card);
}

Result<void, AddressBookError> VdirAddressBook::scriptedEdit(std::string_view cardID,
                                                             const ScriptedCards::Edit& edit) {
    return editCard(
        cardID,
        [&](VCard& card, const std::string& id) -> Result<ApplyResult, AddressBookError> {
            std::lock_guard lock(m_mutex);
            return edit(card, id, m_entries);
        },
        "script");
}

Result<void, AddressBookError> VdirAddressBook::scriptedRemove(std::string_view cardID) {
    const WriteLock writing = lockForWriting();
    auto loaded = load(cardID);
    if (!loaded.ok()) {
        return failure(loaded.error());
    }
    if (isReadOnly(loaded->file.accountID)) {
        return failure(AddressBookError::readOnly());
    }
    auto deleted = deleteLoaded(std::string(cardID), loaded.value());
    std::lock_guard lock(m_mutex);
    m_entries.flush();
    return deleted;
}

Result<ChangeObserverID, std::string> VdirAddressBook::observeChanges(Executor& executor,
                                                                      std::function<void()> onChange) {
    if (!m_options.watcher) {
        return failure(std::string("no folder watcher"));
    }
    std::lock_guard watch(m_watchMutex);
    ChangeObserverID id = 0;
    bool starting = false;
    {
        // In the list before the watch begins: its first notice, which says
        // that anything may have changed, may come at once.
        std::lock_guard observing(m_observerMutex);
        id = ++m_lastObserverID;
        m_observers.emplace(
            id, ChangeObserver{&executor, std::make_shared<const std::function<void()>>(std::move(onChange)),
                               std::make_shared<std::atomic<bool>>(true)});
        starting = m_watchExecutor == nullptr;
        if (starting) {
            m_watchExecutor = &executor;
        }
    }
    if (!starting) {
        return id;
    }
    // The journal hears what each notice names before any observer hears of
    // it, so the refresh that follows stats only those files.
    auto started = m_options.watcher->start(m_options.root, executor, [this](const FolderChange& change) {
        {
            std::lock_guard lock(m_noticeMutex);
            m_notices.unnamed = m_notices.unnamed || change.unnamed;
            if (!change.unnamed) {
                m_notices.files.insert(m_notices.files.end(), change.files.begin(), change.files.end());
            }
        }
        tellObservers();
    });
    if (!started.ok()) {
        std::lock_guard observing(m_observerMutex);
        m_observers.erase(id);
        m_watchExecutor = nullptr;
        return failure(started.error());
    }
    // Only now is every change named; the next scan still covers the time
    // before the watch began.
    std::lock_guard lock(m_mutex);
    journal().followNamedChanges(true);
    return id;
}

void VdirAddressBook::tellObservers() {
    std::vector<ChangeObserver> observers;
    Executor* watchExecutor = nullptr;
    {
        std::lock_guard observing(m_observerMutex);
        watchExecutor = m_watchExecutor;
        for (const auto& [id, observer] : m_observers) {
            observers.push_back(observer);
        }
    }
    for (const auto& observer : observers) {
        if (observer.executor == watchExecutor) {
            // Asked again: one that left after the list was copied left on
            // this same executor, and must not hear of this.
            if (observer.live->load()) {
                (*observer.onChange)();
            }
        } else {
            observer.executor->post([onChange = observer.onChange, live = observer.live] {
                if (live->load()) {
                    (*onChange)();
                }
            });
        }
    }
}

ChangeJournal& VdirAddressBook::journal() {
    FolderChange notices;
    {
        std::lock_guard lock(m_noticeMutex);
        notices = std::exchange(m_notices, FolderChange{});
    }
    if (notices.unnamed) {
        m_journal->unnamedChanges();
    } else if (!notices.files.empty()) {
        m_journal->filesChanged(notices.files);
    }
    return *m_journal;
}

void VdirAddressBook::stopObserving(ChangeObserverID observer) {
    std::lock_guard watch(m_watchMutex);
    bool last = false;
    {
        std::lock_guard observing(m_observerMutex);
        const auto found = m_observers.find(observer);
        if (found == m_observers.end()) {
            return;
        }
        found->second.live->store(false);
        m_observers.erase(found);
        last = m_observers.empty();
    }
    if (last) {
        stopWatching();
    }
}

void VdirAddressBook::stopWatching() {
    {
        std::lock_guard observing(m_observerMutex);
        if (m_watchExecutor == nullptr) {
            return;
        }
        m_watchExecutor = nullptr;
    }
    m_options.watcher->stop();
    std::lock_guard lock(m_mutex);
    journal().followNamedChanges(false);
}

} // namespace kinbook
