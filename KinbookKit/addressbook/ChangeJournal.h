#pragma once

#include "KinbookKit/addressbook/ChangeSet.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kinbook {

// Kinbook's own change history for one vdir address book: the events "card
// changed" and "card deleted", numbered in order, and the last known state of
// every card file, kept in the state folder so that the history survives
// restarts and is shared by the app and the `kinbook` tool.
//
// A token is opaque bytes naming one journal (a random id drawn when the
// journal file is made) and a position in it. changesSince(token) gives the
// events strictly after that position. It says "start over" when the token
// names another journal, is damaged, or is older than the oldest event still
// kept (the journal keeps the last `maxEvents`).
//
// Kinbook's own writes are journalled as they happen (recordWrite,
// recordDelete, right after the atomic write or the unlink). Writes by other
// programs (a sync run, a text editor) are found by scan(): every card file's
// (inode, size, modification time in ns) is compared with the last known
// state, and a file is read (through `cardIDOf`) only when it differs. A card
// moved to another account (the same file, or the same card id, in another
// folder) is a change, not a delete. currentToken() and changesSince() scan
// first, so a token always covers the files as they were when it was handed
// out.
//
// A scan of every file costs a stat per card, too much after every notice of
// a large address book. While a folder watcher names each card file that
// changes (followNamedChanges, filesChanged), a scan stats only the files
// named since the last one; a scan of everything is made when the watch
// starts (covering the time before it), when the watcher can't say what
// changed (unnamedChanges: its queue overflowed, an account folder came or
// went) and whenever nothing is being followed. A full read of the address
// book, which lists and reads every file anyway, can stand in for a scan of
// everything (tokenAfterSurvey), so taking a token with a read costs no
// second pass over the files.
//
// Persistence: one append-only file per vdir root,
// "<state folder>/journal-<hash of the root's absolute path>.changes", each
// record framed with its length and a CRC-32. It is fdatasync'ed after each
// append, so every position a token names is on disk before the token is
// handed out. A damaged file (a write torn by a crash, a stray edit) is never
// trusted in part: the journal starts over under a new id, and every older
// token then means "start over". The file is rewritten (temporary file and
// rename) when dropped events make up most of it.
//
// Failures never reach the caller: a state folder that cannot be made or
// written leaves the journal working in memory for this process (lastError()
// says why), and the next process starts a new journal.
//
// Threads: not thread-safe; one owner (the address book's serial executor)
// calls every member. Processes: every member takes an exclusive flock on
// "<journal file>.lock" and first reads what another process appended, so the
// app and the `kinbook` tool can share one journal.
class ChangeJournal {
public:
    // The id of the card in a file, read from its contents; none when the file
    // is gone or holds no card. Called during scan() only for files whose state
    // differs from the last known one.
    using CardIDReader = std::function<std::optional<std::string>(const std::filesystem::path&)>;

    struct Options {
        std::size_t maxEvents = 10'000; // older events are dropped; their tokens start over
        // Threads that stat a large tree's files in a scan of everything.
        unsigned scanThreads = 1;
    };

    // The journal of `vdirRoot`, kept in `stateFolder` (made when missing).
    // Reads the journal file; nothing is scanned yet.
    ChangeJournal(std::filesystem::path stateFolder, std::filesystem::path vdirRoot, CardIDReader cardIDOf,
                  Options options);
    ChangeJournal(std::filesystem::path stateFolder, std::filesystem::path vdirRoot, CardIDReader cardIDOf);
    ~ChangeJournal();

    ChangeJournal(const ChangeJournal&) = delete;
    ChangeJournal& operator=(const ChangeJournal&) = delete;

    // $XDG_STATE_HOME/kinbook, else ~/.local/state/kinbook.
    static std::filesystem::path defaultStateFolder();

    // Walks the root's account folders (not those whose name starts with a
    // dot) and their ".vcf" files (not hidden ones), journals every difference
    // from the last known state, and returns how many events it journalled.
    // The first scan of a new journal only learns the files: no token of that
    // journal can be older than it.
    std::size_t scan();

    // Kinbook wrote `file` (in the account folder `accountID`) for `cardID`.
    // Its new state is taken from the file as it is now, so the watcher's
    // event for this write finds nothing new.
    void recordWrite(const std::string& cardID, const std::string& accountID,
                     const std::filesystem::path& file);

    // Kinbook deleted `file`, which held `cardID`. The card is journalled as
    // deleted, or as changed when another known file still holds its id.
    void recordDelete(const std::string& cardID, const std::filesystem::path& file);

    // Scans, then names the position after the last event.
    std::vector<std::uint8_t> currentToken();

    // The files (account folder name, file name) the journal last saw
    // holding each of `cardIDs`, from what it knows without reading any:
    // a start from the cache reads just the changed cards' files through
    // this, where finding them otherwise means reading every card. A card
    // the journal knows no file of is left out.
    std::map<std::string, std::vector<std::pair<std::string, std::string>>>
    filesOf(const std::set<std::string>& cardIDs) const;

    // Scans, then collects the events after `token` in order, with the
    // current token; dropEverything when the token cannot be served.
    ChangeSet changesSince(const std::vector<std::uint8_t>& token);

    // A watcher now names every card file that changes (`on`), or stopped
    // doing so. Either way the next scan looks at every file; while on, later
    // scans stat only the files named since.
    void followNamedChanges(bool on);

    // Card files (account folder name, file name) the watcher saw written,
    // renamed in or out, deleted or touched. Ignored unless followed.
    void filesChanged(std::span<const std::pair<std::string, std::string>> files);

