#include "KinbookKit/records/DateComponents.h"

#include <unicode/calendar.h>
#include <unicode/dtptngen.h>
#include <unicode/gregocal.h>
#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <chrono>
#include <limits>
#include <map>
#include <memory>

namespace kinbook {
namespace {

// Building an ICU formatter costs far more than formatting with it, and a full
// read formats a date for thousands of cards: keep one per locale and shape,
// per thread (ICU formatters are not safe to share while formatting).
icu::SimpleDateFormat* formatter(const std::string& locale, bool withYear) {
    thread_local std::map<std::pair<std::string, bool>, std::unique_ptr<icu::SimpleDateFormat>> formatters;
    auto& slot = formatters[{locale, withYear}];
    if (slot) {
        return slot.get();
    }
    UErrorCode status = U_ZERO_ERROR;
    const icu::Locale icuLocale = locale.empty() ? icu::Locale::getDefault() : icu::Locale(locale.c_str());
    std::unique_ptr<icu::DateTimePatternGenerator> generator(
        icu::DateTimePatternGenerator::createInstance(icuLocale, status));
    if (U_FAILURE(status)) {
        return nullptr;
    }
    const icu::UnicodeString pattern =
        generator->getBestPattern(icu::UnicodeString(withYear ? "yMMMMd" : "MMMMd"), status);
    if (U_FAILURE(status)) {
        return nullptr;
    }
    auto format = std::make_unique<icu::SimpleDateFormat>(pattern, icuLocale, status);
    if (U_FAILURE(status)) {
        return nullptr;
    }
    auto calendar =
        std::make_unique<icu::GregorianCalendar>(icu::TimeZone::createDefault(), icuLocale, status);
    if (U_FAILURE(status)) {
        return nullptr;
    }
    // Proleptic Gregorian: an old year must not switch to the Julian calendar.
    calendar->setGregorianChange(-std::numeric_limits<double>::max(), status);
    format->adoptCalendar(calendar.release());
    slot = std::move(format);
    return slot.get();
}

} // namespace

std::optional<DateComponents> DateComponents::make(std::optional<int> year, std::optional<int> month,
                                                   std::optional<int> day) {
    if (!month || !day) {
        return std::nullopt;
    }
    // Without a year, 2000 stands in: a leap year, so 29 February survives.
    const std::chrono::year_month_day date{std::chrono::year(year.value_or(2000)),
                                           std::chrono::month(static_cast<unsigned>(*month)),
                                           std::chrono::day(static_cast<unsigned>(*day))};
    if (*month < 1 || *month > 12 || *day < 1 || *day > 31 || !date.ok()) {
        return std::nullopt;
    }
    return DateComponents{*month, *day, year};
}

std::optional<std::string> DateComponents::text(std::string_view locale) const {
    if (!make(year, month, day)) {
        return std::nullopt;
    }
    icu::SimpleDateFormat* format = formatter(std::string(locale), year.has_value());
    if (format == nullptr) {
        return std::nullopt;
    }
    // Noon, so that no time-zone shift can move the date to a neighbouring day.
    icu::Calendar* calendar = format->getCalendar()->clone();
    UErrorCode status = U_ZERO_ERROR;
    calendar->clear();
    calendar->set(year.value_or(2000), month - 1, day, 12, 0, 0);
    const UDate when = calendar->getTime(status);
    delete calendar;
    if (U_FAILURE(status)) {
        return std::nullopt;
    }
    icu::UnicodeString formatted;
    format->format(when, formatted);
    std::string utf8;
    formatted.toUTF8String(utf8);
    return utf8;
}

} // namespace kinbook
