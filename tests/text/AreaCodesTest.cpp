#include "KinbookKit/text/AreaCodes.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kinbook {
namespace {

// The region of a row is the section its people are listed under: a row
// moved to another region, a state filed under two regions (its people split
// across two sections) or a toll-free code given a place all misfile people.
TEST(AreaCodes, EveryRegionHasItsRowsAndEveryPlaceOneRegion) {
    std::map<std::string, int> counts;
    std::map<std::string, std::string> regionOf;
    std::set<std::string> tollFree;
    for (const auto& row : AreaCodes::northAmericanCodes()) {
        ++counts[std::string(row.region)];
        const auto [it, inserted] = regionOf.emplace(std::string(row.place), std::string(row.region));
        EXPECT_EQ(it->second, row.region) << row.code << " " << row.place;
        EXPECT_EQ(row.region.empty(), row.place == "Toll-free") << row.code;
        if (row.region.empty()) {
            tollFree.insert(std::string(row.code));
        }
    }
    const std::map<std::string, int> expected = {
        {"Northeast", 62}, {"South", 129},      {"Midwest", 90}, {"West", 73}, {"Canada", 54},
        {"Caribbean", 20}, {"US Territory", 6}, {"Atlantic", 1}, {"", 7},
    };
    EXPECT_EQ(counts, expected);
    EXPECT_EQ(regionOf.size(), 85u); // a place spelled two ways shows as two
    EXPECT_EQ(tollFree, (std::set<std::string>{"800", "833", "844", "855", "866", "877", "888"}));
}

TEST(AreaCodes, EveryRowIsFoundByItsCodeWithItsPlace) {
    for (const auto& row : AreaCodes::northAmericanCodes()) {
        EXPECT_EQ(AreaCodes::findNorthAmerican(row.code), &row) << row.code;
    }
    for (const auto& row : AreaCodes::countryCodes()) {
        EXPECT_EQ(AreaCodes::findCountry(row.code), &row) << row.code;
    }
    for (const char* missing : {"", "211", "999", "000", "2", "20100", "800 "}) {
        EXPECT_EQ(AreaCodes::findNorthAmerican(missing), nullptr) << missing;
    }
    for (const char* missing : {"", "0", "999", "+44", "4"}) {
        EXPECT_EQ(AreaCodes::findCountry(missing), nullptr) << missing;
    }

    const AreaCodes::NorthAmericanCode rows[] = {
        {"201", "New Jersey", "Northeast"},
        {"204", "Manitoba", "Canada"},
        {"340", "US Virgin Islands", "US Territory"},
        {"441", "Bermuda", "Atlantic"},
        {"809", "Dominican Republic", "Caribbean"},
        {"867", "Yukon / NWT / Nunavut", "Canada"},
        {"902", "Nova Scotia / PEI", "Canada"},
        {"312", "Illinois", "Midwest"},
        {"415", "California", "West"},
        {"713", "Texas", "South"},
        {"787", "Puerto Rico", "US Territory"},
        {"876", "Jamaica", "Caribbean"},
    };
    for (const auto& row : rows) {
        const auto* found = AreaCodes::findNorthAmerican(row.code);
        ASSERT_NE(found, nullptr) << row.code;
        EXPECT_EQ(*found, row);
    }
    EXPECT_EQ(AreaCodes::countryCodes().size(), 91u);
    EXPECT_EQ(AreaCodes::twoDigitCountryCodes().size(), 44u);
    const AreaCodes::CountryCode countries[] = {
        {"1", "North America"}, {"20", "Egypt"}, {"212", "Morocco"}, {"49", "Germany"},
        {"852", "Hong Kong"},   {"98", "Iran"},  {"380", "Ukraine"},
    };
    for (const auto& row : countries) {
        const auto* found = AreaCodes::findCountry(row.code);
        ASSERT_NE(found, nullptr) << row.code;
        EXPECT_EQ(*found, row);
    }
}

// Each known country code must measure as long as it is, or a number from
// that country would be cut at the wrong place.
TEST(AreaCodes, CountryCodeLengthAgreesWithTheCountryTable) {
    for (const auto& row : AreaCodes::countryCodes()) {
        const std::string number = std::string(row.code) + "123456789";
        EXPECT_EQ(AreaCodes::countryCodeLength(number), static_cast<int>(row.code.size())) << row.code;
    }
    EXPECT_EQ(AreaCodes::countryCodeLength(""), 0);
    EXPECT_EQ(AreaCodes::countryCodeLength("7"), 1);
    EXPECT_EQ(AreaCodes::countryCodeLength("4"), 3);
    EXPECT_EQ(AreaCodes::countryCodeLength("999"), 3);
    EXPECT_EQ(AreaCodes::countryCodeLength("21"), 3);
}

TEST(AreaCodes, PhoneNumbersReduceToTheirCode) {
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {"(212) 555-0100", "212"},
        {"1 212 555 0100", "212"},
        {"+1 212 555 0100", "212"},
        {"001 212 555 0100", "212"},
        {"  +1 (416) 555-0100  ", "416"},
        {"212.555.0100", "212"},
        {"555-0100", std::nullopt},
        {"0212 555 0100", std::nullopt},
        {"1212 555 0100 9", std::nullopt}, // 12 digits
        {"2 212 555 0100", std::nullopt},  // 11 digits not starting with 1
        {"(112) 555-0100", std::nullopt},
        {"+44 20 7946 0000", "+44"},
        {"0044 20 7946 0000", "+44"},
        {"+7 495 123 45 67", "+7"},
        {"+49 30", std::nullopt},
        {"+49 301", std::nullopt}, // leaves only three digits
        {"+49 3012", "+49"},
        {"+380 44 123 4567", "+380"},
        {"+999 1234567", "+999"},
        {"+1 555 0100", "+1"},                 // not eleven digits: an ordinary one-digit country code
        {"+212 5 22 12 34 56", "+212"},        // Morocco, not New York
        {"0 0 44 20 7946 0000", std::nullopt}, // "0 0" is not the "00" prefix
        {"+", std::nullopt},
        {"00", std::nullopt},
        {"", std::nullopt},
        {"   ", std::nullopt},
        {"call me", std::nullopt},
        {std::string("\0\0", 2), std::nullopt},
        // Decimal digits of any script count: full-width digits and plus, as
        // typed on a Japanese keyboard, and Arabic-Indic digits (+20: Egypt).
        {"\xEF\xBC\x8B\xEF\xBC\x94\xEF\xBC\x94 20 7946 0000", "+44"},
        {"(\xEF\xBC\x92\xEF\xBC\x91\xEF\xBC\x92) 555-0100", "212"},
        {"+\xD9\xA2\xD9\xA0 \xD9\xA1\xD9\xA0 \xD9\xA1\xD9\xA2\xD9\xA3\xD9\xA4 "
         "\xD9\xA5\xD9\xA6\xD9\xA7\xD9\xA8",
         "+20"},
        // Superscripts are numeric but not digits of a phone number.
        {"212 555 0100\xC2\xB2", "212"},
        // Broken UTF-8 between the digits does not hide them.
        {"\xFF(212)\xC3 555\xE2\x82-0100\x80", "212"},
        {"+\xF0\x9F 44 20 7946 0000", "+44"},
    };
    for (const auto& [phone, code] : cases) {
        EXPECT_EQ(AreaCodes::areaCode(phone), code) << phone;
    }
}

