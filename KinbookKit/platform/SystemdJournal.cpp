#include "KinbookKit/platform/SystemdJournal.h"

#include "KinbookKit/text/KinLog.h"

#include <sys/uio.h>
#include <syslog.h>
// Every entry would otherwise name this file and line as its source, which
// says nothing about the area that logged it.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <string>

namespace kinbook {
namespace {

constexpr const char* journalSocket = "/run/systemd/journal/socket";

iovec field(const std::string& text) {
    return iovec{const_cast<char*>(text.data()), text.size()};
}

} // namespace

bool SystemdJournal::isRunning() {
    return ::access(journalSocket, W_OK) == 0;
}

void SystemdJournal::write(LogLevel level, std::string_view category, std::string_view message) {
    try {
        // sd_journal_sendv rather than sd_journal_send: the message is data,
        // never a format, and may hold newlines or '%'.
        const std::string fields[] = {
            std::string("MESSAGE=").append(message),
            std::string("PRIORITY=") + std::to_string(level == LogLevel::error ? LOG_ERR : LOG_INFO),
            std::string("SYSLOG_IDENTIFIER=kinbook"),
            std::string("KINBOOK_CATEGORY=").append(category),
        };
        const iovec vector[] = {field(fields[0]), field(fields[1]), field(fields[2]), field(fields[3])};
        // Without a journal this returns an error, which is the expected case
        // there and nothing to report.
        (void)::sd_journal_sendv(vector, 4);
    } catch (...) {
        // Out of memory: the line is lost.
    }
}

bool installSystemdJournal() {
    if (!SystemdJournal::isRunning()) {
        return false;
    }
    // Never destroyed: lines may still be logged while the process winds down.
    static SystemdJournal* const journal = new SystemdJournal;
    KinLog::setPlatformLog(journal);
    return true;
}

} // namespace kinbook
