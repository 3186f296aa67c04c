#include "KinbookKit/records/Iso8601.h"

#include <fmt/core.h>

#include <cmath>

namespace kinbook {
namespace {

using namespace std::chrono;

// 2001-01-01T00:00:00Z in seconds since the Unix epoch.
constexpr long long kReferenceDateUnixSeconds = 978307200;

// Reads exactly `count` ASCII digits at `position`, advancing past them.
std::optional<int> readDigits(std::string_view text, std::size_t& position, std::size_t count) {
    if (position + count > text.size()) {
        return std::nullopt;
    }
    int value = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const char c = text[position + i];
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + (c - '0');
    }
    position += count;
    return value;
}

bool expect(std::string_view text, std::size_t& position, char c) {
    if (position < text.size() && text[position] == c) {
        ++position;
        return true;
    }
    return false;
}

} // namespace

std::string formatIso8601(system_clock::time_point time) {
    const auto seconds = floor<std::chrono::seconds>(time);
    const auto days = floor<std::chrono::days>(seconds);
    const year_month_day date{days};
    const hh_mm_ss clock{seconds - days};
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(date.year()),
                       static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                       clock.hours().count(), clock.minutes().count(), clock.seconds().count());
}

std::optional<system_clock::time_point> parseIso8601(std::string_view text) {
    std::size_t position = 0;
    const auto yearValue = readDigits(text, position, 4);
    if (!yearValue || !expect(text, position, '-')) {
        return std::nullopt;
    }
    const auto monthValue = readDigits(text, position, 2);
    if (!monthValue || !expect(text, position, '-')) {
        return std::nullopt;
    }
    const auto dayValue = readDigits(text, position, 2);
    if (!dayValue || !expect(text, position, 'T')) {
        return std::nullopt;
    }
    const auto hour = readDigits(text, position, 2);
    if (!hour || !expect(text, position, ':')) {
        return std::nullopt;
    }
    const auto minute = readDigits(text, position, 2);
    if (!minute || !expect(text, position, ':')) {
        return std::nullopt;
    }
    const auto second = readDigits(text, position, 2);
    if (!second) {
        return std::nullopt;
    }
    nanoseconds fraction{0};
    if (expect(text, position, '.')) {
        long long scale = 100'000'000;
        std::size_t digits = 0;
        while (position < text.size() && text[position] >= '0' && text[position] <= '9') {
            fraction += nanoseconds((text[position] - '0') * scale);
            scale /= 10;
            ++position;
            ++digits;
        }
        if (digits == 0) {
            return std::nullopt;
        }
    }
    minutes offset{0};
    if (expect(text, position, 'Z')) {
        // UTC
    } else if (position < text.size() && (text[position] == '+' || text[position] == '-')) {
        const int sign = text[position] == '-' ? -1 : 1;
        ++position;
        const auto offsetHours = readDigits(text, position, 2);
        if (!offsetHours) {
            return std::nullopt;
        }
        int offsetMinutes = 0;
        if (position < text.size()) {
            expect(text, position, ':');
            const auto parsed = readDigits(text, position, 2);
            if (!parsed) {
                return std::nullopt;
            }
            offsetMinutes = *parsed;
        }
        if (*offsetHours > 23 || offsetMinutes > 59) {
            return std::nullopt;
        }
        offset = minutes(sign * (*offsetHours * 60 + offsetMinutes));
    } else {
        return std::nullopt;
    }
    if (position != text.size()) {
        return std::nullopt;
    }
    const year_month_day date{year(*yearValue), month(static_cast<unsigned>(*monthValue)),
                              day(static_cast<unsigned>(*dayValue))};
    if (!date.ok() || *hour > 23 || *minute > 59 || *second > 60) {
        return std::nullopt;
    }
    // The clock counts nanoseconds in 64 bits, about 1678 to 2261: a file's
    // date outside that is damage, and would overflow the clock.
    if (*yearValue < 1678 || *yearValue > 2261) {
        return std::nullopt;
    }
    const auto local = sys_days(date) + hours(*hour) + minutes(*minute) + seconds(*second) + fraction;
    return time_point_cast<system_clock::duration>(local - offset);
}

double secondsSinceReferenceDate(system_clock::time_point time) {
    const auto sinceEpoch = duration<double>(time.time_since_epoch()).count();
    return sinceEpoch - static_cast<double>(kReferenceDateUnixSeconds);
}

system_clock::time_point dateFromReferenceSeconds(double value) {
    const double sinceEpoch = value + static_cast<double>(kReferenceDateUnixSeconds);
    // The clock counts nanoseconds in 64 bits: about ±292 years around 1970.
    // A corrupt file's absurd date reads as the epoch rather than overflowing.
    if (!std::isfinite(sinceEpoch) || std::fabs(sinceEpoch) > 9.0e9) {
        return system_clock::time_point{};
    }
    return system_clock::time_point{duration_cast<system_clock::duration>(duration<double>(sinceEpoch))};
}

} // namespace kinbook
