#include "KinbookKit/addressbook/ChangeJournal.h"

#include "KinbookKit/Executor.h"
#include "KinbookKit/SecureRandom.h"
#include "KinbookKit/addressbook/CardListing.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>
#include <system_error>
#include <utility>

namespace kinbook {

namespace {

// The journal file is a sequence of records, each framed as
//
//     u32 payload length, u32 CRC-32 of the payload, payload
//
// (little-endian). A payload starts with its type:
//
//     'H' header (first record only): magic text, version, journal id (16
//         bytes), position of the last dropped event, the vdir root
//     'S' a file's state: account, file name, card id, inode, size, mtime ns
//     'R' a file is gone: account, file name
//     'E' an event: position, kind, card id
//     'B' the first scan of this journal is done
//
// Texts are u32 length plus bytes, so any file name (spaces, newlines, bytes
// that are not UTF-8) is kept exactly.
constexpr std::string_view journalMagic = "kinbook change journal";
constexpr std::uint8_t journalVersion = 1;
constexpr std::string_view tokenMagic = "KBJ1";
constexpr std::size_t tokenSize = 4 + 16 + 8;
// A length above this is damage, not a record: a card id or a file name is short.
constexpr std::uint32_t largestRecord = 1 << 20;

constexpr std::array<std::uint32_t, 256> makeCRCTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t n = 0; n < 256; ++n) {
        std::uint32_t c = n;
        for (int bit = 0; bit < 8; ++bit) {
            c = (c & 1) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        }
        table[n] = c;
    }
    return table;
}
constexpr auto crcTable = makeCRCTable();

std::uint32_t crc32(std::string_view bytes) {
    std::uint32_t c = 0xFFFFFFFFu;
    for (unsigned char byte : bytes) {
        c = crcTable[(c ^ byte) & 0xFF] ^ (c >> 8);
    }
    return c ^ 0xFFFFFFFFu;
}

void putU32(std::string& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) {
        out.push_back(static_cast<char>((value >> shift) & 0xFF));
    }
}

void putU64(std::string& out, std::uint64_t value) {
    for (int shift = 0; shift < 64; shift += 8) {
        out.push_back(static_cast<char>((value >> shift) & 0xFF));
    }
}

void putText(std::string& out, std::string_view text) {
    putU32(out, static_cast<std::uint32_t>(text.size()));
    out.append(text);
}

// Frames one payload as a record at the end of `out`.
void putRecord(std::string& out, const std::string& payload) {
    putU32(out, static_cast<std::uint32_t>(payload.size()));
    putU32(out, crc32(payload));
    out.append(payload);
}

// Reads fields from a payload; any read past its end makes it !ok().
class FieldReader {
public:
    explicit FieldReader(std::string_view bytes) : m_bytes(bytes) {}

    bool ok() const { return m_ok; }
    bool atEnd() const { return m_bytes.empty(); }

    std::uint64_t u64() { return little(8); }
    std::uint32_t u32() { return static_cast<std::uint32_t>(little(4)); }
    std::uint8_t u8() { return static_cast<std::uint8_t>(little(1)); }
    std::string_view bytes(std::size_t count) {
        if (!m_ok || m_bytes.size() < count) {
            m_ok = false;
            return {};
        }
        std::string_view taken = m_bytes.substr(0, count);
        m_bytes.remove_prefix(count);
        return taken;
    }
    std::string text() { return std::string(bytes(u32())); }

private:
    std::uint64_t little(std::size_t width) {
        std::string_view raw = bytes(width);
        std::uint64_t value = 0;
        for (std::size_t i = raw.size(); i-- > 0;) {
            value = (value << 8) | static_cast<unsigned char>(raw[i]);
        }
        return value;
    }

    std::string_view m_bytes;
    bool m_ok = true;
};

// FNV-1a, spelled out because the name of a file on disk must not change
// with the standard library's choice of hash.
std::uint64_t stableHash(std::string_view text) {
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    for (unsigned char byte : text) {
        hash = (hash ^ byte) * 0x100000001b3ULL;
    }
    return hash;
}

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

// The file from `offset` to its end; none on a read error.
std::optional<std::string> readFrom(int fd, std::uint64_t offset) {
    std::string bytes;
    char buffer[1 << 16];
    auto at = static_cast<off_t>(offset);
    for (;;) {
        ssize_t got = ::pread(fd, buffer, sizeof buffer, at);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return std::nullopt;
        }
        if (got == 0) {
            return bytes;
        }
        bytes.append(buffer, static_cast<std::size_t>(got));
        at += got;
    }
}

