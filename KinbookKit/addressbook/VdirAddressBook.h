#pragma once

#include "KinbookKit/Clock.h"
#include "KinbookKit/addressbook/AddressBook.h"
#include "KinbookKit/addressbook/CardBatchReader.h"
#include "KinbookKit/addressbook/CardIndex.h"
#include "KinbookKit/addressbook/CardListing.h"
#include "KinbookKit/addressbook/ChangeJournal.h"
#include "KinbookKit/addressbook/ContactsAppScript.h"
#include "KinbookKit/addressbook/FolderWatcher.h"
#include "KinbookKit/addressbook/ImageScaler.h"
#include "KinbookKit/addressbook/LoadReport.h"
#include "KinbookKit/addressbook/NoteGuard.h"
#include "KinbookKit/addressbook/ScriptHost.h"
#include "KinbookKit/addressbook/ScriptedCards.h"
#include "KinbookKit/addressbook/StoredEntryRegistry.h"
#include "KinbookKit/text/KinLog.h"
#include "KinbookKit/vcard/CardWriter.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
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
class VdirAddressBook final : public AddressBook, public ScriptedCards {
public:
    struct Options {
        std::filesystem::path root;
        // Where the change journal and the remembered entry identities live.
        std::filesystem::path stateFolder;
        // Refuse to change cards that carry a note, as some stores do; the
        // scripting path then makes the change.
        bool notesLocked = false;
        // Runs the scripts for cards with a note (the Contacts application's
        // part): on a vdir, a VdirScriptHost given this address book once it
        // is made. None: every script fails, so a card with a note can't be
        // changed while notes are locked and held notes stay held.
        std::shared_ptr<ScriptHost> scriptHost;
        // The held-notes file; empty: NoteGuard::defaultFile().
        std::filesystem::path heldNotesFile;
        // Told how many held notes were put back after a crash, so that the
        // application can say "Restored after a crash".
        std::function<void(std::size_t)> restoredAfterCrash;
        // Told the cards whose note changed while an older one was held:
        // each kept both (NoteGuard::bothKeptMessage).
        std::function<void(const std::vector<std::string>&)> bothNotesKept;
        // Fault injection for tests: runs after each step of lifting notes
        // and stops right there, as a crash would, when it returns false.
        std::function<bool(NoteGuard::Step)> noteStep;
        // The account (folder name) new cards go to; none: the first by name.
        std::optional<std::string> defaultAccountID;
        // The kind of each account (folder name); accounts not listed are local.
        std::map<std::string, AccountContainer::Kind> accountKinds;
        // Accounts the user marked read-only, besides folders that are not writable.
        std::set<std::string> readOnlyAccounts;
        // Display name of the account made when asking for access creates the address book.
        std::string newAccountName = "On My Computer";
        unsigned readThreads = 2;
        // Makes the card reader of each read thread; none: CardFileReader,
        // one file at a time.
        CardBatchReaderFactory cardReaders;
        // The time a full read took place and the durations the log shows.
        // Must outlive the address book.
        const Clock* clock = &Clock::system();
        // Makes thumbnails; none: cards have no thumbnails.
        std::shared_ptr<ImageScaler> imageScaler;
        // Follows changes on disk; none: observeChanges fails.
        std::shared_ptr<FolderWatcher> watcher;
        // The "store" log; the default writes to the app log.
        std::shared_ptr<KinLog> log;
        // Fault injection for tests: runs right after a card file was read
        // for a change, before the change is made.
        std::function<void(const std::filesystem::path&)> afterRead;
        // Fault injection for tests: runs after a save wrote its temporary
        // file and before the file is renamed into place.
        std::function<void(const std::filesystem::path&)> beforeCommit;
        // Fault injection for tests: asked before each card file of a batch
        // (deleting, importing or setting photos on several cards) is
        // staged; false fails that card there, as a full disk would.
        std::function<bool(const std::filesystem::path&)> stageCard;
        // Waits out the pause before retrying a save whose card changed on
        // disk; none: the saving thread sleeps through it.
        std::function<void(std::chrono::milliseconds)> pauseBeforeRetry;
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
    Result<void, AddressBookError> writeThroughContactsApp(const SaveOutcome& outcome) override;
    Result<void, AddressBookError> restoreCard(std::string_view cardID, std::string_view expected,
                                               std::string_view bytes) override;
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
    std::size_t restoreHeldNotes() override;
    Result<ChangeObserverID, std::string> observeChanges(Executor& executor,
                                                         std::function<void()> onChange) override;
    void stopObserving(ChangeObserverID observer) override;

