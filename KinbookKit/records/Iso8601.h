#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace kinbook {

// ISO 8601 date-times as the sidecar's JSON files carry them: written in UTC
// as "2026-11-22T14:03:05Z"; read with or without fractional seconds, and
// with "Z" or a "+hh:mm", "+hhmm" or "+hh" offset. None for anything else.
std::string formatIso8601(std::chrono::system_clock::time_point time);
std::optional<std::chrono::system_clock::time_point> parseIso8601(std::string_view text);

// Dates in the Trash and poster files, and in the snapshot cache, are seconds
// since 2001-01-01T00:00:00Z, so the files read the same on every platform.
double secondsSinceReferenceDate(std::chrono::system_clock::time_point time);
std::chrono::system_clock::time_point dateFromReferenceSeconds(double seconds);

} // namespace kinbook