TEST(AreaCodes, LabelsNameTheCodeThePlaceAndTheRegion) {
    const std::pair<const char*, const char*> cases[] = {
        {"212", "212 · New York · Northeast"},
        {"800", "800 · Toll-free"},
        {"202", "202 · Washington DC · South"},
        {"+44", "+44 · United Kingdom"},
        {"+7", "+7 · Russia / Kazakhstan"},
        {"+380", "+380 · Ukraine"},
        {"+1", "+1 · North America"},
        {"+999", "+999"},
        {"999", "999"},
        {"+", "+"},
        {"", ""},
    };
    for (const auto& [code, label] : cases) {
        EXPECT_EQ(AreaCodes::label(code), label) << code;
    }
}

TEST(AreaCodes, HostileInputNeverCrashes) {
    std::string everyByte;
    for (int i = 0; i < 256; ++i) {
        everyByte.push_back(static_cast<char>(i));
    }
    EXPECT_EQ(AreaCodes::areaCode(everyByte), std::nullopt); // far more than 11 digits
    EXPECT_EQ(AreaCodes::label(everyByte), everyByte);
    const std::string huge(1 << 20, '9');
    EXPECT_EQ(AreaCodes::areaCode(huge), std::nullopt);
    EXPECT_EQ(AreaCodes::areaCode("+" + huge), "+999");
}

TEST(AreaCodes, ConcurrentCallersAgree) {
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (std::size_t t = 0; t < failures.size(); ++t) {
        threads.emplace_back([t, &failures] {
            for (int i = 0; i < 2000; ++i) {
                if (AreaCodes::label(*AreaCodes::areaCode("+44 20 7946 0000")) != "+44 · United Kingdom" ||
                    AreaCodes::label(*AreaCodes::areaCode("(212) 555-0100")) !=
                        "212 · New York · Northeast") {
                    ++failures[t];
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, std::vector<int>(4, 0));
}

} // namespace
} // namespace kinbook
