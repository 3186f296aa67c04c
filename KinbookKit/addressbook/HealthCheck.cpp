#include "KinbookKit/addressbook/HealthCheck.h"

#include "KinbookKit/addressbook/CardBatchReader.h"
#include "KinbookKit/addressbook/CardListing.h"
#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/text/CodePoints.h"
#include "KinbookKit/vcard/CardReader.h"
#include "KinbookKit/vcard/VCard.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>

namespace kinbook {
namespace {

using Kind = HealthFinding::Kind;

bool isUTF8(std::string_view bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        if (static_cast<unsigned char>(bytes[at]) < 0x80) {
            ++at;
            continue;
        }
        const CodePoint point = decodeAt(bytes, at);
        if (point.value < 0) {
            return false;
        }
        at += point.length;
    }
    return true;
}

// Opens a card file for reading without moving its access time where the
// system lets us (only the owner may ask for that).
int openQuietly(int folderFD, const char* name) {
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    const int fd = ::openat(folderFD, name, kFlags | O_NOATIME);
    if (fd < 0 && errno == EPERM) {
        return ::openat(folderFD, name, kFlags);
    }
    return fd;
}

// Reads a whole regular file of at most the size cap; a finding otherwise.
std::optional<HealthFinding> readCardFile(int folderFD, const char* name, std::string& bytes) {
    const int fd = openQuietly(folderFD, name);
    if (fd < 0) {
        if (errno == ENOENT) {
            return HealthFinding{Kind::unreadableFile, {}, "removed while it was being checked"};
        }
        return HealthFinding{Kind::unreadableFile, {}, std::strerror(errno)};
    }
    struct stat info {};
    std::optional<HealthFinding> finding;
    if (::fstat(fd, &info) != 0) {
        finding = HealthFinding{Kind::unreadableFile, {}, std::strerror(errno)};
    } else if (S_ISDIR(info.st_mode)) {
        finding = HealthFinding{Kind::notRegular, {}, "a folder"};
    } else if (!S_ISREG(info.st_mode)) {
        finding = HealthFinding{Kind::notRegular,
                                {},
                                S_ISFIFO(info.st_mode)   ? "a pipe"
                                : S_ISSOCK(info.st_mode) ? "a socket"
                                                         : "a device"};
    } else if (static_cast<std::uint64_t>(info.st_size) > CardBatchReader::kLargestCard) {
        finding = HealthFinding{Kind::tooLarge, {}, fmt::format("{} bytes", info.st_size)};
    } else {
        bytes.resize(static_cast<std::size_t>(info.st_size));
        std::size_t got = 0;
        while (got < bytes.size()) {
            const ssize_t n = ::read(fd, bytes.data() + got, bytes.size() - got);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0) {
                finding = HealthFinding{Kind::unreadableFile, {}, std::strerror(errno)};
                break;
            }
            if (n == 0) {
                break;
            }
            got += static_cast<std::size_t>(n);
        }
        bytes.resize(got);
    }
    ::close(fd);
    return finding;
}

} // namespace

std::string_view HealthFinding::name(Kind kind) {
    switch (kind) {
    case Kind::unreadableFolder:
        return "unreadable-folder";
    case Kind::unreadableFile:
        return "unreadable-file";
    case Kind::notRegular:
        return "not-a-regular-file";
    case Kind::tooLarge:
        return "too-large";
    case Kind::notCard:
        return "not-a-card";
    case Kind::severalCards:
        return "several-cards";
    case Kind::duplicateUID:
        return "duplicate-uid";
    case Kind::noUID:
        return "no-uid";
    case Kind::notUTF8:
        return "not-utf8";
    case Kind::upperCaseExtension:
        return "upper-case-extension";
    case Kind::leftoverTemporary:
        return "leftover-temporary";
    case Kind::groupCard:
        return "group-card";
    }
    return "unknown";
}

std::string_view HealthFinding::what(Kind kind) {
    switch (kind) {
    case Kind::unreadableFolder:
        return "Account folders that can't be read: their cards are not shown.";
    case Kind::unreadableFile:
        return "Card files that can't be read: they are not shown.";
    case Kind::notRegular:
        return "Pipes, sockets, devices or folders under a card's name: they are never read.";
    case Kind::tooLarge:
        return "Card files over 64 MB: they are never read.";
    case Kind::notCard:
        return "Files named as cards that hold no vCard: they are not shown.";
    case Kind::severalCards:
        return "Files holding more than one card: only the first is shown; the others are kept as they are.";
    case Kind::duplicateUID:
        return "Cards sharing one UID: the first file keeps the UID as its id, the others get ids of their "
               "own; sync tools may take them for one card.";
    case Kind::noUID:
        return "Cards without a UID: known by their file name, and given it as UID when Kinbook first "
               "writes them.";
    case Kind::notUTF8:
        return "Cards whose text is not UTF-8: read as their CHARSET says, else as Windows-1252.";
    case Kind::upperCaseExtension:
        return "Files ending in \".VCF\" in capitals: they are not read.";
    case Kind::leftoverTemporary:
        return "Temporary files of writes that never finished (a crash or a kill during a save).";
    case Kind::groupCard:
        return "Contact groups stored as cards: kept as they are, never shown as people.";
    }
    return "";
}

