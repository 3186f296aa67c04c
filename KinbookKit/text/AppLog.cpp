#include "KinbookKit/text/AppLog.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <utility>
#include <vector>

namespace kinbook {
namespace {

namespace fs = std::filesystem;

// The user's real home folder: the user database first, because $HOME may be
// changed for a child process (a test harness, sudo), then $HOME.
fs::path homeFolder() {
    long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 16384);
    for (;;) {
        passwd entry{};
        passwd* found = nullptr;
        int status = ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found);
        if (status == ERANGE && buffer.size() < (1u << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (status == 0 && found != nullptr && found->pw_dir != nullptr && found->pw_dir[0] != '\0') {
            return found->pw_dir;
        }
        break;
    }
    const char* home = std::getenv("HOME");
    return home != nullptr ? fs::path(home) : fs::path();
}

// Creates the folder and any missing parents. Folders are private to the user
// (0700): the log holds what the user searched for.
void makeFolders(const fs::path& folder) {
    if (folder.empty()) {
        return;
    }
    if (::mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST) {
        return;
    }
    if (errno == ENOENT && folder.has_parent_path() && folder.parent_path() != folder) {
        makeFolders(folder.parent_path());
        ::mkdir(folder.c_str(), 0700);
    }
}

void writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

} // namespace

AppLog::AppLog(std::filesystem::path file, const Clock& clock)
    : m_file(std::move(file)), m_oldFile(fs::path(m_file).concat(".1")), m_clock(clock) {}

AppLog::~AppLog() {
    flush();
}

AppLog& AppLog::shared() {
    // Never destroyed: areas may still log from other objects' destructors
    // while the process winds down.
    static AppLog* const log = [] {
        auto* created = new AppLog(defaultLocation());
        std::atexit([] { shared().flush(); });
        return created;
    }();
    return *log;
}

std::filesystem::path AppLog::defaultLocation() {
    fs::path state;
    // A relative XDG_STATE_HOME is invalid and must be ignored.
    const char* xdg = std::getenv("XDG_STATE_HOME");
    if (xdg != nullptr && xdg[0] == '/') {
        state = xdg;
    } else {
        state = homeFolder() / ".local" / "state";
    }
    return state / "kinbook" / "app.log";
}

LogTime AppLog::localTime(std::chrono::system_clock::time_point instant) {
    std::time_t seconds = std::chrono::system_clock::to_time_t(instant);
    std::tm local{};
    if (::localtime_r(&seconds, &local) == nullptr) {
        return LogTime{instant, std::chrono::seconds(0)};
    }
    return LogTime{instant, std::chrono::seconds(local.tm_gmtoff)};
}

std::string AppLog::formatTime(const LogTime& time) {
    using namespace std::chrono;
    const auto local = floor<milliseconds>(time.instant) + time.utcOffset;
    const auto day = floor<days>(local);
    const year_month_day date{day};
    const hh_mm_ss clock{local - day};
    // Zones with seconds in their offset (old local mean times) show hours and
    // minutes only.
    const long offsetMinutes = static_cast<long>(duration_cast<minutes>(time.utcOffset).count());
    const long magnitude = offsetMinutes < 0 ? -offsetMinutes : offsetMinutes;
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}{}{:02}{:02}", static_cast<int>(date.year()),
                       static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                       clock.hours().count(), clock.minutes().count(), clock.seconds().count(),
                       clock.subseconds().count(), offsetMinutes < 0 ? '-' : '+', magnitude / 60,
                       magnitude % 60);
}

void AppLog::write(std::string_view category, std::string_view message) noexcept {
    try {
        m_queue.post([this, category = std::string(category), message = std::string(message)] {
            try {
                writeNow(category, message);
            } catch (...) {
                // The line is lost; logging never takes the writer down.
            }
        });
    } catch (...) {
        // Out of memory: the line is lost.
    }
}

void AppLog::flush() noexcept {
    m_queue.waitUntilIdle();
}

void AppLog::writeNow(std::string_view category, std::string_view message) const {
    const std::string line =
        fmt::format("{} [{}] {}\n", formatTime(localTime(m_clock.now())), category, message);

    struct stat attributes {};
    if (::stat(m_file.c_str(), &attributes) == 0) {
        if (static_cast<std::uintmax_t>(attributes.st_size) > rotationLimit) {
            // One old generation: rename() replaces the previous one in the
            // same step, so there is never a moment without it.
            ::rename(m_file.c_str(), m_oldFile.c_str());
        }
    } else if (errno == ENOENT) {
        // First line, or the folder was removed under us.
        makeFolders(m_file.parent_path());
    }

    // O_APPEND: the command-line tool may append to the same file at the same
    // time; both processes' lines then land at the end instead of over each
    // other.
    const int fd = ::open(m_file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        return;
    }
    writeAll(fd, line);
    ::close(fd);
}

} // namespace kinbook
