#include "Kinbook/CirclePicker.h"

#include <gtest/gtest.h>

#include <QPushButton>

namespace kinbook {
namespace {

class CirclePickerTest : public ::testing::Test {
protected:
    CirclePickerTest() {
        QObject::connect(&picker, &CirclePicker::circleChosen,
                         [this](std::optional<ContactCircle> circle) { chosen.push_back(circle); });
    }

    CirclePicker picker;
    std::vector<std::optional<ContactCircle>> chosen;
    // Five closest and ten good friends: "your 15" holds fifteen.
    CircleCounts fullFifteen{{ContactCircle::closest, 5}, {ContactCircle::goodFriends, 10}};
};

TEST_F(CirclePickerTest, AFullCircleRefusesANewcomerWithItsNumbersAndChangesNothing) {
    picker.setPerson(std::nullopt, fullFifteen, std::nullopt);

    picker.choose(ContactCircle::goodFriends);

    EXPECT_TRUE(chosen.empty());
    EXPECT_EQ(picker.refusalText(), "Your 15 is full (15 of 15). Move someone out of it first.");
}

TEST_F(CirclePickerTest, MovingOutwardAndClearingAreNeverRefused) {
    picker.setPerson(ContactCircle::closest, fullFifteen, std::nullopt);
    picker.choose(ContactCircle::goodFriends);
    picker.choose(std::nullopt);
    picker.choose(ContactCircle::acquaintance);

    EXPECT_EQ(chosen, (std::vector<std::optional<ContactCircle>>{ContactCircle::goodFriends, std::nullopt,
                                                                 ContactCircle::acquaintance}));
    EXPECT_EQ(picker.refusalText(), "");
}

TEST_F(CirclePickerTest, ARefusalGoesAwayWithTheNextPerson) {
    picker.setPerson(std::nullopt, fullFifteen, std::nullopt);
    picker.choose(ContactCircle::closest);
    EXPECT_EQ(picker.refusalText(), "Your 5 is full (5 of 5). Move someone out of it first.");

    picker.setPerson(ContactCircle::friends, fullFifteen, std::nullopt);
    EXPECT_EQ(picker.refusalText(), "");
}

TEST_F(CirclePickerTest, ASuggestionShowsItsLineAndUseGoesThroughTheSameCheck) {
    CircleSuggestion suggestion;
    suggestion.circle = ContactCircle::goodFriends;
    suggestion.confidence = 0.875;
    suggestion.source = "messages";
    picker.setPerson(std::nullopt, fullFifteen, suggestion);

    EXPECT_EQ(picker.suggestionText(), QString::fromUtf8("Suggests Good Friends \u00B7 88%"));
    auto* use = picker.findChild<QPushButton*>();
    ASSERT_NE(use, nullptr);
    use->click();
    EXPECT_TRUE(chosen.empty());
    EXPECT_EQ(picker.refusalText(), "Your 15 is full (15 of 15). Move someone out of it first.");

    picker.setPerson(std::nullopt, {}, std::nullopt);
    EXPECT_EQ(picker.suggestionText(), "");
}

} // namespace
} // namespace kinbook
