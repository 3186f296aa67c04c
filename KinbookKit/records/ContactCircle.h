#pragma once

#include "KinbookKit/Result.h"

#include <chrono>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// Relationship circles, innermost first. The raw value is what the card's
// anchor stores ("r=3"), so it never changes. Circles compare by raw value:
// closest is the smallest.
enum class ContactCircle : int {
    closest = 1,
    goodFriends = 2,
    friends = 3,
    meaningful = 4,
    known = 5,
    acquaintance = 6,
};

std::span<const ContactCircle> allCircles();

// The circle with that raw value; none outside 1…6.
std::optional<ContactCircle> circleFromRawValue(long long rawValue);
inline int rawValue(ContactCircle circle) {
    return static_cast<int>(circle);
}

std::string_view circleTitle(ContactCircle circle);
// "5", "15", … and "A" for acquaintances.
std::string_view circleBadge(ContactCircle circle);
// None for acquaintances, who have no limit.
std::optional<int> circleCapacity(ContactCircle circle);
std::string_view circleBlurb(ContactCircle circle);

// People per circle, counting each listed person once.
using CircleCounts = std::map<ContactCircle, int>;

// Everyone in the circle or inside it: "your 15 includes your 5".
int cumulativeSize(const CircleCounts& counts, ContactCircle circle);

// The refusal to place someone in a circle that is already full.
struct CircleError {
    ContactCircle full; // the circle that is full

    // "Your 15 is full. Move someone out of it first."
    std::string description() const;
    // The circle picker's fuller form: "Your 15 is full (15 of 15). Move someone out of it first."
    std::string pickerDescription(const CircleCounts& counts) const;

    bool operator==(const CircleError&) const = default;
};

// Whether a person now in `current` (or in no circle) may be placed in
// `target`. Walks `target` and every circle outside it that has a limit,
// skipping those the person is already counted in; the innermost full one is
// reported. Clearing the circle is never refused, and moving outward never is.
Result<void, CircleError> checkCircleCapacity(const CircleCounts& counts, std::optional<ContactCircle> target,
                                              std::optional<ContactCircle> current);

// A guessed circle, made elsewhere from how often the user is in touch and
// the tone of their messages, and read from the person's "suggestion.json".
// Kinbook shows it and never applies it by itself.
struct CircleSuggestion {
    ContactCircle circle = ContactCircle::acquaintance;
    double confidence = 0; // 0…1, shown as a percentage
    std::vector<std::string> reasons;
    std::string source; // what the guess was drawn from, shown to the user
    std::chrono::system_clock::time_point madeAt;

    bool operator==(const CircleSuggestion&) const = default;

    // "Suggests Friends · 88%"
    std::string line() const;
    // "A guess from tone and how often you're in touch (…). Your choice always wins."
    std::string explanation() const;

    // Decodes the JSON of "suggestion.json"; none for anything undecodable.
    static std::optional<CircleSuggestion> fromJSON(std::string_view json);
    // Pretty-printed with sorted keys and ISO 8601 dates.
    std::string toJSON() const;
};

} // namespace kinbook