    const std::filesystem::path& root() const { return m_options.root; }
    // Whether no card file is there in any layout the store reads: the
    // faces then say where they looked instead of showing an empty list.
    bool holdsNoCards() const;
    // What the last full read passed over (files it could not read, folders
    // it could not list), the UIDs it found on several files, and the
    // temporary files of unfinished writes it removed. Empty before the
    // first full read.
    LoadReport loadReport() const;
    // Removes the temporary files that writes which never finished (a crash,
    // a kill) left in the account folders, once they are old enough that no
    // one is still writing them and while no other Kinbook process holds the
    // book. A full read does this on its way; a start from the snapshot
    // cache, which reads no folder, calls it once the list is shown. Does
    // nothing once it has swept in this process. Returns how many went.
    std::size_t removeLeftoverTemporaries();

    // For the scripting host, which plays the Contacts application.
    // The file every Kinbook process locks (flock) around its changes to
    // this address book, in the state folder's "locks".
    const std::filesystem::path& lockFile() const { return m_lockFile; }

    Result<VCard, AddressBookError> scriptedRead(std::string_view cardID) override;
    Result<void, AddressBookError> scriptedEdit(std::string_view cardID,
                                                const ScriptedCards::Edit& edit) override;
    Result<void, AddressBookError> scriptedRemove(std::string_view cardID) override;

private:
    struct CardFile {
        std::filesystem::path path;
        std::string accountID;
    };
    struct Loaded;
    struct WriteLock;
    // Takes the process's write mutex, then the address book's lock file.
    WriteLock lockForWriting();
    enum class EditStatus { written, unchanged, conflict };
    // Changes a card in memory and says which identity each entry carries;
    // an empty result means every entry keeps the identity it had.
    using Edit = std::function<Result<ApplyResult, AddressBookError>(VCard&, const std::string& cardID)>;

