#include "KinbookKit/text/Fold.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace kinbook {
namespace {

struct FoldCase {
    const char* input;
    const char* folded;
};

TEST(Fold, CaseAndDiacriticsFoldWithoutLocale) {
    const FoldCase cases[] = {
        {"", ""},
        {"Hello, World 42", "hello, world 42"},
        {"Émile Zola", "emile zola"},
        {"ÉMILE", "emile"},
        {"Straße", "strasse"},
        // Letters of their own, not a base letter plus marks, fold to the
        // plain letters people type for them.
        {"Søren Kierkegaard", "soren kierkegaard"},
        {"ØRSTED", "orsted"},
        {"Łódź Łukasz", "lodz lukasz"},
        {"Đorđević", "dordevic"},
        {"ÆSIR Œuvre", "aesir oeuvre"},
        {"Þór Aðalsteinn", "thor adalsteinn"},
        {"Kırıkkale", "kirikkale"},
        {"Ångström", "angstrom"},
        {"Crème Brûlée", "creme brulee"},
        {"İstanbul", "istanbul"},
        {"ΆΛΦΑ", "αλφα"},
        {"Dvořák", "dvorak"},
        {"Nguyễn", "nguyen"},
        {"ПЁТР", "петр"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(fold(c.input), c.folded) << c.input;
    }
}

TEST(Fold, DecomposedInputFoldsLikePrecomposed) {
    EXPECT_EQ(fold("E\xCC\x81mile"), "emile"); // E + combining acute
    EXPECT_EQ(fold("E\xCC\x81mile"), fold("Émile"));
}

TEST(Fold, HangulSurvivesBothComposedAndConjoining) {
    const std::string composed = "\xED\x95\x9C"; // 한
    const std::string conjoining = "\xE1\x84\x92\xE1\x85\xA1\xE1\x86\xAB";
    EXPECT_EQ(fold(composed), composed);
    EXPECT_EQ(fold(conjoining), composed);
    // Text with conjoining jamo is folded whole, and still makes ł plain.
    EXPECT_EQ(fold(conjoining + "\xC5\x81"), composed + "l");
}

TEST(Fold, InvalidUtf8PassesThroughAndNeverCrashes) {
    const std::string broken = std::string("Ab\xFF") + "C\xC3" + "d\xE2\x82";
    const std::string folded = fold(broken);
    EXPECT_EQ(folded, std::string("ab\xFF") + "c\xC3" + "d\xE2\x82");
    // Overlong forms and encoded surrogates are not UTF-8 either.
    EXPECT_EQ(fold("A\xE0\x80\x80"
                   "B"),
              "a\xE0\x80\x80"
              "b");
    EXPECT_EQ(fold("A\xED\xA0\x80"
                   "B"),
              "a\xED\xA0\x80"
              "b");
    EXPECT_EQ(fold("\xC1\x81"), "\xC1\x81");
    std::string everyByte;
    for (int i = 0; i < 256; ++i) {
        everyByte.push_back(static_cast<char>(i));
    }
    EXPECT_FALSE(fold(everyByte).empty());
}

TEST(Fold, SupplementaryPlaneLettersFold) {
    EXPECT_EQ(fold("\xF0\x90\x90\x80"), "\xF0\x90\x90\xA8"); // Deseret capital long I to small
    EXPECT_EQ(fold("😀 Ok"), "😀 ok");
}

TEST(Fold, FoldIntoAppends) {
    std::string key = "prefix:";
    foldInto(key, "ÀB");
    EXPECT_EQ(key, "prefix:ab");
}

TEST(Fold, ConcurrentFirstUseOfABlockIsSafe) {
    std::vector<std::thread> threads;
    std::vector<std::string> results(8);
    for (std::size_t i = 0; i < results.size(); ++i) {
        threads.emplace_back([&, i] { results[i] = fold("Ωμέγα Ψυχή ЖУК Ǆ"); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (const auto& result : results) {
        EXPECT_EQ(result, results.front());
    }
    EXPECT_EQ(results.front(), "ωμεγα ψυχη жук ǆ");
}

} // namespace
} // namespace kinbook
