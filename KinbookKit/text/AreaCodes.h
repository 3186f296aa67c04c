#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kinbook {

// Reduces a phone number, as the user typed it, to the one code that says
// where it points: a three-digit North American area code ("212") or a
// country calling code with a leading "+" ("+44"). People are sorted and
// sectioned by these codes, and a code's label heads its section
// ("212 · New York · Northeast", "+44 · United Kingdom").
//
// The tables are compile-time constants: nothing is built at run time, no
// lock is taken, and every function may be called from any thread. Every
// function accepts any text (empty, very long, not valid UTF-8) and answers
// with "no code" or the code alone rather than failing.
//
// Digits: a phone number's digits are its Unicode decimal digits of any
// script, read by value, so "２１２" (full-width) and Arabic-Indic digits
// count like "212". Other numeric characters ("²", "½", "Ⅻ") are not digits
// of a phone number and are ignored along with punctuation and letters.
class AreaCodes {
public:
    // One row of the North American table. `region` is the broad region
    // ("Northeast", "Canada", "Caribbean", ...), empty for toll-free codes.
    struct NorthAmericanCode {
        std::string_view code;
        std::string_view place;
        std::string_view region;
        bool operator==(const NorthAmericanCode&) const = default;
    };

    // One row of the country table: a calling code without "+" and a name.
    struct CountryCode {
        std::string_view code;
        std::string_view name;
        bool operator==(const CountryCode&) const = default;
    };

    // The code a phone number points to, or none when the number is too
    // short, malformed, or its country code would leave three digits or
    // fewer behind it. National numbers give an area code; international
    // ones ("+" or "00") give "+" and the country code, except North
    // American numbers, which give their area code in either form.
    static std::optional<std::string> areaCode(std::string_view phone);

    // The length of the country calling code that starts `digits` (ASCII
    // digits, without "+"): 0 for none, 1 for "1" and "7", 2 for the known
    // two-digit codes, 3 otherwise.
    static int countryCodeLength(std::string_view digits);

    // "212 · New York · Northeast", "800 · Toll-free", "+44 · United Kingdom",
    // or the code alone when neither table knows it.
    static std::string label(std::string_view code);

    // Table lookups; null when the code is not in the table. The pointers
    // refer to static storage and stay valid for the life of the program.
    static const NorthAmericanCode* findNorthAmerican(std::string_view code);
    static const CountryCode* findCountry(std::string_view codeWithoutPlus);

    // The whole tables, sorted by code, for listings and diagnostics.
    static std::span<const NorthAmericanCode> northAmericanCodes();
    static std::span<const CountryCode> countryCodes();
    static std::span<const std::string_view> twoDigitCountryCodes();
};

} // namespace kinbook
