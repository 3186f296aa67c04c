#include "KinbookKit/text/AddressParser.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kinbook {

// Found by argument-dependent lookup, so that a failure shows the parts.
void PrintTo(const AddressParser::Parsed& p, std::ostream* os);
void PrintTo(const AddressParser::Parsed& p, std::ostream* os) {
    *os << "{street=\"" << p.street << "\" city=\"" << p.city << "\" state=\"" << p.state
        << "\" postalCode=\"" << p.postalCode << "\" country=\"" << p.country << "\"}";
}

namespace {

using Parsed = AddressParser::Parsed;

struct AddressCase {
    const char* text;
    Parsed expected;
};

// Every address a pasted text holds, split into its parts.
TEST(AddressParser, PastedAddressesSplitIntoParts) {
    const AddressCase cases[] = {
        // North American addresses, pasted from a page or a signature.
        {"295 park avenue south Apt 8J , manhattan, NY",
         {"295 Park Avenue South\nApt 8J", "Manhattan", "NY", "", ""}},
        {"1600 Pennsylvania Avenue NW, Washington, DC 20500",
         {"1600 Pennsylvania Avenue NW", "Washington", "DC", "20500", ""}},
        {"350 Fifth Avenue, New York, NY 10118-0110, USA",
         {"350 Fifth Avenue", "New York", "NY", "10118-0110", "USA"}},
        {"John Appleseed\nApple Inc.\n1 Infinite Loop\nCupertino, CA 95014\nUnited States",
         {"1 Infinite Loop", "Cupertino", "CA", "95014", "United States"}},
        {"123 Main St\nApt 4\nSpringfield, IL 62701",
         {"123 Main St\nApt 4", "Springfield", "IL", "62701", ""}},
        {"123 Main St, Apt 4, Springfield, IL 62701",
         {"123 Main St\nApt 4", "Springfield", "IL", "62701", ""}},
        {"742 Evergreen Terrace, Springfield, Oregon 97403",
         {"742 Evergreen Terrace", "Springfield", "Oregon", "97403", ""}},
        {"12 Main St # 5, Boston, MA 02108", {"12 Main St\n#5", "Boston", "MA", "02108", ""}},
        {"350 5th ave, new york, ny 10118", {"350 5th Ave", "New York", "NY", "10118", ""}},
        {"100 w 33rd st apt 5b, new york, ny 10001",
         {"100 W 33rd St\nApt 5B", "New York", "NY", "10001", ""}},
        {"55 mcdonald ave, brooklyn, ny 11218", {"55 McDonald Ave", "Brooklyn", "NY", "11218", ""}},
        {"1 main st, austin, texas 78701", {"1 Main St", "Austin", "Texas", "78701", ""}},
        {"New York, New York 10001", {"", "New York", "New York", "10001", ""}},
        {"Springfield, IL 62701", {"", "Springfield", "IL", "62701", ""}},
        {"400 Broad St, Seattle, WA\n98109", {"400 Broad St", "Seattle", "WA", "98109", ""}},
        // Without commas the street ends at its kind-of-street word, then any
        // direction and unit; the city is what follows.
        {"1 Infinite Loop Cupertino CA 95014", {"1 Infinite Loop", "Cupertino", "CA", "95014", ""}},
        {"1600 Pennsylvania Ave NW Washington DC 20500",
         {"1600 Pennsylvania Ave NW", "Washington", "DC", "20500", ""}},
        {"123 Main St St. Louis MO 63101", {"123 Main St", "St. Louis", "MO", "63101", ""}},
        {"100 Court Street Springfield IL 62701", {"100 Court Street", "Springfield", "IL", "62701", ""}},
        {"295 park avenue south apt 8j manhattan ny 10010",
         {"295 Park Avenue South\nApt 8J", "Manhattan", "NY", "10010", ""}},
        // Addresses inside a sentence.
        {"Meet me at 295 Park Ave S, New York, NY 10010 tomorrow at noon.",
         {"295 Park Ave S", "New York", "NY", "10010", ""}},
        {"meet me at 12 oak st, springfield, IL tomorrow", {"12 Oak St", "Springfield", "IL", "", ""}},
        {"The office moved to 500 Main Street, St. Louis, MO 63101 last spring.",
         {"500 Main Street", "St. Louis", "MO", "63101", ""}},
        {"Address: 221B Baker Street, London NW1 6XE.", {"221B Baker Street", "London", "", "NW1 6XE", ""}},
        {"Ich wohne in der Musterstraße 5, 10115 Berlin.", {"Musterstraße 5", "Berlin", "", "10115", ""}},
        {"Bis morgen in der Zeil 10, 60313 Frankfurt am Main und dann weiter",
         {"Zeil 10", "Frankfurt am Main", "", "60313", ""}},
        {"Send it to me in Springfield, IL 62701 please", {"", "Springfield", "IL", "62701", ""}},
        // Canadian addresses keep province and postal code.
        {"24 Sussex Drive, Ottawa, ON K1M 1M4, Canada",
         {"24 Sussex Drive", "Ottawa", "ON", "K1M 1M4", "Canada"}},
        {"1000 rue Sherbrooke Ouest\nMontréal, Québec h3a3g4",
         {"1000 Rue Sherbrooke Ouest", "Montréal", "Québec", "H3A 3G4", ""}},
        {"200 Bay St, Toronto, Ontario M5J 2J2", {"200 Bay St", "Toronto", "Ontario", "M5J 2J2", ""}},
        // Elsewhere the postcode stands beside the city.
        {"10 Downing Street, London SW1A 2AA, United Kingdom",
         {"10 Downing Street", "London", "", "SW1A 2AA", "United Kingdom"}},
        {"221B Baker Street\nLondon\nNW1 6XE", {"221B Baker Street", "London", "", "NW1 6XE", ""}},
        {"Musterstraße 5, 10115 Berlin, Deutschland",
         {"Musterstraße 5", "Berlin", "", "10115", "Deutschland"}},
        {"Musterstraße 5\n10115 Berlin\nGermany", {"Musterstraße 5", "Berlin", "", "10115", "Germany"}},
        {"musterstraße 5, 10115 berlin, germany", {"Musterstraße 5", "Berlin", "", "10115", "Germany"}},
        {"10 Rue de Rivoli, 75001 Paris, France", {"10 Rue de Rivoli", "Paris", "", "75001", "France"}},
        {"12, rue de la Paix, 75002 Paris", {"12, Rue de la Paix", "Paris", "", "75002", ""}},
        {"Damrak 1, 1012 LG Amsterdam, Nederland", {"Damrak 1", "Amsterdam", "", "1012 LG", "Nederland"}},
        {"Bahnhofstrasse 1, 8001 Zürich", {"Bahnhofstrasse 1", "Zürich", "", "8001", ""}},
        {"Frankfurter Allee 1, 10247 Berlin Germany",
         {"Frankfurter Allee 1", "Berlin", "", "10247", "Germany"}},
        {"1 Martin Place, Sydney NSW 2000, Australia",
         {"1 Martin Place", "Sydney", "NSW", "2000", "Australia"}},
        {"Rue de la Loi 16, 1000 Bruxelles, Belgique",
         {"Rue de la Loi 16", "Bruxelles", "", "1000", "Belgique"}},
        {"3 rue de l'église, 69001 lyon, france", {"3 Rue de l'Église", "Lyon", "", "69001", "France"}},
        {"Hauptstr. 12a, 80331 München, Germany", {"Hauptstr. 12a", "München", "", "80331", "Germany"}},
        {"1 rue de rivoli 75001 paris", {"1 Rue de Rivoli", "Paris", "", "75001", ""}},
        {"ul. Marszałkowska 1, 00-624 Warszawa, Polska",
         {"ul. Marszałkowska 1", "Warszawa", "", "00-624", "Polska"}},
        {"Drottninggatan 1, 111 51 Stockholm", {"Drottninggatan 1", "Stockholm", "", "111 51", ""}},
        // Only words typed in lower case change; what the user capitalised stays.
        {"1 avenue of the americas, new york, new york 10020",
         {"1 Avenue of the Americas", "New York", "New York", "10020", ""}},
        {"12 o'brien st, winston-salem, nc 27101", {"12 O'Brien St", "Winston-Salem", "NC", "27101", ""}},
        {"5 ne 3rd ave, fort lauderdale, fl 33301", {"5 NE 3rd Ave", "Fort Lauderdale", "FL", "33301", ""}},
        {"8 main st, des moines, ia 50309", {"8 Main St", "Des Moines", "IA", "50309", ""}},
        {"1 main st, mcallen, tx 78501", {"1 Main St", "McAllen", "TX", "78501", ""}},
        {"2 rue de la paix, 93200 saint-denis, france",
         {"2 Rue de la Paix", "Saint-Denis", "", "93200", "France"}},
        {"1 Henley St, stratford-upon-avon CV37 6QW",
         {"1 Henley St", "Stratford-upon-Avon", "", "CV37 6QW", ""}},
        {"9 Elm St, DeKalb, IL 60115", {"9 Elm St", "DeKalb", "IL", "60115", ""}},
        {"295 PARK AVENUE SOUTH, NEW YORK, NY 10010",
         {"295 PARK AVENUE SOUTH", "NEW YORK", "NY", "10010", ""}},
        {"10 Main St., Springfield, Il. 62701", {"10 Main St.", "Springfield", "IL", "62701", ""}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(AddressParser::parse(c.text), std::optional<Parsed>(c.expected)) << c.text;
    }
}

TEST(AddressParser, TextWithoutCityStateOrPostalCodeIsNotAnAddress) {
    const char* cases[] = {
        "",
        "   \n\t ",
        "295 Park Avenue South",
        "295 Park Avenue South Apt 8J",
        "Hello, how are you?",
        "Call me at 555-1234",
        "I was born in 1990 and moved in 2004",
        "I have 10115 reasons, or more",
        "1234 people came, and 56 left",
        "we went in, or out",
        "United States",
        "Apt 4",
        ",,,;;;\n\n,",
    };
    for (const char* text : cases) {
        EXPECT_EQ(AddressParser::parse(text), std::nullopt) << text;
    }
}

TEST(AddressParser, SplitUnitMovesOnlyAUnitAfterAStreetToItsOwnLine) {
    const std::pair<std::string, std::string> moved[] = {
        {"12 Main St # 5", "12 Main St\n#5"},
        {"295 Park Avenue South Apt 8J", "295 Park Avenue South\nApt 8J"},
        {"1 Main St, Suite 200", "1 Main St\nSuite 200"},
        {"1 Main St Ste. 200", "1 Main St\nSte. 200"},
        {"10 Elm St, Fl 3,", "10 Elm St\nFl 3"},
        {"12 main st APT 4", "12 main st\nAPT 4"},
        {"12 Main St, #5-B", "12 Main St\n#5-B"},
        {"  12 Main St #5  ", "12 Main St\n#5"},
        {"\n12 Main St #5\n", "12 Main St\n#5"},
        {"12 Main St Unit \xC3\x84"
         "1",
         "12 Main St\nUnit \xC3\x84"
         "1"}, // \w takes letters beyond ASCII
        // Broken UTF-8 and a NUL in the street do not hide the unit.
        {"12 Main \xFF St Apt 4", "12 Main \xFF St\nApt 4"},
        {std::string("12 Main St\0 #5", 14), std::string("12 Main St\0\n#5", 14)},
    };
    for (const auto& [street, expected] : moved) {
        EXPECT_EQ(AddressParser::splitUnit(street), expected) << street;
    }
    const char* alone[] = {
        "Apt 4",             // the match starts the line
        "#5",                // likewise
        ", Apt 4",           // nothing but commas before it
        "12 Main St\nApt 4", // already two lines
        "12 Main St\n\nApt 4",
        "12 Main Street",
        "12 Main St #",     // "#" without a designation
        "12 Main St unitX", // not a whole word
        "12 Main St Apt 4 Rear",
        "",
        " \n ",
    };
    for (const char* street : alone) {
        EXPECT_EQ(AddressParser::splitUnit(street), street) << street;
    }
}

TEST(AddressParser, HostileInputNeverCrashes) {
    std::string everyByte;
    for (int i = 0; i < 256; ++i) {
        everyByte.push_back(static_cast<char>(i));
    }
    (void)AddressParser::parse(everyByte);
    (void)AddressParser::splitUnit(everyByte);

    // Broken UTF-8 around an address does not hide it.
    const auto broken = AddressParser::parse("\xFF\xFE 1 Infinite Loop, Cupertino\xC3, CA 95014 \xE2\x82");
    ASSERT_TRUE(broken.has_value());
    EXPECT_EQ(broken->state, "CA");
    EXPECT_EQ(broken->postalCode, "95014");
}

// A huge text is pasted by accident now and then; each of these must finish
// promptly rather than backtrack for hours. A quarter megabyte is enough to
// expose quadratic work (some 10^10 steps) while keeping the sanitizer build
// quick.
TEST(AddressParser, HugeTextsStayFast) {
    const std::size_t size = 1 << 18;
    const std::string spaces(size, ' ');
    EXPECT_EQ(AddressParser::splitUnit("1 Main St" + spaces + "x"), "1 Main St" + spaces + "x");
    EXPECT_EQ(AddressParser::splitUnit("1 Main St" + spaces + "Apt 5"), "1 Main St\nApt 5");
    EXPECT_EQ(AddressParser::parse(spaces), std::nullopt);

    std::string hashes;
    while (hashes.size() < size) {
        hashes += "# ";
    }
    EXPECT_EQ(AddressParser::splitUnit(hashes + "x y"), hashes + "x y");

    std::string filler;
    while (filler.size() < size) {
        filler += "lorem ipsum 12 dolor, sit NY amet in 12345 ";
    }
    const auto found = AddressParser::parse(filler + "\n1 Infinite Loop, Cupertino, CA 95014");
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->city, "Cupertino");

    std::string streets;
    while (streets.size() < size) {
        streets += "12 Main St ";
    }
    EXPECT_EQ(AddressParser::parse(streets), std::nullopt);
}

TEST(AddressParser, ConcurrentCallersAgree) {
    const Parsed expected{"295 Park Avenue South\nApt 8J", "Manhattan", "NY", "", ""};
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (std::size_t t = 0; t < failures.size(); ++t) {
        threads.emplace_back([t, &failures, &expected] {
            for (int i = 0; i < 300; ++i) {
                if (AddressParser::parse("295 park avenue south Apt 8J , manhattan, NY") != expected ||
                    AddressParser::splitUnit("12 Main St # 5") != "12 Main St\n#5") {
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