std::string_view HealthFinding::advice(Kind kind) {
    switch (kind) {
    case Kind::unreadableFolder:
    case Kind::unreadableFile:
        return "Give your user read permission (chmod u+r, and u+x on folders), or move them out.";
    case Kind::notRegular:
        return "Move them out of the address book folder; they are not cards.";
    case Kind::tooLarge:
        return "Open them in a text editor to see what they are, then move them out.";
    case Kind::notCard:
        return "Move them out of the address book folder, or put the card back from a backup.";
    case Kind::severalCards:
        return "Split them into one file per card (kinbook import reads such a file), then remove the "
               "original.";
    case Kind::duplicateUID:
        return "If they are copies of one card, delete the copy; if they are different people, give one a "
               "new UID in a text editor.";
    case Kind::noUID:
        return "Nothing is needed; editing the card in Kinbook gives it a UID.";
    case Kind::notUTF8:
        return "Nothing is needed; a change saved in Kinbook writes the card as UTF-8.";
    case Kind::upperCaseExtension:
        return "Rename them to end in \".vcf\".";
    case Kind::leftoverTemporary:
        return "Kinbook removes them at its next start once they are 15 minutes old; with no Kinbook "
               "running you may delete them.";
    case Kind::groupCard:
        return "Nothing is needed.";
    }
    return "";
}

std::size_t HealthReport::problemCount() const {
    std::size_t count = readable ? 0 : 1;
    for (const auto& finding : findings) {
        count += finding.isProblem() ? 1 : 0;
    }
    return count;
}

HealthReport checkAddressBook(const std::filesystem::path& root) {
    HealthReport report;
    report.root = root;
    auto listing = CardListing::list(root, 1);
    if (!listing) {
        report.readable = false;
        return report;
    }
    for (const auto& account : listing->accounts()) {
        if (account.unreadable) {
            report.findings.push_back({Kind::unreadableFolder, {root / account.name}, {}});
        }
    }
    for (const auto& oddity : listing->oddities()) {
        switch (oddity.kind) {
        case CardListing::Oddity::Kind::upperCaseExtension:
            report.findings.push_back({Kind::upperCaseExtension, {listing->path(oddity)}, {}});
            break;
        case CardListing::Oddity::Kind::notRegular:
            // Read below, where its kind is told.
            break;
        case CardListing::Oddity::Kind::temporary:
            report.findings.push_back({Kind::leftoverTemporary, {listing->path(oddity)}, {}});
            break;
        }
    }

    std::vector<std::pair<std::filesystem::path, std::pair<int, const char*>>> toRead;
    for (const auto& file : listing->files()) {
        toRead.push_back({listing->path(file), {listing->folderFD(file), listing->cName(file)}});
    }
    for (const auto& oddity : listing->oddities()) {
        if (oddity.kind == CardListing::Oddity::Kind::notRegular) {
            toRead.push_back(
                {listing->path(oddity), {listing->accounts()[oddity.account].fd, oddity.name.c_str()}});
        }
    }
    std::sort(toRead.begin(), toRead.end());
    std::map<std::string, std::vector<std::filesystem::path>> byUID;
    std::string bytes;
    for (const auto& [path, place] : toRead) {
        ++report.cardFiles;
        if (auto finding = readCardFile(place.first, place.second, bytes)) {
            finding->files = {path};
            report.findings.push_back(std::move(*finding));
            continue;
        }
        auto card = VCard::parse(bytes);
        if (!card.ok()) {
            report.findings.push_back({Kind::notCard, {path}, {}});
            continue;
        }
        if (card->additionalCardCount() > 0) {
            report.findings.push_back(
                {Kind::severalCards, {path}, fmt::format("{} cards", card->additionalCardCount() + 1)});
        }
        if (!isUTF8(bytes)) {
            report.findings.push_back({Kind::notUTF8, {path}, {}});
        }
        if (isGroupCard(card.value())) {
            report.findings.push_back({Kind::groupCard, {path}, {}});
        }
        const auto uid = card->uid();
        const std::string_view trimmed = uid ? trimAsciiSpace(*uid) : std::string_view();
        if (trimmed.empty()) {
            report.findings.push_back({Kind::noUID, {path}, {}});
        } else {
            byUID[std::string(trimmed)].push_back(path);
        }
    }
    for (auto& [uid, files] : byUID) {
        if (files.size() > 1) {
            report.findings.push_back({Kind::duplicateUID, std::move(files), uid});
        }
    }
    std::stable_sort(report.findings.begin(), report.findings.end(),
                     [](const HealthFinding& a, const HealthFinding& b) { return a.kind < b.kind; });
    return report;
}

std::string describe(const HealthReport& report) {
    if (!report.readable) {
        return fmt::format("The address book folder {} can't be read.\n", report.root.string());
    }
    std::string text;
    for (std::size_t i = 0; i < report.findings.size();) {
        const Kind kind = report.findings[i].kind;
        text += fmt::format("{}\n", HealthFinding::what(kind));
        for (; i < report.findings.size() && report.findings[i].kind == kind; ++i) {
            const HealthFinding& finding = report.findings[i];
            if (kind == Kind::duplicateUID) {
                text += fmt::format("  UID {}:\n", finding.detail);
                for (const auto& file : finding.files) {
                    text += fmt::format("    {}\n", file.string());
                }
                continue;
            }
            for (const auto& file : finding.files) {
                text += finding.detail.empty() ? fmt::format("  {}\n", file.string())
                                               : fmt::format("  {} ({})\n", file.string(), finding.detail);
            }
        }
        text += fmt::format("  What to do: {}\n\n", HealthFinding::advice(kind));
    }
    const std::size_t problems = report.problemCount();
    text += fmt::format("{} card file{} checked in {}: ", report.cardFiles, report.cardFiles == 1 ? "" : "s",
                        report.root.string());
    text += problems == 0 ? std::string("no problems found.\n")
                          : fmt::format("{} problem{} found.\n", problems, problems == 1 ? "" : "s");
    return text;
}

} // namespace kinbook
