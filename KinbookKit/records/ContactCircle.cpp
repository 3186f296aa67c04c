#include "KinbookKit/records/ContactCircle.h"

#include "KinbookKit/records/Iso8601.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <array>
#include <cmath>

namespace kinbook {
namespace {

struct CircleRow {
    std::string_view title;
    std::string_view badge;
    std::optional<int> capacity;
    std::string_view blurb;
};

constexpr std::array<CircleRow, 6> kRows{{
    {"Closest", "5", 5, "Your most intimate contacts."},
    {"Good Friends", "15", 15, "Friends you count on and love spending time with."},
    {"Friends", "50", 50, "Close friends and the colleagues you value most."},
    {"Meaningful", "150", 150, "People you have a real relationship with."},
    {"Known", "500", 500, "People you know and enjoy running into."},
    {"Acquaintance", "A", std::nullopt, "Faces you can put a name to."},
}};

constexpr std::array<ContactCircle, 6> kAll{
    ContactCircle::closest,    ContactCircle::goodFriends, ContactCircle::friends,
    ContactCircle::meaningful, ContactCircle::known,       ContactCircle::acquaintance,
};

const CircleRow& row(ContactCircle circle) {
    return kRows[static_cast<std::size_t>(rawValue(circle) - 1)];
}

} // namespace

std::span<const ContactCircle> allCircles() {
    return kAll;
}

std::optional<ContactCircle> circleFromRawValue(long long value) {
    if (value < 1 || value > 6) {
        return std::nullopt;
    }
    return static_cast<ContactCircle>(value);
}

std::string_view circleTitle(ContactCircle circle) {
    return row(circle).title;
}
std::string_view circleBadge(ContactCircle circle) {
    return row(circle).badge;
}
std::optional<int> circleCapacity(ContactCircle circle) {
    return row(circle).capacity;
}
std::string_view circleBlurb(ContactCircle circle) {
    return row(circle).blurb;
}

int cumulativeSize(const CircleCounts& counts, ContactCircle circle) {
    int total = 0;
    for (const auto& [inner, count] : counts) {
        if (inner <= circle) {
            total += count;
        }
    }
    return total;
}

std::string CircleError::description() const {
    return fmt::format("Your {} is full. Move someone out of it first.", circleBadge(full));
}

std::string CircleError::pickerDescription(const CircleCounts& counts) const {
    return fmt::format("Your {} is full ({} of {}). Move someone out of it first.", circleBadge(full),
                       cumulativeSize(counts, full), circleCapacity(full).value_or(0));
}

Result<void, CircleError> checkCircleCapacity(const CircleCounts& counts, std::optional<ContactCircle> target,
                                              std::optional<ContactCircle> current) {
    if (!target) {
        return {};
    }
    for (ContactCircle circle : allCircles()) {
        if (circle < *target) {
            continue;
        }
        const auto capacity = circleCapacity(circle);
        if (!capacity) {
            continue;
        }
        // Someone already inside this circle is already part of its
        // cumulative size: moving them within it doesn't grow it.
        if (current && circle >= *current) {
            continue;
        }
        if (cumulativeSize(counts, circle) >= *capacity) {
            return failure(CircleError{circle});
        }
    }
    return {};
}

std::string CircleSuggestion::line() const {
    // Halves round away from zero, as std::round does.
    const auto percent = static_cast<long long>(std::round(confidence * 100.0));
    return fmt::format("Suggests {} \u00B7 {}%", circleTitle(circle), percent);
}

std::string CircleSuggestion::explanation() const {
    return fmt::format("A guess from tone and how often you're in touch ({}). Your choice always wins.",
                       source);
}

std::optional<CircleSuggestion> CircleSuggestion::fromJSON(std::string_view json) {
    const auto document = nlohmann::json::parse(json, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object()) {
        return std::nullopt;
    }
    try {
        CircleSuggestion suggestion;
        // A circle is a whole number: converting 1e111 to one would overflow.
        const auto& circleValue = document.at("circle");
        if (!circleValue.is_number_integer()) {
            return std::nullopt;
        }
        const auto circle = circleFromRawValue(circleValue.get<long long>());
        const auto madeAt = parseIso8601(document.at("madeAt").get<std::string>());
        if (!circle || !madeAt) {
            return std::nullopt;
        }
        suggestion.circle = *circle;
        suggestion.confidence = document.at("confidence").get<double>();
        // A confidence is a share of one: anything else is a damaged file
        // (and a huge one would overflow the percentage shown).
        if (!(suggestion.confidence >= 0.0 && suggestion.confidence <= 1.0)) {
            return std::nullopt;
        }
        suggestion.reasons = document.at("reasons").get<std::vector<std::string>>();
        suggestion.source = document.at("source").get<std::string>();
        suggestion.madeAt = *madeAt;
        return suggestion;
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
}

std::string CircleSuggestion::toJSON() const {
    // nlohmann's object keeps its keys sorted, which is the stable order the
    // file is written in.
    nlohmann::json document = {
        {"circle", rawValue(circle)}, {"confidence", confidence},        {"reasons", reasons},
        {"source", source},           {"madeAt", formatIso8601(madeAt)},
    };
    return document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

} // namespace kinbook
