#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kinbook {

// A birthday or other card date: month and day, with the year optional, as
// address books store them ("--0229" in a vCard is 29 February of no year).
struct DateComponents {
    int month = 1;
    int day = 1;
    std::optional<int> year;

    bool operator==(const DateComponents&) const = default;

    // Month and day are both required; the day must exist in the month of the
    // given year, or of the leap year 2000 when there is none, so that
    // 29 February without a year is kept.
    static std::optional<DateComponents> make(std::optional<int> year, std::optional<int> month,
                                              std::optional<int> day);

    // The date as the user's locale writes it, month in words: "February 29"
    // or "March 14, 1987" in English, "29. Februar" in German. `locale` is an
    // ICU locale name; empty means the process's default locale (LANG and
    // LC_* as usual). None when the date does not exist.
    std::optional<std::string> text(std::string_view locale = {}) const;
};

} // namespace kinbook