    std::vector<std::string> accountFolders() const;
    std::vector<CardFile> cardFiles() const;
    std::optional<CardFile> locate(std::string_view cardID);
    void rebuildIndex();
    Result<Loaded, AddressBookError> load(std::string_view cardID);
    // readPeople; the ids that are group cards go to `groups` when given.
    std::vector<Person> readCards(std::span<const std::string> cardIDs, std::set<std::string>* groups);
    bool isReadOnly(const std::string& accountID) const;
    Result<void, AddressBookError> editCard(std::string_view cardID, const Edit& edit, const char* what);
    // Edits several cards all or nothing: every card is read, edited and
    // written to a temporary file first; only when all are written are they
    // renamed into place. A failure leaves every card as it was and names
    // the card that failed. Cards the edit leaves unmodified are skipped.
    Result<void, AddressBookError> editCards(std::span<const std::string> cardIDs, const Edit& edit,
                                             const char* what);
    // Whether the test's fault hook lets this file be staged.
    bool mayStage(const std::filesystem::path& file) const;
    Result<EditStatus, AddressBookError> editOnce(std::string_view cardID, const Edit& edit);
    // Lists and reads every card file on the read threads and makes the
    // index from what it read. With `token`, the journal learns the files
    // from this read, and `*token` is the position after what it found.
    std::vector<Person> readEveryCard(bool details, std::vector<std::uint8_t>* token);
    // Logs and counts what a listing passed over, and removes the old
    // temporary files of writes that never finished.
    void reportPassedOver(const CardListing& listing, LoadReport& report);
    std::size_t sweepTemporaries(const CardListing& listing,
                                 const std::vector<const CardListing::Oddity*>& temporaries);
    // The index's number for the account `accountID`, added when new.
    std::uint32_t accountIndex(const std::string& accountID);
    CardFile fileAt(std::string_view cardID, const CardIndex::Place& place) const;
    Result<std::string, AddressBookError> createCard(const std::string& accountID, std::string_view bytes,
                                                     const std::string& uid);
    Result<std::string, AddressBookError> createFromDraft(const ContactDraft& draft);
    Result<void, AddressBookError> deleteLoaded(const std::string& cardID, const Loaded& loaded);
    bool nameLinksToNotedCard(const ContactDraft& draft);
    ContactsAppScript& contactsApp();
    void restoreHeldNotesOnce();
    // The journal, told first of the watcher's notices that came since it
    // was last used. Call with m_mutex held.
    ChangeJournal& journal();
    // Hands a watcher's notice to every observer. Runs on the watch's executor.
    void tellObservers();
    // Ends the watch, when the last observer leaves or the book goes. Call
    // with m_watchMutex held.
    void stopWatching();

    Options m_options;
    std::shared_ptr<KinLog> m_log;

    std::mutex m_mutex;                          // guards everything below
    std::atomic<std::size_t> m_lastCardCount{0}; // card files the last full read found
    CardIndex m_index;                           // card id to its file, as last read
    // Each card's draft as draft() last gave it (or save() last wrote it):
    // what a save tells the user's changes from the card's by.
    std::map<std::string, ContactDraft, std::less<>> m_draftBases;
    std::vector<std::string> m_accountIDs; // the accounts the index's places refer to
    std::unique_ptr<ChangeJournal> m_journal;
    StoredEntryRegistry m_entries;
    std::mutex m_writeMutex; // one change at a time, taken before m_mutex
    // Shared with every Kinbook process writing this address book (see WriteLock).
    std::filesystem::path m_lockFile;

    // Notices wait here until the journal is next used. A notice arrives on
    // the caller's executor (the window's main thread); a scan holds m_mutex
    // for a large address book's whole stat pass, and the notice must not
    // wait for it.
    std::mutex m_noticeMutex; // guards m_notices only; never held while taking m_mutex
    FolderChange m_notices;

    // Everyone who asked to hear of changes. One watch serves them all: it
    // begins with the first observer, on that observer's executor, and ends
    // with the last. An observer on another executor hears through a task
    // posted there, which `live` stops once it has left.
    struct ChangeObserver {
        Executor* executor;
        std::shared_ptr<const std::function<void()>> onChange;
        std::shared_ptr<std::atomic<bool>> live;
    };
    // Taken around beginning and ending the watch, so that an observer
    // arriving as the last one leaves finds it either running or stopped.
    // Never taken by a notice, which stopping the watch waits for.
    std::mutex m_watchMutex;
    std::mutex m_observerMutex; // guards the three below; never held while calling an observer
    std::map<ChangeObserverID, ChangeObserver> m_observers;
    ChangeObserverID m_lastObserverID = 0;
    Executor* m_watchExecutor = nullptr; // none: not watching

    mutable std::mutex m_reportMutex; // guards m_loadReport only
    LoadReport m_loadReport;
    std::atomic<bool> m_temporariesSwept{false}; // every old leftover in the folders has been removed

    NoteGuard m_noteGuard;
    std::once_flag m_recoveryOnce;
    std::once_flag m_contactsAppOnce;
    // Last, so that its script queue stops before anything it uses goes.
    std::unique_ptr<ContactsAppScript> m_contactsApp;
};

} // namespace kinbook
