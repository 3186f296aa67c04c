#include "KinbookKit/records/ContactCircle.h"

#include "KinbookKit/records/Iso8601.h"

#include <gtest/gtest.h>

namespace kinbook {
namespace {

using enum ContactCircle;

// A circle's number is what a card stores: every circle reads back from its
// own, and no other number is a circle.
TEST(ContactCircle, RawValuesReadBackAndOthersAreNone) {
    for (ContactCircle circle : allCircles()) {
        EXPECT_EQ(circleFromRawValue(rawValue(circle)), circle);
    }
    for (long long raw : {0LL, 7LL, -1LL, 1LL << 40}) {
        EXPECT_EQ(circleFromRawValue(raw), std::nullopt) << raw;
    }
}

TEST(ContactCircle, CumulativeSizeCountsEveryInnerCircle) {
    const CircleCounts counts{{closest, 5}, {goodFriends, 10}, {friends, 3}, {acquaintance, 900}};
    EXPECT_EQ(cumulativeSize(counts, closest), 5);
    EXPECT_EQ(cumulativeSize(counts, goodFriends), 15);
    EXPECT_EQ(cumulativeSize(counts, meaningful), 18);
    EXPECT_EQ(cumulativeSize(counts, acquaintance), 918);
    EXPECT_EQ(cumulativeSize({}, known), 0);
}

struct CapacityCase {
    const char* claim;
    CircleCounts counts;
    std::optional<ContactCircle> target;
    std::optional<ContactCircle> current;
    std::optional<ContactCircle> refusedBy;
};

TEST(ContactCircle, CapacityWalkRefusesTheInnermostFullCircle) {
    const std::nullopt_t none = std::nullopt;
    const CapacityCase cases[] = {
        {"a sixth person can't enter a closest that holds five", {{closest, 5}}, closest, none, closest},
        {"four in closest leave room", {{closest, 4}}, closest, none, none},
        {"5 + 10 fill good friends", {{closest, 5}, {goodFriends, 10}}, goodFriends, none, goodFriends},
        {"in from closest: no growth", {{closest, 5}, {goodFriends, 10}}, goodFriends, closest, none},
        {"outward never fails", {{closest, 5}, {goodFriends, 10}, {friends, 35}}, friends, closest, none},
        {"a full outer circle refuses", {{closest, 1}, {known, 499}}, closest, none, known},
        {"the innermost full one is reported", {{goodFriends, 15}, {known, 485}}, closest, none, goodFriends},
        {"someone already in known is counted in known", {{closest, 1}, {known, 499}}, closest, known, none},
        {"inward checks those between", {{goodFriends, 15}}, closest, friends, goodFriends},
        {"acquaintances have no limit", {{acquaintance, 100000}, {known, 500}}, acquaintance, none, none},
        {"clearing is never refused", {{closest, 50}}, none, closest, none},
        {"an over-full inner circle doesn't block an outer one", {{closest, 9}}, goodFriends, none, none},
        {"an over-full circle refuses", {{closest, 9}}, closest, none, closest},
    };
    for (const auto& c : cases) {
        const auto result = checkCircleCapacity(c.counts, c.target, c.current);
        if (c.refusedBy) {
            ASSERT_FALSE(result.ok()) << c.claim;
            EXPECT_EQ(result.error().full, *c.refusedBy) << c.claim;
        } else {
            EXPECT_TRUE(result.ok()) << c.claim;
        }
    }
    // The refusal names the circle by its size, and the picker says how full it is.
    EXPECT_EQ(CircleError{closest}.description(), "Your 5 is full. Move someone out of it first.");
    EXPECT_EQ(CircleError{goodFriends}.pickerDescription({{closest, 5}, {goodFriends, 10}}),
              "Your 15 is full (15 of 15). Move someone out of it first.");
}

TEST(CircleSuggestion, LineRoundsHalvesAwayFromZero) {
    CircleSuggestion suggestion;
    suggestion.circle = friends;
    const std::pair<double, const char*> cases[] = {
        {0.875, "Suggests Friends \u00B7 88%"}, {0.5, "Suggests Friends \u00B7 50%"},
        {0.125, "Suggests Friends \u00B7 13%"}, {0.004, "Suggests Friends \u00B7 0%"},
        {1.2, "Suggests Friends \u00B7 120%"},  {-0.005, "Suggests Friends \u00B7 -1%"},
    };
    for (const auto& [confidence, line] : cases) {
        suggestion.confidence = confidence;
        EXPECT_EQ(suggestion.line(), line) << confidence;
    }
    suggestion.source = "messages";
    EXPECT_EQ(suggestion.explanation(),
              "A guess from tone and how often you're in touch (messages). Your choice always wins.");
}

TEST(CircleSuggestion, JSONIsPrettySortedAndRoundTrips) {
    CircleSuggestion suggestion{goodFriends, 0.75, {"weekly calls", "warm tone"}, "Messages", {}};
    suggestion.madeAt = *parseIso8601("2026-03-01T09:30:00Z");
    const std::string json = suggestion.toJSON();
    EXPECT_EQ(
        json,
        "{\n  \"circle\": 2,\n  \"confidence\": 0.75,\n  \"madeAt\": \"2026-03-01T09:30:00Z\",\n"
        "  \"reasons\": [\n    \"weekly calls\",\n    \"warm tone\"\n  ],\n  \"source\": \"Messages\"\n}");
    EXPECT_EQ(CircleSuggestion::fromJSON(json), suggestion);
}

// A suggestion file with these values, and no "madeAt" when it is empty.
std::string suggestionFile(const std::string& circle, const std::string& confidence,
                           const std::string& madeAt) {
    return "{\"circle\": " + circle + ", \"confidence\": " + confidence + R"(, "reasons": [], "source": "")" +
           (madeAt.empty() ? "" : ", \"madeAt\": \"" + madeAt + "\"") + "}";
}

TEST(CircleSuggestion, UndecodableFilesGiveNoSuggestion) {
    const auto withOffset =
        CircleSuggestion::fromJSON(suggestionFile("1", "0.5", "2026-03-01T10:30:00.250+01:00"));
    ASSERT_TRUE(withOffset) << "the files below differ from this one by one value each";
    EXPECT_EQ(formatIso8601(withOffset->madeAt), "2026-03-01T09:30:00Z");
    for (const std::string& json : {
             std::string(),
             std::string("[]"),
             std::string("{"),
             suggestionFile("9", "1", "2026-03-01T09:30:00Z"),
             suggestionFile("2", "\"high\"", "2026-03-01T09:30:00Z"),
             suggestionFile("2", "1", "yesterday"),
             suggestionFile("2", "1", ""),
             // Found by fuzzing: a circle or a year out of range overflowed.
             suggestionFile("1e111", "1", "2026-03-01T12:00:00Z"),
             suggestionFile("2", "1", "1012-03-01T12:00:00Z"),
             suggestionFile("2", "1", "9999-12-31T23:59:59Z"),
             // Found by fuzzing: a confidence far past one overflowed the percentage.
             suggestionFile("3", "4.4e26", "2024-01-01T12:00:00Z"),
             suggestionFile("3", "-0.5", "2024-01-01T12:00:00Z"),
         }) {
        EXPECT_EQ(CircleSuggestion::fromJSON(json), std::nullopt) << json;
    }
}

TEST(Iso8601, ParsesTheCommonFormsAndRejectsTheRest) {
    EXPECT_EQ(parseIso8601("2001-01-01T00:00:00Z").value().time_since_epoch(),
              std::chrono::seconds(978307200));
    EXPECT_EQ(parseIso8601("2001-01-01T02:00:00+0200"), parseIso8601("2001-01-01T00:00:00Z"));
    EXPECT_EQ(parseIso8601("2000-12-31T20:00:00-04"), parseIso8601("2001-01-01T00:00:00Z"));
    for (const char* bad : {"", "2001-02-30T00:00:00Z", "2001-01-01 00:00:00Z", "2001-01-01T00:00:00",
                            "2001-01-01T24:00:00Z", "2001-01-01T00:00:00.Z", "2001-01-01T00:00:00Zjunk"}) {
        EXPECT_EQ(parseIso8601(bad), std::nullopt) << bad;
    }
}

} // namespace
} // namespace kinbook
