#pragma once

#include <string_view>

namespace kinbook {

enum class LogLevel {
    info,
    error,
};

// The system's own log, where lines can be read with the system's log tools
// (on Linux, the systemd journal: `journalctl -t kinbook`). Lines arrive here
// with their private parts already redacted: other users and tools may read
// this log.
//
// write() is called synchronously on the logging thread, from any thread at
// once: implementations must be thread-safe, quick, and must never throw or
// report a failure. Where the system log is missing they write nothing.
class PlatformLog {
public:
    virtual ~PlatformLog() = default;

    virtual void write(LogLevel level, std::string_view category, std::string_view message) = 0;
};

} // namespace kinbook
