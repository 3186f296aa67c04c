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
        {"E\xCC\x81mile", "emile"}, // decomposed: E + combining acute
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
        // Beyond the Basic Multilingual Plane: Deseret capital long I to small.
        {"\xF0\x90\x90\x80", "\xF0\x90\x90\xA8"},
        {"😀 Ok", "😀 ok"},
        // Hangul survives composed and conjoining (한); text with conjoining
        // jamo is folded whole, and still makes Ł plain.
        {"\xED\x95\x9C", "\xED\x95\x9C"},
        {"\xE1\x84\x92\xE1\x85\xA1\xE1\x86\xAB", "\xED\x95\x9C"},
        {"\xE1\x84\x92\xE1\x85\xA1\xE1\x86\xAB\xC5\x81", "\xED\x95\x9C"
                                                         "l"},
        // Bytes that are not UTF-8 (stray, cut short, overlong, an encoded
        // surrogate) pass through as they are.
        {"Ab\xFF"
         "C\xC3"
         "d\xE2\x82",
         "ab\xFF"
         "c\xC3"
         "d\xE2\x82"},
        {"A\xE0\x80\x80"
         "B",
         "a\xE0\x80\x80"
         "b"},
        {"A\xED\xA0\x80"
         "B",
         "a\xED\xA0\x80"
         "b"},
        {"\xC1\x81", "\xC1\x81"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(fold(c.input), c.folded) << c.input;
    }
}

TEST(Fold, FoldIntoAppendsAndEveryByteFolds) {
    std::string key = "prefix:";
    foldInto(key, "ÀB");
    EXPECT_EQ(key, "prefix:ab");
    std::string everyByte;
    for (int i = 0; i < 256; ++i) {
        everyByte.push_back(static_cast<char>(i));
    }
    // Only the ASCII capitals change: every lead byte here is followed by
    // another lead byte, so no character is complete.
    std::string expected = everyByte;
    for (char& c : expected) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    EXPECT_EQ(fold(everyByte), expected);
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