std::string errnoText(const std::string& what) {
    return fmt::format("{}: {}", what, std::strerror(errno));
}

// The state of a regular file (symbolic links followed); none for anything
// else or a file that is gone. statx asked for only these fields is markedly
// cheaper than stat, and a scan is little more than one call per card.
std::optional<ChangeJournal::FileState> fileStateAt(int folderFD, const char* name) {
    struct statx info {};
    if (::statx(folderFD, name, 0, STATX_TYPE | STATX_INO | STATX_SIZE | STATX_MTIME, &info) != 0 ||
        !S_ISREG(info.stx_mode)) {
        return std::nullopt;
    }
    ChangeJournal::FileState state;
    state.inode = info.stx_ino;
    state.size = info.stx_size;
    state.mtimeNs = info.stx_mtime.tv_sec * 1'000'000'000 + info.stx_mtime.tv_nsec;
    return state;
}

} // namespace

// Holds the journal's process-wide lock for one public call.
class ChangeJournal::Lock {
public:
    explicit Lock(int fd) : m_fd(fd) {
        while (m_fd >= 0 && ::flock(m_fd, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    ~Lock() {
        if (m_fd >= 0) {
            ::flock(m_fd, LOCK_UN);
        }
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    int m_fd;
};

ChangeJournal::ChangeJournal(std::filesystem::path stateFolder, std::filesystem::path vdirRoot,
                             CardIDReader cardIDOf)
    : ChangeJournal(std::move(stateFolder), std::move(vdirRoot), std::move(cardIDOf), Options{}) {}

ChangeJournal::ChangeJournal(std::filesystem::path stateFolder, std::filesystem::path vdirRoot,
                             CardIDReader cardIDOf, Options options)
    : m_stateFolder(std::move(stateFolder)), m_cardIDOf(std::move(cardIDOf)), m_options(options) {
    std::error_code error;
    m_root = std::filesystem::absolute(vdirRoot, error).lexically_normal();
    if (error) {
        m_root = vdirRoot.lexically_normal();
    }
    m_journalFile = m_stateFolder / fmt::format("journal-{:016x}.changes", stableHash(m_root.native()));

    std::filesystem::create_directories(m_stateFolder, error);
    std::filesystem::path lockFile = m_journalFile;
    lockFile += ".lock";
    m_lockFD = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (m_lockFD < 0) {
        m_lastError = errnoText("cannot open the journal's lock file");
        startNewJournal({});
        return;
    }
    Lock lock(m_lockFD);
    m_journalFD = ::open(m_journalFile.c_str(), O_RDWR | O_APPEND | O_CLOEXEC);
    if (m_journalFD < 0) {
        m_persistent = true;
        startNewJournal(errno == ENOENT ? std::string() : errnoText("cannot open the journal"));
        return;
    }
    struct stat info {};
    m_persistent = true;
    if (::fstat(m_journalFD, &info) != 0) {
        startNewJournal(errnoText("cannot read the journal"));
        return;
    }
    m_journalInode = info.st_ino;
    std::string why;
    if (!loadFrom(0, why)) {
        startNewJournal(why);
        return;
    }
    trimEvents();
    rewriteIfMostlyDropped();
}

ChangeJournal::~ChangeJournal() {
    if (m_journalFD >= 0) {
        ::close(m_journalFD);
    }
    if (m_lockFD >= 0) {
        ::close(m_lockFD);
    }
}

std::filesystem::path ChangeJournal::defaultStateFolder() {
    const char* state = std::getenv("XDG_STATE_HOME");
    if (state != nullptr && state[0] == '/') {
        return std::filesystem::path(state) / "kinbook";
    }
    const char* home = std::getenv("HOME");
    return std::filesystem::path(home != nullptr ? home : "/tmp") / ".local" / "state" / "kinbook";
}

// MARK: - The journal file

void ChangeJournal::startNewJournal(const std::string& why) {
    if (!why.empty()) {
        m_lastError = why;
    }
    for (std::size_t i = 0; i < 2; ++i) {
        std::uint64_t random = secureRandom64();
        std::memcpy(m_journalID + 8 * i, &random, 8);
    }
    m_position = 0;
    m_droppedThrough = 0;
    m_baselineDone = false;
    m_events.clear();
    m_files.clear();
    m_filesPerCard.clear();
    m_headerSeen = true;
    if (m_persistent) {
        rewrite();
    }
}

bool ChangeJournal::loadFrom(std::uint64_t offset, std::string& why) {
    std::optional<std::string> bytes = readFrom(m_journalFD, offset);
    if (!bytes) {
        why = errnoText("cannot read the journal");
        return false;
    }
    if (offset == 0) {
        m_recordCount = 0;
        m_headerSeen = false;
    }
    std::string_view rest = *bytes;
    while (!rest.empty()) {
        FieldReader frame(rest);
        std::uint32_t length = frame.u32();
        std::uint32_t checksum = frame.u32();
        std::string_view payload = frame.bytes(length);
        if (!frame.ok() || length == 0 || length > largestRecord || crc32(payload) != checksum) {
            why = "the journal was damaged (a torn or altered record); starting a new one";
            return false;
        }
        if (!applyRecord(payload)) {
            why = "the journal holds a record it cannot use; starting a new one";
            return false;
        }
        if (!m_headerSeen) {
            why = "the journal belongs to another address book; starting a new one";
            return false;
        }
        rest.remove_prefix(8 + length);
        ++m_recordCount;
    }
    if (!m_headerSeen) {
        why = "the journal is empty; starting a new one";
        return false;
    }
    m_readOffset = offset + bytes->size();
    return true;
}

bool ChangeJournal::applyRecord(std::string_view payload) {
    FieldReader in(payload);
    char type = static_cast<char>(in.u8());
    if (type == 'H') {
        if (m_headerSeen) {
            return false;
        }
        std::string magic = in.text();
        std::uint8_t version = in.u8();
        std::string_view id = in.bytes(16);
        std::uint64_t droppedThrough = in.u64();
        std::string root = in.text();
        if (!in.ok() || !in.atEnd() || magic != journalMagic || version != journalVersion) {
            return false;
        }
        if (root != m_root.native()) {
            return true; // m_headerSeen stays false: the caller starts over
        }
        std::memcpy(m_journalID, id.data(), 16);
        m_droppedThrough = m_position = droppedThrough;
        m_baselineDone = false;
        m_events.clear();
        m_files.clear();
        m_filesPerCard.clear();
        m_headerSeen = true;
        return true;
    }
    if (!m_headerSeen) {
        return false;
    }
    switch (type) {
    case 'S': {
        std::string account = in.text();
        std::string name = in.text();
        FileState state;
        state.cardID = in.text();
        state.inode = in.u64();
        state.size = in.u64();
        state.mtimeNs = static_cast<std::int64_t>(in.u64());
        if (!in.ok() || !in.atEnd()) {
            return false;
        }
        setFile(account, name, std::move(state), nullptr);
        return true;
    }
    case 'R': {
        std::string account = in.text();
        std::string name = in.text();
        if (!in.ok() || !in.atEnd()) {
            return false;
        }
        removeFile(account, name, nullptr);
        return true;
    }
    case 'E': {
        std::uint64_t position = in.u64();
        std::uint8_t kind = in.u8();
        std::string cardID = in.text();
        if (!in.ok() || !in.atEnd() || position != m_position + 1 ||
            (kind != static_cast<std::uint8_t>(EventKind::changed) &&
             kind != static_cast<std::uint8_t>(EventKind::deleted))) {
            return false;
        }
        addEvent(static_cast<EventKind>(kind), cardID, nullptr);
        return true;
    }
    case 'B':
        if (!in.atEnd()) {
            return false;
        }
        m_baselineDone = true;
        return true;
    default:
        return false;
    }
}

void ChangeJournal::catchUp() {
    if (!m_persistent) {
        return;
    }
    struct stat info {};
    if (::stat(m_journalFile.c_str(), &info) != 0) {
        // Removed by another process that could not write it: what this
        // process knows may be ahead of what others will see.
        ::close(m_journalFD);
        m_journalFD = -1;
        startNewJournal("the journal file disappeared; starting a new one");
        return;
    }
    std::string why;
    if (info.st_ino != m_journalInode) {
        // Another process rewrote it: read it anew.
        int fd = ::open(m_journalFile.c_str(), O_RDWR | O_APPEND | O_CLOEXEC);
        if (fd < 0) {
            fallBackToMemory(errnoText("cannot open the journal"));
            return;
        }
        ::close(m_journalFD);
        m_journalFD = fd;
        m_journalInode = info.st_ino;
        if (!loadFrom(0, why)) {
            startNewJournal(why);
            return;
        }
    } else if (static_cast<std::uint64_t>(info.st_size) > m_readOffset) {
        if (!loadFrom(m_readOffset, why)) {
            startNewJournal(why);
            return;
        }
    } else if (static_cast<std::uint64_t>(info.st_size) < m_readOffset) {
        startNewJournal("the journal was cut short; starting a new one");
        return;
    }
    trimEvents();
}

void ChangeJournal::append(const Pending& pending) {
    m_recordCount += pending.records;
    if (!m_persistent || pending.bytes.empty()) {
        return;
    }
    if (!writeAll(m_journalFD, pending.bytes) || ::fdatasync(m_journalFD) != 0) {
        fallBackToMemory(errnoText("cannot write the journal"));
        return;
    }
    m_readOffset += pending.bytes.size();
}

void ChangeJournal::rewriteIfMostlyDropped() {
    std::size_t live = 2 + m_events.size();
    for (const auto& [account, folder] : m_files) {
        live += folder.size();
    }
    if (m_persistent && m_recordCount > 2 * live + 1024) {
        rewrite();
    }
}

void ChangeJournal::rewrite() {
    std::string bytes;
    std::string payload;
    payload.push_back('H');
    putText(payload, journalMagic);
    payload.push_back(static_cast<char>(journalVersion));
    payload.append(reinterpret_cast<const char*>(m_journalID), 16);
    putU64(payload, m_droppedThrough);
    putText(payload, m_root.native());
    putRecord(bytes, payload);
    std::uint64_t records = 1;
    for (const auto& [account, folder] : m_files) {
        for (const auto& [name, state] : folder) {
            payload.clear();
            payload.push_back('S');
            putText(payload, account);
            putText(payload, name);
            putText(payload, state.cardID);
            putU64(payload, state.inode);
            putU64(payload, state.size);
            putU64(payload, static_cast<std::uint64_t>(state.mtimeNs));
            putRecord(bytes, payload);
            ++records;
        }
    }
    for (const Event& event : m_events) {
        payload.clear();
        payload.push_back('E');
        putU64(payload, event.position);
        payload.push_back(static_cast<char>(event.kind));
        putText(payload, event.cardID);
        putRecord(bytes, payload);
        ++records;
    }
    if (m_baselineDone) {
        putRecord(bytes, "B");
        ++records;
    }

    std::string temporary = m_journalFile.native() + ".XXXXXX";
    int fd = ::mkostemp(temporary.data(), O_APPEND | O_CLOEXEC);
    if (fd < 0) {
        fallBackToMemory(errnoText("cannot write the journal"));
        return;
    }
    struct stat info {};
    if (!writeAll(fd, bytes) || ::fdatasync(fd) != 0 || ::fstat(fd, &info) != 0 ||
        ::rename(temporary.c_str(), m_journalFile.c_str()) != 0) {
        std::string why = errnoText("cannot write the journal");
        ::close(fd);
        ::unlink(temporary.c_str());
        fallBackToMemory(why);
        return;
    }
    int folder = ::open(m_stateFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        ::fsync(folder);
        ::close(folder);
    }
    if (m_journalFD >= 0) {
        ::close(m_journalFD);
    }
    m_journalFD = fd;
    m_journalInode = info.st_ino;
    m_readOffset = bytes.size();
    m_recordCount = records;
}

void ChangeJournal::fallBackToMemory(const std::string& why) {
    m_lastError = why;
    if (m_journalFD >= 0) {
        ::close(m_journalFD);
        m_journalFD = -1;
    }
    // What is on disk may now lack events this process hands out tokens for;
    // removing it makes the next process start a new journal instead of
    // serving those tokens wrongly.
    if (m_persistent) {
        ::unlink(m_journalFile.c_str());
    }
    m_persistent = false;
}

// MARK: - The table and the history

void ChangeJournal::setFile(const std::string& account, const std::string& name, FileState state,
                            Pending* out) {
    if (out != nullptr) {
        std::string payload;
        payload.push_back('S');
        putText(payload, account);
        putText(payload, name);
        putText(payload, state.cardID);
        putU64(payload, state.inode);
        putU64(payload, state.size);
        putU64(payload, static_cast<std::uint64_t>(state.mtimeNs));
        putRecord(out->bytes, payload);
        ++out->records;
    }
    Folder& folder = m_files[account];
    auto [entry, inserted] = folder.try_emplace(name);
    if (!inserted && !entry->second.cardID.empty()) {
        forgetCardFile(entry->second.cardID);
    }
    if (!state.cardID.empty()) {
        ++m_filesPerCard[state.cardID];
    }
    entry->second = std::move(state);
}

void ChangeJournal::removeFile(const std::string& account, const std::string& name, Pending* out) {
    auto folder = m_files.find(account);
    if (folder == m_files.end()) {
        return;
    }
    auto entry = folder->second.find(name);
    if (entry == folder->second.end()) {
        return;
    }
    if (!entry->second.cardID.empty()) {
        forgetCardFile(entry->second.cardID);
    }
    folder->second.erase(entry);
    if (folder->second.empty()) {
        m_files.erase(folder);
    }
    if (out != nullptr) {
        std::string payload;
        payload.push_back('R');
        putText(payload, account);
        putText(payload, name);
        putRecord(out->bytes, payload);
        ++out->records;
    }
}

void ChangeJournal::forgetCardFile(const std::string& cardID) {
    auto count = m_filesPerCard.find(cardID);
    if (count != m_filesPerCard.end() && --count->second == 0) {
        m_filesPerCard.erase(count);
    }
}

void ChangeJournal::addEvent(EventKind kind, const std::string& cardID, Pending* out) {
    Event event{++m_position, kind, cardID};
    if (out != nullptr) {
        std::string payload;
        payload.push_back('E');
        putU64(payload, event.position);
        payload.push_back(static_cast<char>(kind));
        putText(payload, cardID);
        putRecord(out->bytes, payload);
        ++out->records;
    }
    m_events.push_back(std::move(event));
}

void ChangeJournal::addEventForDisplaced(const std::string& cardID, Pending* out) {
    addEvent(m_filesPerCard.count(cardID) != 0 ? EventKind::changed : EventKind::deleted, cardID, out);
}

void ChangeJournal::trimEvents() {
    while (m_events.size() > m_options.maxEvents) {
        m_droppedThrough = m_events.front().position;
        m_events.pop_front();
    }
}

// MARK: - Public operations

std::size_t ChangeJournal::scan() {
    Lock lock(m_lockFD);
    catchUp();
    return scanLocked();
}

std::size_t ChangeJournal::scanLocked() {
    std::vector<Candidate> candidates;
    std::vector<Gone> gone;
    if (!m_baselineDone || !m_followingNames || m_fullScanDue) {
        const std::uint32_t scanNumber = m_scanNumber + 1;
        if (!collectEverything(scanNumber, candidates, gone)) {
            // An unmounted or missing root says nothing about the cards:
            // forgetting them all here would journal every card as deleted.
            return 0;
        }
        m_scanNumber = scanNumber;
        // Whatever was named so far happened before this scan began.
        m_fullScanDue = false;
        m_namedFiles.clear();
    } else if (!collectNamed(candidates, gone)) {
        return 0;
    }
    if (candidates.empty() && gone.empty() && m_baselineDone) {
        return 0;
    }
    return journalDifferences(candidates, gone, m_scanNumber);
}

bool ChangeJournal::collectEverything(std::uint32_t scanNumber, std::vector<Candidate>& candidates,
                                      std::vector<Gone>& gone) {
    std::optional<CardListing> listing = CardListing::list(m_root, m_options.scanThreads);
    if (!listing) {
        return false;
    }
    // The known files of each account, looked up (never changed) by every
    // stat thread at once.
    std::vector<Folder*> known(listing->accounts().size(), nullptr);
    for (std::size_t index = 0; index < known.size(); ++index) {
        const CardListing::Account& account = listing->accounts()[index];
        auto folder = m_files.find(account.name);
        if (folder == m_files.end()) {
            continue;
        }
        known[index] = &folder->second;
        if (account.unreadable) {
            // A folder we may not read still holds its cards.
            for (auto& [name, state] : folder->second) {
                state.seenInScan = scanNumber;
            }
        }
    }

    // One stat per file, relative to its open folder. Each thread marks the
    // known states it meets as seen (every file is one thread's alone) and
    // keeps the files that differ.
    const auto& files = listing->files();
    auto statRange = [&](std::size_t begin, std::size_t end, std::vector<Candidate>& found) {
        for (std::size_t i = begin; i < end; ++i) {
            const CardListing::File& file = files[i];
            std::optional<FileState> state = fileStateAt(listing->folderFD(file), listing->cName(file));
            if (!state) {
                continue;
            }
            if (Folder* folder = known[file.account]) {
                auto entry = folder->find(listing->name(file));
                if (entry != folder->end()) {
                    entry->second.seenInScan = scanNumber;
                    if (entry->second.sameFile(*state)) {
                        continue;
                    }
                }
            }
            found.push_back(
                {listing->accountName(file), std::string(listing->name(file)), std::move(*state), false});
        }
    };
    // Threads pay for themselves only on a large tree.
    constexpr std::size_t kFilesPerThread = 1024;
    const std::size_t threads =
        std::clamp<std::size_t>(files.size() / kFilesPerThread, 1, std::max(1u, m_options.scanThreads));
    if (threads == 1) {
        statRange(0, files.size(), candidates);
    } else {
        std::vector<std::vector<Candidate>> found(threads);
        const std::size_t share = (files.size() + threads - 1) / threads;
        runInParallel(static_cast<unsigned>(threads), [&](unsigned t) {
            statRange(std::min(files.size(), t * share), std::min(files.size(), (t + 1) * share),
                      t == 0 ? candidates : found[t]);
        });
        for (std::size_t t = 1; t < threads; ++t) {
            std::move(found[t].begin(), found[t].end(), std::back_inserter(candidates));
        }
    }
    collectGone(scanNumber, gone);
    return true;
}

bool ChangeJournal::collectNamed(std::vector<Candidate>& candidates, std::vector<Gone>& gone) {
    if (m_namedFiles.empty()) {
        return true;
    }
    const int rootFD = ::open(m_root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (rootFD < 0) {
        return false;
    }
    std::set<std::pair<std::string, std::string>> named;
    named.swap(m_namedFiles);
    std::string relative;
    for (const auto& [account, name] : named) {
        if (account.empty() || account.front() == '.' || account.find('/') != std::string::npos ||
            !CardListing::isCardFileName(name) || name.find('/') != std::string::npos) {
            continue;
        }
        relative.assign(account).append("/").append(name);
        std::optional<FileState> state = fileStateAt(rootFD, relative.c_str());
        const FileState* knownState = nullptr;
        if (auto folder = m_files.find(account); folder != m_files.end()) {
            if (auto entry = folder->second.find(name); entry != folder->second.end()) {
                knownState = &entry->second;
            }
        }
        if (!state) {
            if (knownState != nullptr) {
                gone.push_back({account, name, *knownState});
            }
        } else if (knownState == nullptr || !knownState->sameFile(*state)) {
            candidates.push_back({account, name, std::move(*state), false});
        }
    }
    ::close(rootFD);
    return true;
}

void ChangeJournal::collectGone(std::uint32_t scanNumber, std::vector<Gone>& gone) const {
    for (const auto& [account, folder] : m_files) {
        for (const auto& [name, state] : folder) {
            if (state.seenInScan != scanNumber) {
                gone.push_back({account, name, state});
            }
        }
    }
}

std::size_t ChangeJournal::journalDifferences(std::vector<Candidate>& candidates,
                                              const std::vector<Gone>& gone, std::uint32_t scanNumber) {
    std::unordered_map<std::uint64_t, std::size_t> goneByInode;
    for (std::size_t i = 0; i < gone.size(); ++i) {
        goneByInode.emplace(gone[i].state.inode, i);
    }
    Pending out;
    std::set<std::string> changed;
    std::set<std::string> displaced; // ids that lost a file
    for (Candidate& candidate : candidates) {
        std::optional<std::string> cardID;
        if (candidate.idKnown) {
            cardID = candidate.state.cardID;
        }
        Folder& folder = m_files[candidate.account];
        auto known = folder.find(candidate.name);
        if (!cardID && known == folder.end()) {
            // A file renamed into another account keeps its inode, size and
            // time: the same card, with no need to read it.
            auto moved = goneByInode.find(candidate.state.inode);
            if (moved != goneByInode.end() && gone[moved->second].state.sameFile(candidate.state)) {
                cardID = gone[moved->second].state.cardID;
            }
        }
        if (!cardID) {
            cardID = m_cardIDOf(m_root / candidate.account / candidate.name);
        }
        candidate.state.cardID = cardID.value_or(std::string());
        candidate.state.seenInScan = scanNumber;
        if (known != folder.end() && !known->second.cardID.empty() &&
            known->second.cardID != candidate.state.cardID) {
            displaced.insert(known->second.cardID);
        }
        if (!candidate.state.cardID.empty()) {
            changed.insert(candidate.state.cardID);
        }
        setFile(candidate.account, candidate.name, std::move(candidate.state), &out);
    }
    for (const Gone& file : gone) {
        removeFile(file.account, file.name, &out);
        if (!file.state.cardID.empty()) {
            displaced.insert(file.state.cardID);
        }
    }

    std::size_t eventCount = 0;
    if (!m_baselineDone) {
        // No token of this journal can predate its first scan, so what that
        // scan finds is where the history begins, not a change.
        m_baselineDone = true;
        putRecord(out.bytes, "B");
        ++out.records;
    } else {
        for (const std::string& cardID : changed) {
            addEvent(EventKind::changed, cardID, &out);
            ++eventCount;
        }
        for (const std::string& cardID : displaced) {
            if (changed.count(cardID) == 0) {
                addEventForDisplaced(cardID, &out);
                ++eventCount;
            }
        }
    }
    append(out);
    trimEvents();
    rewriteIfMostlyDropped();
    return eventCount;
}

void ChangeJournal::followNamedChanges(bool on) {
    m_followingNames = on;
    m_fullScanDue = true;
    ++m_fullScanRequests;
    m_namedFiles.clear();
}

void ChangeJournal::filesChanged(std::span<const std::pair<std::string, std::string>> files) {
    if (m_followingNames) {
        m_namedFiles.insert(files.begin(), files.end());
    }
}

void ChangeJournal::unnamedChanges() {
    m_fullScanDue = true;
    ++m_fullScanRequests;
    m_namedFiles.clear();
}

std::vector<std::uint8_t> ChangeJournal::tokenAfterSurvey(const Survey& survey, std::uint64_t ticket) {
    Lock lock(m_lockFD);
    catchUp();
    const std::uint32_t scanNumber = ++m_scanNumber;
    for (const std::string& account : survey.unreadableAccounts) {
        if (auto folder = m_files.find(account); folder != m_files.end()) {
            for (auto& [name, state] : folder->second) {
                state.seenInScan = scanNumber;
            }
        }
    }
    std::vector<Candidate> candidates;
    // A read lists one account after another: its folder is looked up once.
    std::optional<std::string_view> lastAccount;
    Folder* folder = nullptr;
    for (const SurveyedFile& file : survey.files) {
        FileState state;
        state.inode = file.inode;
        state.size = file.size;
        state.mtimeNs = file.mtimeNs;
        if (file.account != lastAccount) {
            auto known = m_files.find(file.account);
            folder = known == m_files.end() ? nullptr : &known->second;
            lastAccount = file.account;
        }
        if (folder != nullptr) {
            if (auto entry = folder->find(file.name); entry != folder->end()) {
                entry->second.seenInScan = scanNumber;
                if (entry->second.sameFile(state)) {
                    continue;
                }
            }
        }
        state.cardID = std::string(file.cardID);
        candidates.push_back({std::string(file.account), std::string(file.name), std::move(state), true});
    }
    std::vector<Gone> gone;
    collectGone(scanNumber, gone);
    if (ticket == m_fullScanRequests) {
        // The read began after the last need for a scan of everything arose,
        // and it saw everything. Names noted meanwhile stay: a file named
        // after it was read may have changed since.
        m_fullScanDue = false;
    }
    if (!candidates.empty() || !gone.empty() || !m_baselineDone) {
        journalDifferences(candidates, gone, scanNumber);
    }
    return tokenFor(m_position);
}

void ChangeJournal::recordWrite(const std::string& cardID, const std::string& accountID,
                                const std::filesystem::path& file) {
    Lock lock(m_lockFD);
    catchUp();
    Pending out;
    // A file already gone again is left to the next scan, which finds the
    // known entry missing and journals the delete.
    if (std::optional<FileState> found = fileStateAt(AT_FDCWD, file.c_str())) {
        std::string name = file.filename().native();
        FileState state = std::move(*found);
        state.cardID = cardID;
        state.seenInScan = m_scanNumber;
        // A card written under a new id (a UID given to a card that had
        // none) leaves its old id behind.
        std::optional<std::string> oldID;
        auto folder = m_files.find(accountID);
        if (folder != m_files.end()) {
            auto known = folder->second.find(name);
            if (known != folder->second.end() && !known->second.cardID.empty() &&
                known->second.cardID != cardID) {
                oldID = known->second.cardID;
            }
        }
        setFile(accountID, name, std::move(state), &out);
        if (oldID) {
            addEventForDisplaced(*oldID, &out);
        }
    }
    addEvent(EventKind::changed, cardID, &out);
    append(out);
    trimEvents();
    rewriteIfMostlyDropped();
}

void ChangeJournal::recordDelete(const std::string& cardID, const std::filesystem::path& file) {
    Lock lock(m_lockFD);
    catchUp();
    Pending out;
    std::string account = file.parent_path().filename().native();
    std::string name = file.filename().native();
    std::optional<std::string> otherID;
    auto folder = m_files.find(account);
    if (folder != m_files.end()) {
        auto known = folder->second.find(name);
        if (known != folder->second.end()) {
            if (!known->second.cardID.empty() && known->second.cardID != cardID) {
                otherID = known->second.cardID;
            }
            removeFile(account, name, &out);
        }
    }
    addEventForDisplaced(cardID, &out);
    if (otherID) {
        addEventForDisplaced(*otherID, &out);
    }
    append(out);
    trimEvents();
    rewriteIfMostlyDropped();
}

std::vector<std::uint8_t> ChangeJournal::tokenFor(std::uint64_t position) const {
    std::vector<std::uint8_t> token;
    token.reserve(tokenSize);
    for (char letter : tokenMagic) {
        token.push_back(static_cast<std::uint8_t>(letter));
    }
    for (std::uint8_t byte : m_journalID) {
        token.push_back(byte);
    }
    for (int shift = 56; shift >= 0; shift -= 8) {
        token.push_back(static_cast<std::uint8_t>((position >> shift) & 0xFF));
    }
    return token;
}

std::map<std::string, std::vector<std::pair<std::string, std::string>>>
ChangeJournal::filesOf(const std::set<std::string>& cardIDs) const {
    std::map<std::string, std::vector<std::pair<std::string, std::string>>> files;
    if (cardIDs.empty()) {
        return files;
    }
    for (const auto& [account, folder] : m_files) {
        for (const auto& [name, state] : folder) {
            if (!state.cardID.empty() && cardIDs.contains(state.cardID)) {
                files[state.cardID].emplace_back(account, name);
            }
        }
    }
    return files;
}

std::vector<std::uint8_t> ChangeJournal::currentToken() {
    Lock lock(m_lockFD);
    catchUp();
    scanLocked();
    return tokenFor(m_position);
}

ChangeSet ChangeJournal::changesSince(const std::vector<std::uint8_t>& token) {
    Lock lock(m_lockFD);
    catchUp();
    ChangeSet changes;
    std::uint64_t position = 0;
    if (token.size() != tokenSize || !std::equal(tokenMagic.begin(), tokenMagic.end(), token.begin()) ||
        !std::equal(m_journalID, m_journalID + 16, token.begin() + 4)) {
        changes.visitDropEverything();
        return changes;
    }
    for (std::size_t i = 4 + 16; i < tokenSize; ++i) {
        position = (position << 8) | token[i];
    }
    // A position this journal never reached was handed out by a journal with
    // the same id that lost its tail: nothing after it can be trusted.
    if (position > m_position) {
        changes.visitDropEverything();
        return changes;
    }
    scanLocked();
    if (position < m_droppedThrough) {
        changes.visitDropEverything();
        return changes;
    }
    for (auto event = m_events.begin() + static_cast<std::ptrdiff_t>(position - m_droppedThrough);
         event != m_events.end(); ++event) {
        if (event->kind == EventKind::deleted) {
            changes.visitDelete(event->cardID);
        } else {
            changes.visitUpdate(event->cardID);
        }
    }
    changes.setToken(tokenFor(m_position));
    return changes;
}

} // namespace kinbook
