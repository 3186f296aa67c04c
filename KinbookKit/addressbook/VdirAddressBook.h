#pragma once

#include "KinbookKit/addressbook/AddressBook.h"
#include "KinbookKit/addressbook/CardIndex.h"
#include "KinbookKit/addressbook/CardWriter.h"
#include "KinbookKit/addressbook/ChangeJournal.h"
#include "KinbookKit/addressbook/EntryRegistry.h"
#include "KinbookKit/addressbook/FolderWatcher.h"
#include "KinbookKit/addressbook/ImageScaler.h"
#include "KinbookKit/text/KinLog.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>

namespace kinbook {

// The address book on a vdir: a root folder whose subfolders are accounts
// (collections) and whose ".vcf" files are cards, the layout vdirsyncer keeps
// in sync with iCloud, Google, Nextcloud and any CardDAV server.
//
// Kinbook keeps no copy of the cards. Every read goes to the files; every
// change rewrites only the lines it changes, keeps the file's name and
// replaces the file atomically. A card that changed on disk between Kinbook's
// read and its write (a sync run wrote it) is never overwritten: the save is
// tried once more on the new content after 0.3 s, and then fails.
//
// Card ids are the cards' UIDs; a card without one is known by an id made
// from its file name, which becomes its UID the first time Kinbook writes it,
// so the id never changes. Accounts are the folder names; their display
// names come from the "displayname" file, else the folder name.
//
// Thread-safe: reads run in parallel; writes are one at a time.
class VdirAddressBook final : public AddressBook {
public:
    struct Options {
        std::filesystem::path root;
        // Where the change journal and the remembered entry identities live.
        std::filesystem::path stateFolder;
        // Refuse to change cards that carry a note, as some stores do; the
        // scripting path then makes the change.
        bool notesLocked = false;
        // The account (folder name) new cards go to; none: the first by name.
        std::optional<std::string> defaultAccountID;
        // The kind of each account (folder name); accounts not listed are local.
        std::map<std::string, AccountContainer::Kind> accountKinds;
        // Accounts the user marked read-only, besides folders that are not writable.
        std::set<std::string> readOnlyAccounts;
        // Display name of the account made when asking for access creates the address book.
        std::string newAccountName = "On My Computer";
        unsigned readThreads = 2;
        // Makes thumbnails; none: cards have no thumbnails.
        std::shared_ptr<ImageScaler> imageScaler;
        // Follows changes on disk; none: observeChanges fails.
        std::shared_ptr<FolderWatcher> watcher;
        // The "store" log; the default writes to the app log.
        std::shared_ptr<KinLog> log;
        // Fault injection for tests: runs after a save wrote its temporary
        // file and before the file is renamed into place.
        std::function<void(const std::filesystem::path&)> beforeCommit;
        // The pause before retrying a save whose card changed on disk.
        std::function<void(std::chrono::milliseconds)> sleep;
    };

    explicit VdirAddressBook(Options options);
    ~VdirAddressBook() override;

    AddressBookAccess access() override;
    AddressBookAccess requestAccess() override;
    Result<std::vector<Account>, AddressBookError> accounts() override;
    std::optional<std::string> defaultAccountID() override;
    Result<FullRead, AddressBookError> readAll(const ReadOptions& options) override;
    Result<AddressBookChanges, AddressBookError> changesSince(std::span<const std::uint8_t> token) override;
    Result<std::vector<Person>, AddressBookError> readPeople(std::span<const std::string> cardIDs) override;
    Result<std::vector<std::string>, AddressBookError> allCardIDs() override;
    Result<ContactCard, AddressBookError> card(std::string_view cardID) override;
    Result<ContactDraft, AddressBookError> draft(std::string_view cardID) override;
    Result<std::vector<CardRef>, AddressBookError> cardsOf(std::string_view personID) override;
    Result<SaveOutcome, AddressBookError> save(const ContactDraft& draft) override;
    Result<void, AddressBookError> remove(std::span<const std::string> cardIDs) override;
    Result<std::string, AddressBookError> exportVCards(std::span<const std::string> cardIDs) override;
    Result<std::vector<std::string>, AddressBookError>
    importVCards(std::string_view vcards, std::optional<std::string> accountID) override;
    Result<KinID::Anchor, AddressBookError>
    changeAnchor(std::string_view cardID, const std::function<void(KinID::Anchor&)>& change) override;
    Result<void, AddressBookError> setPhoto(std::span<const std::string> cardIDs,
                                            std::span<const std::uint8_t> jpeg) override;
    Result<bool, AddressBookError> copyPhoto(std::string_view fromCardID, std::string_view toCardID) override;
    std::map<std::string, std::vector<std::uint8_t>>
    thumbnails(std::span<const std::string> cardIDs) override;
    Result<std::optional<std::vector<std::uint8_t>>, AddressBookError>
    image(std::string_view cardID) override;
    Result<void, std::string> observeChanges(Executor& executor, std::function<void()> onChange) override;
    void stopObserving() override;

    const std::filesystem::path& root() const { return m_options.root; }

private:
    struct CardFile {
        std::filesystem::path path;
        std::string accountID;
    };
    struct Loaded;
    enum class EditStatus { written, unchanged, conflict };
    // Changes a card in memory and says which identity each entry carries;
    // an empty result means every entry keeps the identity it had.
    using Edit = std::function<Result<ApplyResult, AddressBookError>(VCard&, const std::string& cardID)>;

    std::vector<std::string> accountFolders() const;
    std::vector<CardFile> cardFiles() const;
    std::optional<CardFile> locate(std::string_view cardID);
    void rebuildIndex();
    Result<Loaded, AddressBookError> load(std::string_view cardID);
    bool isReadOnly(const std::string& accountID) const;
    Result<void, AddressBookError> editCard(std::string_view cardID, const Edit& edit, const char* what);
    Result<EditStatus, AddressBookError> editOnce(std::string_view cardID, const Edit& edit);
    // Lists and reads every card file on the read threads and makes the
    // index from what it read. With `token`, the journal learns the files
    // from this read, and `*token` is the position after what it found.
    std::vector<Person> readEveryCard(bool details, std::vector<std::uint8_t>* token);
    // The index's number for the account `accountID`, added when new.
    std::uint32_t accountIndex(const std::string& accountID);
    CardFile fileAt(std::string_view cardID, const CardIndex::Place& place) const;
    Result<std::string, AddressBookError> createCard(const std::string& accountID, std::string_view bytes,
                                                     const std::string& uid);

    Options m_options;
    std::shared_ptr<KinLog> m_log;

    std::mutex m_mutex;                          // guards everything below
    std::atomic<std::size_t> m_lastCardCount{0}; // card files the last full read found
    CardIndex m_index;                           // card id to its file, as last read
    std::vector<std::string> m_accountIDs;       // the accounts the index's places refer to
    std::unique_ptr<ChangeJournal> m_journal;
    EntryRegistry m_entries;
    std::mutex m_writeMutex; // one change at a time, taken before m_mutex
};

} // namespace kinbook
