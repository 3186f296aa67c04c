#pragma once

#include "KinbookKit/Clock.h"
#include "KinbookKit/Executor.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace kinbook {

// A moment as the log file stamps it: the instant, and the offset of the
// local time zone from UTC at that instant.
struct LogTime {
    std::chrono::system_clock::time_point instant;
    std::chrono::seconds utcOffset{0};

    bool operator==(const LogTime&) const = default;
};

// The plain text file the user opens from the Help menu ("Show App Log").
// Every area's lines land here, tagged with the area's category:
//
//     2026-11-22T14:03:05.123+0100 [list] load: 1204 people in 85 ms
//
// Writes run one at a time on the log's own serial queue, in the order they
// were given, so that logging from the main actor never waits on the disk and
// rotation never overlaps an append. Before each line the file's size is read;
// a file above `rotationLimit` bytes becomes "app.log.1" (replacing an older
// one) and the line starts a new file, so the log stays within about two files
// of 5 MB.
//
// Logging never fails the caller: a line that cannot be written (no folder, no
// space, no permission) is lost, silently.
//
// Thread-safe: every member may be called from any thread.
class AppLog {
public:
    // A file larger than this many bytes is rotated before the next line.
    static constexpr std::uintmax_t rotationLimit = 5'000'000;

    // A log over the given file. Nothing touches the disk until the first
    // line: then a missing folder is created with its parents. Each line is
    // stamped with `clock`'s time when it is written, shown in the current
    // time zone; the clock must outlive the log.
    explicit AppLog(std::filesystem::path file, const Clock& clock = Clock::system());

    // Writes every line already given, then stops the writer.
    ~AppLog();

    AppLog(const AppLog&) = delete;
    AppLog& operator=(const AppLog&) = delete;

    // The process-wide log at `defaultLocation()`, made on first use and kept
    // until the process ends. Lines still queued when the process exits
    // normally are written first (an exit handler calls flush()).
    static AppLog& shared();

    // "$XDG_STATE_HOME/kinbook/app.log". Without a usable XDG_STATE_HOME (unset,
    // empty or relative) the state folder is ".local/state" in the user's
    // home folder: the one in the user database, else $HOME.
    static std::filesystem::path defaultLocation();

    // `instant`, with the offset of the current time zone at that instant.
    static LogTime localTime(std::chrono::system_clock::time_point instant);

    // "2026-11-22T14:03:05.123+0100": local date and time to the millisecond,
    // then the zone offset with no separator before it.
    static std::string formatTime(const LogTime& time);

    // The file the lines go to; the Help menu opens it.
    const std::filesystem::path& fileLocation() const { return m_file; }

    // Queues one line "<time> [<category>] <message>\n" and returns at once.
    // The time is taken when the line is written.
    void write(std::string_view category, std::string_view message) noexcept;

    // Blocks until every line given before the call has been written (or
    // lost). For tests, and for an orderly exit. Never call it from the
    // log's clock.
    void flush() noexcept;

private:
    void writeNow(std::string_view category, std::string_view message) const;

    const std::filesystem::path m_file;
    const std::filesystem::path m_oldFile; // "app.log.1"
    const Clock& m_clock;
    // The writer: one thread, so that lines reach the file in order. Declared
    // last so that it stops before the members its tasks read go away.
    ThreadPool m_thread{1};
    SerialQueue m_queue{m_thread};
};

} // namespace kinbook
