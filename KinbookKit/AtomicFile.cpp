#include "KinbookKit/AtomicFile.h"

#include "KinbookKit/SecureRandom.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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

} // namespace

bool writeTemporaryBeside(const std::filesystem::path& target, std::string_view contents,
                          PendingFile& pending, unsigned mode) {
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