    // The watcher can't say what changed: the next scan looks at every file.
    void unnamedChanges();

    // What a full read of the address book saw: every card file it listed,
    // with the file's state when it was read and the id of the card in it.
    struct SurveyedFile {
        std::string_view account;
        std::string_view name;
        std::string_view cardID; // empty: the file held no card
        std::uint64_t inode = 0;
        std::uint64_t size = 0;
        std::int64_t mtimeNs = 0;
    };
    struct Survey {
        std::vector<SurveyedFile> files;
        // Account folders that could not be listed: their cards stay as known.
        std::vector<std::string> unreadableAccounts;
    };

    // Changes whenever a scan of every file becomes due. A full read takes
    // it before it lists anything and hands it back with its survey, which
    // then counts as that scan only if no such need arose in between.
    std::uint64_t surveyTicket() const { return m_fullScanRequests; }

    // Learns the files from a full read instead of a scan: journals every
    // difference between the survey and the last known state as scan() does
    // (a file with the known state counts as unchanged; nothing is statted
    // or read here), then names the position after the last event.
    std::vector<std::uint8_t> tokenAfterSurvey(const Survey& survey, std::uint64_t ticket);

    const std::filesystem::path& journalFile() const { return m_journalFile; }
    // Why the journal last fell back to memory or started over; empty if never.
    const std::string& lastError() const { return m_lastError; }

    // The file's state as last known; also the key to a deleted file's card.
    struct FileState {
        std::string cardID; // empty: the file held no card when it was read
        std::uint64_t inode = 0;
        std::uint64_t size = 0;
        std::int64_t mtimeNs = 0;
        std::uint32_t seenInScan = 0;

        bool sameFile(const FileState& other) const {
            return inode == other.inode && size == other.size && mtimeNs == other.mtimeNs;
        }
    };

private:
    enum class EventKind : std::uint8_t { changed = 1, deleted = 2 };
    struct Event {
        std::uint64_t position = 0;
        EventKind kind = EventKind::changed;
        std::string cardID;
    };
    struct StringHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
    };
    using Folder = std::unordered_map<std::string, FileState, StringHash, std::equal_to<>>;
    using Table = std::unordered_map<std::string, Folder, StringHash, std::equal_to<>>;
    class Lock;
    // A file whose state differs from the known one, or that is new.
    struct Candidate {
        std::string account;
        std::string name;
        FileState state;
        bool idKnown = false; // state.cardID is the file's card id already
    };
    // A known file that is no longer there.
    struct Gone {
        std::string account;
        std::string name;
        FileState state;
    };
    // Records encoded for one append, with how many there are.
    struct Pending {
        std::string bytes;
        std::size_t records = 0;
    };

    // The journal file. Each is called with the lock held.
    void startNewJournal(const std::string& why);
    void catchUp();
    bool loadFrom(std::uint64_t offset, std::string& why);
    bool applyRecord(std::string_view payload);
    void append(const Pending& pending);
    void rewriteIfMostlyDropped();
    void rewrite();
    void fallBackToMemory(const std::string& why);
    std::size_t scanLocked();
    // What changed, found by statting every file or only the named ones;
    // false when the root can't be read (nothing is then known to be gone).
    bool collectEverything(std::uint32_t scanNumber, std::vector<Candidate>& candidates,
                           std::vector<Gone>& gone);
    bool collectNamed(std::vector<Candidate>& candidates, std::vector<Gone>& gone);
    void collectGone(std::uint32_t scanNumber, std::vector<Gone>& gone) const;
    // Journals what was collected; returns how many events that made.
    std::size_t journalDifferences(std::vector<Candidate>& candidates, const std::vector<Gone>& gone,
                                   std::uint32_t scanNumber);

    // Changes to the table and the history; each is also encoded into `out`
    // unless it is null (while replaying the file).
    void setFile(const std::string& account, const std::string& name, FileState state, Pending* out);
    void removeFile(const std::string& account, const std::string& name, Pending* out);
    void forgetCardFile(const std::string& cardID);
    void addEvent(EventKind kind, const std::string& cardID, Pending* out);
    // An event for a card that lost a file: deleted, unless a file holds it still.
    void addEventForDisplaced(const std::string& cardID, Pending* out);
    void trimEvents();

    std::vector<std::uint8_t> tokenFor(std::uint64_t position) const;

    std::filesystem::path m_stateFolder;
    std::filesystem::path m_root;
    CardIDReader m_cardIDOf;
    Options m_options;
    std::filesystem::path m_journalFile;

    bool m_persistent = false; // false: the journal lives in this process's memory only
    bool m_headerSeen = false; // while loading: the file's header matched this root
    int m_lockFD = -1;
    int m_journalFD = -1;           // open for reading and appending; -1 in memory
    ino_t m_journalInode = 0;       // to notice another process's rewrite
    std::uint64_t m_readOffset = 0; // how far this process has read the file
    std::uint64_t m_recordCount = 0;
    std::string m_lastError;

    std::uint8_t m_journalID[16] = {};
    std::uint64_t m_position = 0;       // the last event's position
    std::uint64_t m_droppedThrough = 0; // events up to here are no longer kept
    bool m_baselineDone = false;
    std::deque<Event> m_events;
    Table m_files; // account folder name -> file name -> state
    std::unordered_map<std::string, std::uint32_t> m_filesPerCard;
    std::uint32_t m_scanNumber = 0;

    // Following a watcher's names (this process only).
    bool m_followingNames = false;
    bool m_fullScanDue = true;
    std::uint64_t m_fullScanRequests = 0;
    std::set<std::pair<std::string, std::string>> m_namedFiles;
};

} // namespace kinbook
