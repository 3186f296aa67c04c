#pragma once

#include "KinbookKit/text/LogMessage.h"
#include "KinbookKit/text/PlatformLog.h"

#include <string>
#include <string_view>

namespace kinbook {

class AppLog;

// The logger each area holds, one per area with its own category ("list",
// "sidecar", ...). Lines are short lower-case phrases that name their
// operation ("restore: 3 of 4 people", "step load: 85 ms").
//
// Every line goes first to the platform log, synchronously on the caller's
// thread, then to the app log file, whose write is queued and never makes the
// caller wait on the disk. Error lines go to the platform log at the error
// level and to the file as "ERROR " followed by the message.
//
// Which platform log: a KinLog built without one uses the process-wide
// platform log, looked up on every line. That is a no-op until the
// application or tool installs the real one at start, with
// `installSystemdJournal()` (kinbook_platform) or setPlatformLog(); loggers
// made before that, as statics or members, pick it up from then on.
//
// Logging never throws and never fails the caller. Thread-safe: a KinLog may
// be used from any thread, and copied freely.
class KinLog {
public:
    // Logs to the process-wide platform log and to AppLog::shared().
    explicit KinLog(std::string category);

    // Logs to the process-wide platform log and to `file`, which must outlive
    // this logger and its copies.
    KinLog(std::string category, AppLog& file);

    // Logs to `platform` and `file`, which must outlive this logger and its
    // copies.
    KinLog(std::string category, AppLog& file, PlatformLog& platform);

    const std::string& category() const { return m_category; }

    void info(std::string_view message) const noexcept;
    void info(const LogMessage& message) const noexcept;

    void error(std::string_view message) const noexcept;
    void error(const LogMessage& message) const noexcept;

    // Installs the process-wide platform log; nullptr goes back to none. The
    // log must stay alive for the rest of the process (another thread may be
    // writing to it at the moment it is replaced). Thread-safe.
    static void setPlatformLog(PlatformLog* log) noexcept;

private:
    void emit(LogLevel level, std::string_view text, std::string_view redacted) const noexcept;

    std::string m_category;
    AppLog* m_file = nullptr;          // null: AppLog::shared(), opened on the first line
    PlatformLog* m_platform = nullptr; // null: the process-wide platform log
};

} // namespace kinbook
