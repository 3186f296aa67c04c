#include "KinbookKit/AtomicFile.h"

#include "KinbookKit/SecureRandom.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>

namespace kinbook {
namespace {

bool writeAll(int fd, std::string_view contents) {
    const char* data = contents.data();
    std::size_t left = contents.size();
    while (left > 0) {
        const ssize_t written = ::write(fd, data, left);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
    return true;
}

void syncFolder(const std::filesystem::path& folder) {
    const int fd = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

// Where a write of `path` goes: the file itself, or for a symbolic link the
// file it points to, so that replacing it leaves the link in place (a card
// kept elsewhere and linked into the address book stays linked). None when
// the link is dangling or loops: nothing is written through it.
std::optional<std::filesystem::path> writtenPath(const std::filesystem::path& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) {
        return path;
    }
    std::error_code error;
    std::filesystem::path resolved = std::filesystem::canonical(path, error);
    if (error) {
        return std::nullopt;
    }
    return resolved;
}

} // namespace

bool isTemporaryFileName(std::string_view name) {
    // "." + the target's name + "." + 8 characters of a UUID + ".tmp".
    constexpr std::size_t kTail = 1 + 8 + 4;
    if (name.size() < 1 + 1 + kTail || name.front() != '.' || !name.ends_with(".tmp")) {
        return false;
    }
    const std::string_view random = name.substr(name.size() - kTail + 1, 8);
    return name[name.size() - kTail] == '.' && std::all_of(random.begin(), random.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
           });
}

bool writeTemporaryBeside(const std::filesystem::path& linkOrTarget, std::string_view contents,
                          PendingFile& pending, unsigned mode) {
    const auto written = writtenPath(linkOrTarget);
    if (!written) {
        return false;
    }
    const std::filesystem::path& target = *written;
    const std::filesystem::path folder = target.parent_path();
    std::string name = "." + target.filename().string() + "." + makeUUID().substr(0, 8) + ".tmp";
    const std::filesystem::path temporary = folder / name;
    struct stat existing {};
    if (::stat(target.c_str(), &existing) == 0) {
        mode = existing.st_mode & 07777;
    }
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0) {
        return false;
    }
    const bool ok = writeAll(fd, contents) && ::fsync(fd) == 0;
    if (::close(fd) != 0 || !ok) {
        ::unlink(temporary.c_str());
        return false;
    }
    pending = PendingFile{temporary, target};
    return true;
}

bool commitPendingFile(const PendingFile& pending) {
    if (::rename(pending.temporary.c_str(), pending.target.c_str()) != 0) {
        ::unlink(pending.temporary.c_str());
        return false;
    }
    syncFolder(pending.target.parent_path());
    return true;
}

void discardPendingFile(const PendingFile& pending) {
    ::unlink(pending.temporary.c_str());
}

bool writeFileAtomically(const std::filesystem::path& path, std::string_view contents, unsigned mode) {
    PendingFile pending;
    return writeTemporaryBeside(path, contents, pending, mode) && commitPendingFile(pending);
}

} // namespace kinbook
