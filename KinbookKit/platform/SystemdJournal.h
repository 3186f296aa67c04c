#pragma once

#include "KinbookKit/text/PlatformLog.h"

#include <string_view>

namespace kinbook {

// The platform log on Linux: the systemd journal. Each line is one journal
// entry with SYSLOG_IDENTIFIER=kinbook, so `journalctl -t kinbook` shows
// Kinbook's lines, and the area in KINBOOK_CATEGORY
// (`journalctl KINBOOK_CATEGORY=sidecar`). Info lines have priority LOG_INFO,
// error lines LOG_ERR.
//
// Where no journal runs (a container, a machine without systemd) a write
// sends nothing and never fails. Thread-safe.
class SystemdJournal final : public PlatformLog {
public:
    // Whether a journal listens on this machine.
    static bool isRunning();

    void write(LogLevel level, std::string_view category, std::string_view message) override;
};

// Makes the journal the process-wide platform log of every KinLog, if one
// runs; otherwise lines go to the app log file only. The application and the
// command-line tool call it once at start. Returns whether it installed it.
bool installSystemdJournal();

} // namespace kinbook
