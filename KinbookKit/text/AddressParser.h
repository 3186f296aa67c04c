#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kinbook {

// Turns a pasted address into the separate parts of a postal address. The
// address editor's street field invites the user to paste a whole address
// ("Street (or paste a whole address)"); this is what fills the other fields
// from it.
//
// The recogniser knows the common written forms:
// - North American: "295 Park Avenue South, New York, NY 10010", on one line
//   or several, with the state or province by name or postal abbreviation,
//   ZIP, ZIP+4 or a Canadian postal code ("K1A 0B1");
// - British: "10 Downing Street, London SW1A 2AA, United Kingdom";
// - continental European: "Musterstraße 5, 10115 Berlin, Deutschland",
//   "10 Rue de Rivoli, 75001 Paris, France", "Damrak 1, 1012 LG Amsterdam";
// - Australian: "1 Martin Place, Sydney NSW 2000".
// An address inside a sentence ("Meet me at ... tomorrow") is found when its
// parts are separated by commas or line breaks. The first recognised address
// in the text wins.
//
// Both functions accept any text, including empty, very long and invalid
// UTF-8 text, never throw, keep no state between calls and may be called from
// any thread at once.
class AddressParser {
public:
    // The parts of a postal address; a part that is not known is empty.
    struct Parsed {
        std::string street;
        std::string city;
        std::string state;
        std::string postalCode;
        std::string country;
        bool operator==(const Parsed&) const = default;
    };

    // The address found in `text`, or none when there is no city, state or
    // postal code: a street alone is not an address. Words the user typed in
    // lower case are capitalised the way an address is written ("295 park
    // avenue south" becomes "295 Park Avenue South", "5th" and "8J" stay
    // right); a city is capitalised only when it was all lower case; a state
    // abbreviation and a postal code are upper-cased. The street is passed
    // through splitUnit.
    static std::optional<Parsed> parse(std::string_view text);

    // Moves an apartment, suite, floor or "#" designation at the end of a
    // one-line street onto a second line: "12 Main St # 5" becomes
    // "12 Main St\n#5". A street of several lines, one without a designation,
    // or one that is only a designation ("Apt 4") comes back unchanged. Only
    // the last 512 bytes of the line are searched; no designation is longer.
    static std::string splitUnit(std::string_view street);
};

} // namespace kinbook
