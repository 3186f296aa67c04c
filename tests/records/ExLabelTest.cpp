#include "KinbookKit/records/ExLabel.h"

#include "KinbookKit/records/ContactCard.h"
#include "KinbookKit/records/StockLabel.h"

#include <gtest/gtest.h>

namespace kinbook {
namespace {

const std::string kWork(labelConstant(StockLabel::work));
const std::string kMobile(labelConstant(StockLabel::mobile));
const std::string kOther(labelConstant(StockLabel::other));

TEST(ExLabel, OnlyTheExactPrefixMarksFormerInAnyCase) {
    for (const char* former : {"ex-work", "EX-work", "Ex-Work", "ex-", "eX-Acme"}) {
        EXPECT_TRUE(ExLabel::isFormer(former)) << former;
    }
    for (const char* current :
         {"exwork", "ex work", "ex_work", "work", "", "e", "x-ex-work", "_$!<Work>!$_"}) {
        EXPECT_FALSE(ExLabel::isFormer(current)) << current;
    }
}

// Marking former uses the label's display name and never doubles the
// prefix; restoring turns stock names back into their constants.
TEST(ExLabel, FormerAndCurrentMarkAndRestoreTheLabel) {
    const std::string kSchool(labelConstant(StockLabel::school));
    const std::pair<std::string, std::string> formers[] = {
        {kWork, "ex-work"}, {kMobile, "ex-mobile"}, {"iPhone", "ex-iPhone"}, {"Acme", "ex-Acme"},
        {"", "ex-other"},   {"ex-work", "ex-work"}, {"Ex-Work", "Ex-Work"},
    };
    for (const auto& [label, former] : formers) {
        EXPECT_EQ(ExLabel::former(label), former) << label;
    }
    const std::pair<std::string, std::string> currents[] = {
        {"ex-work", kWork},
        {"EX-MOBILE", kMobile},
        {"ex-other", kOther},
        {"ex-iphone", "iPhone"},
        {"ex-school", kSchool},
        {"ex-Acme", "Acme"},
        {"ex-", ""},
        // Not every stock label is restorable: "pager" is not among them, so it
        // comes back as custom text that still reads the same.
        {"ex-pager", "pager"},
        {kWork, kWork}, // not former: unchanged
    };
    for (const auto& [former, current] : currents) {
        EXPECT_EQ(ExLabel::current(former), current) << former;
    }
    for (StockLabel stock :
         {StockLabel::mobile, StockLabel::iPhone, StockLabel::home, StockLabel::work, StockLabel::other,
          StockLabel::main, StockLabel::iCloud, StockLabel::homepage, StockLabel::school}) {
        const std::string constant(labelConstant(stock));
        const std::string former = ExLabel::former(constant);
        EXPECT_TRUE(ExLabel::isFormer(former)) << constant;
        EXPECT_EQ(ExLabel::current(former), constant) << constant;
    }
}

TEST(ExLabel, FormerLastIsAStablePartition) {
    using Item = ContactCard::Item;
    const std::vector<Item> emails = {
        {"ex-a", "1", "i1"}, {"b", "2", "i2"}, {"Ex-c", "3", "i3"}, {"d", "4", "i4"}};
    const auto ordered = ExLabel::formerLast(emails);
    std::vector<std::string> labels;
    for (const auto& item : ordered) {
        labels.push_back(item.label);
    }
    EXPECT_EQ(labels, (std::vector<std::string>{"b", "d", "ex-a", "Ex-c"}));
}

TEST(ExLabel, MenuTexts) {
    EXPECT_EQ(ExLabel::markAsFormerTitle(kWork), "Mark as Former (ex-work)");
    EXPECT_EQ(ExLabel::markAsFormerRowTitle(""), "Mark as Former (ex-other)");
    EXPECT_EQ(ExLabel::markAsFormerRowTitle("home"), "Mark as Former (ex-home)");
}

TEST(StockLabel, ConstantsAndDisplayNamesMapBothWays) {
    for (StockLabel stock : allStockLabels()) {
        EXPECT_EQ(stockLabelForConstant(labelConstant(stock)), stock);
        EXPECT_EQ(stockLabelForDisplayName(labelDisplayName(stock)), stock);
        EXPECT_EQ(labelFromDisplayName(localizedLabel(labelConstant(stock))), labelConstant(stock));
    }
    EXPECT_EQ(localizedLabel("_$!<HomeFAX>!$_"), "home fax");
    EXPECT_EQ(localizedLabel("Gym"), "Gym");
    EXPECT_EQ(labelFromDisplayName("Work"), kWork);
    EXPECT_EQ(labelFromDisplayName("ex-work"), "ex-work");
}

} // namespace
} // namespace kinbook
