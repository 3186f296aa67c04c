#include "KinbookKit/text/AddressParser.h"

#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/text/CodePoints.h"
#include "KinbookKit/text/Fold.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>
#include <utf8proc.h>

namespace kinbook {
namespace {

// ---------------------------------------------------------------------------
// Characters

bool isLineBreak(std::int32_t value) {
    return value == '\n' || value == '\r' || value == '\v' || value == '\f' || value == 0x85 ||
           value == 0x2028 || value == 0x2029;
}

bool isLetterCodePoint(std::int32_t value) {
    if (value < 0x80) {
        return value >= 0 && isAsciiLetter(static_cast<char>(value));
    }
    const auto category = utf8proc_category(value);
    return category >= UTF8PROC_CATEGORY_LU && category <= UTF8PROC_CATEGORY_LO;
}

bool isUpperCodePoint(std::int32_t value) {
    if (value < 0x80) {
        return value >= 'A' && value <= 'Z';
    }
    const auto category = utf8proc_category(value);
    return category == UTF8PROC_CATEGORY_LU || category == UTF8PROC_CATEGORY_LT;
}

bool hasUpperLetter(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto c = decodeAt(text, i);
        if (isUpperCodePoint(c.value)) {
            return true;
        }
        i += c.length;
    }
    return false;
}

bool hasLetter(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto c = decodeAt(text, i);
        if (isLetterCodePoint(c.value)) {
            return true;
        }
        i += c.length;
    }
    return false;
}

// White space at either end, Unicode spaces included.
std::string_view trimWhitespace(std::string_view text) {
    std::size_t begin = 0;
    while (begin < text.size()) {
        const auto c = decodeAt(text, begin);
        if (!isSpaceCodePoint(c.value)) {
            break;
        }
        begin += c.length;
    }
    std::size_t end = text.size();
    while (end > begin) {
        // Step back to the start of the last code point.
        std::size_t start = end - 1;
        while (start > begin && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80 && end - start < 4) {
            --start;
        }
        const auto c = decodeAt(text, start);
        if (start + c.length != end || !isSpaceCodePoint(c.value)) {
            break;
        }
        end = start;
    }
    return text.substr(begin, end - begin);
}

std::string_view trimWhitespaceAndCommas(std::string_view text) {
    for (;;) {
        const auto trimmed = trimWhitespace(text);
        std::size_t begin = 0;
        std::size_t end = trimmed.size();
        while (begin < end && trimmed[begin] == ',') {
            ++begin;
        }
        while (end > begin && trimmed[end - 1] == ',') {
            --end;
        }
        if (begin == 0 && end == trimmed.size()) {
            return trimmed;
        }
        text = trimmed.substr(begin, end - begin);
    }
}

// ---------------------------------------------------------------------------
// Word lists. Keys are folded (lower case, no diacritics, no periods).

template <std::size_t N>
constexpr bool contains(const std::array<std::string_view, N>& list, std::string_view key) {
    return std::find(list.begin(), list.end(), key) != list.end();
}

// Words that name the kind of street, in the languages whose addresses are
// pasted most; "St" and "Ave" are how most people type them.
constexpr auto kStreetWords = std::to_array<std::string_view>({
    "street",  "st",       "avenue",  "ave",        "av",       "road",     "rd",        "boulevard",
    "blvd",    "lane",     "ln",      "drive",      "dr",       "way",      "place",     "pl",
    "court",   "ct",       "terrace", "ter",        "highway",  "hwy",      "parkway",   "pkwy",
    "square",  "sq",       "circle",  "cir",        "crescent", "cres",     "close",     "trail",
    "trl",     "alley",    "row",     "walk",       "broadway", "plaza",    "plz",       "loop",
    "pike",    "turnpike", "tpke",    "expressway", "expy",     "freeway",  "fwy",       "route",
    "rte",     "path",     "mews",    "grove",      "gardens",  "causeway", "esplanade", "embankment",
    "heights", "crossing", "rue",     "bd",         "chemin",   "allee",    "quai",      "impasse",
    "cours",   "voie",     "via",     "viale",      "piazza",   "piazzale", "corso",     "vicolo",
    "largo",   "calle",    "avenida", "paseo",      "camino",   "carrera",  "rua",       "travessa",
    "praca",   "strasse",  "str",     "weg",        "gasse",    "platz",    "ring",      "damm",
    "ufer",    "straat",   "laan",    "gracht",     "plein",    "kade",     "singel",    "dijk",
    "markt",   "gate",     "gata",    "gatan",      "gade",     "vej",      "veien",     "vagen",
    "ulica",   "ul",       "centre",  "center",     "wharf",    "quay",     "hill",      "park",
    "green",
});

// Endings of compound street names ("Musterstraße", "Keizersgracht").
constexpr auto kStreetEndings = std::to_array<std::string_view>({
    "strasse", "str",   "weg",  "gasse",  "platz", "allee", "damm", "ufer", "chaussee", "straat", "laan",
    "gracht",  "plein", "kade", "singel", "gatan", "gata",  "gade", "vej",  "veien",    "vagen",  "steig",
});

// Words after which a street name ends and the city begins on one line:
// the kind of street, then maybe a direction and a unit.
constexpr auto kStreetSuffixes = std::to_array<std::string_view>({
    "street",  "st",       "avenue",  "ave",        "av",       "road",     "rd",        "boulevard",
    "blvd",    "lane",     "ln",      "drive",      "dr",       "way",      "place",     "pl",
    "court",   "ct",       "terrace", "ter",        "highway",  "hwy",      "parkway",   "pkwy",
    "square",  "sq",       "circle",  "cir",        "crescent", "cres",     "close",     "trail",
    "trl",     "alley",    "row",     "walk",       "broadway", "plaza",    "plz",       "loop",
    "pike",    "turnpike", "tpke",    "expressway", "expy",     "freeway",  "fwy",       "route",
    "rte",     "path",     "mews",    "grove",      "gardens",  "causeway", "esplanade", "embankment",
    "heights", "crossing", "strasse", "str",        "weg",      "gasse",    "platz",     "straat",
    "laan",    "gracht",   "wharf",   "quay",       "center",
});

constexpr auto kDirectionals = std::to_array<std::string_view>({
    "n",
    "s",
    "e",
    "w",
    "ne",
    "nw",
    "se",
    "sw",
    "north",
    "south",
    "east",
    "west",
    "northeast",
    "northwest",
    "southeast",
    "southwest",
});

constexpr auto kShortDirectionals =
    std::to_array<std::string_view>({"n", "s", "e", "w", "ne", "nw", "se", "sw"});

constexpr auto kUnitWords = std::to_array<std::string_view>({
    "apt",
    "apartment",
    "suite",
    "ste",
    "unit",
    "fl",
    "floor",
    "rm",
    "room",
    "bldg",
    "building",
    "flat",
    "#",
});

// Small words that stay lower case inside a name ("Avenue of the Americas",
// "Rue de la Paix", "Frankfurt am Main").
constexpr auto kConnectors = std::to_array<std::string_view>({
    "of",  "the",   "and", "de",  "du",   "des", "la",  "le",  "les", "di", "da",
    "del", "della", "dos", "das", "van",  "von", "der", "den", "am",  "an", "im",
    "zum", "zur",   "y",   "sur", "upon", "on",  "en",  "et",  "d",   "l",
});

// Words of the sentence around an address, never part of a city typed in
// lower case ("meet me in springfield, il").
constexpr auto kSentenceWords = std::to_array<std::string_view>({
    "me",    "at",     "in",   "to",      "the",  "my",     "i",       "is",   "are",    "live",
    "lives", "living", "meet", "send",    "mail", "ship",   "address", "from", "near",   "we",
    "our",   "you",    "your", "it",      "its",  "please", "visit",   "come", "office", "located",
    "moved", "move",   "stay", "staying", "and",  "or",     "see",     "us",   "here",   "there",
});

// State abbreviations that are also everyday English words.
constexpr auto kWordAbbreviations = std::to_array<std::string_view>({
    "in",
    "or",
    "me",
    "hi",
    "ok",
    "oh",
    "as",
    "id",
    "la",
    "pa",
    "ma",
    "mo",
    "al",
    "on",
    "de",
    "co",
    "sa",
    "nt",
});

struct Region {
    std::string_view abbreviation; // folded
    std::string_view name;         // as written
    std::string_view key;          // the name folded
};

constexpr std::array<Region, 56> kUsStates = {{
    {"al", "Alabama", "alabama"},
    {"ak", "Alaska", "alaska"},
    {"az", "Arizona", "arizona"},
    {"ar", "Arkansas", "arkansas"},
    {"ca", "California", "california"},
    {"co", "Colorado", "colorado"},
    {"ct", "Connecticut", "connecticut"},
    {"de", "Delaware", "delaware"},
    {"dc", "District of Columbia", "district of columbia"},
    {"fl", "Florida", "florida"},
    {"ga", "Georgia", "georgia"},
    {"hi", "Hawaii", "hawaii"},
    {"id", "Idaho", "idaho"},
    {"il", "Illinois", "illinois"},
    {"in", "Indiana", "indiana"},
    {"ia", "Iowa", "iowa"},
    {"ks", "Kansas", "kansas"},
    {"ky", "Kentucky", "kentucky"},
    {"la", "Louisiana", "louisiana"},
    {"me", "Maine", "maine"},
    {"md", "Maryland", "maryland"},
    {"ma", "Massachusetts", "massachusetts"},
    {"mi", "Michigan", "michigan"},
    {"mn", "Minnesota", "minnesota"},
    {"ms", "Mississippi", "mississippi"},
    {"mo", "Missouri", "missouri"},
    {"mt", "Montana", "montana"},
    {"ne", "Nebraska", "nebraska"},
    {"nv", "Nevada", "nevada"},
    {"nh", "New Hampshire", "new hampshire"},
    {"nj", "New Jersey", "new jersey"},
    {"nm", "New Mexico", "new mexico"},
    {"ny", "New York", "new york"},
    {"nc", "North Carolina", "north carolina"},
    {"nd", "North Dakota", "north dakota"},
    {"oh", "Ohio", "ohio"},
    {"ok", "Oklahoma", "oklahoma"},
    {"or", "Oregon", "oregon"},
    {"pa", "Pennsylvania", "pennsylvania"},
    {"ri", "Rhode Island", "rhode island"},
    {"sc", "South Carolina", "south carolina"},
    {"sd", "South Dakota", "south dakota"},
    {"tn", "Tennessee", "tennessee"},
    {"tx", "Texas", "texas"},
    {"ut", "Utah", "utah"},
    {"vt", "Vermont", "vermont"},
    {"va", "Virginia", "virginia"},
    {"wa", "Washington", "washington"},
    {"wv", "West Virginia", "west virginia"},
    {"wi", "Wisconsin", "wisconsin"},
    {"wy", "Wyoming", "wyoming"},
    {"pr", "Puerto Rico", "puerto rico"},
    {"vi", "Virgin Islands", "virgin islands"},
    {"gu", "Guam", "guam"},
    {"as", "American Samoa", "american samoa"},
    {"mp", "Northern Mariana Islands", "northern mariana islands"},
}};

constexpr std::array<Region, 16> kCanadianProvinces = {{
    {"ab", "Alberta", "alberta"},
    {"bc", "British Columbia", "british columbia"},
    {"mb", "Manitoba", "manitoba"},
    {"nb", "New Brunswick", "new brunswick"},
    {"nl", "Newfoundland and Labrador", "newfoundland and labrador"},
    {"nl", "Newfoundland", "newfoundland"},
    {"ns", "Nova Scotia", "nova scotia"},
    {"nt", "Northwest Territories", "northwest territories"},
    {"nu", "Nunavut", "nunavut"},
    {"on", "Ontario", "ontario"},
    {"pe", "Prince Edward Island", "prince edward island"},
    {"pei", "PEI", "pei"},
    {"qc", "Quebec", "quebec"},
    {"qc", "Québec", "quebec"},
    {"sk", "Saskatchewan", "saskatchewan"},
    {"yt", "Yukon", "yukon"},
}};

constexpr std::array<Region, 8> kAustralianStates = {{
    {"nsw", "New South Wales", "new south wales"},
    {"vic", "Victoria", "victoria"},
    {"qld", "Queensland", "queensland"},
    {"sa", "South Australia", "south australia"},
    {"wa", "Western Australia", "western australia"},
    {"tas", "Tasmania", "tasmania"},
    {"act", "Australian Capital Territory", "australian capital territory"},
    {"nt", "Northern Territory", "northern territory"},
}};

struct CountryName {
    std::string_view key;     // folded words
    std::string_view display; // how it is written
};

constexpr std::array<CountryName, 60> kCountries = {{
    {"united states of america", "United States of America"},
    {"united states", "United States"},
    {"usa", "USA"},
    {"us", "US"},
    {"canada", "Canada"},
    {"united kingdom", "United Kingdom"},
    {"uk", "UK"},
    {"great britain", "Great Britain"},
    {"england", "England"},
    {"scotland", "Scotland"},
    {"wales", "Wales"},
    {"northern ireland", "Northern Ireland"},
    {"ireland", "Ireland"},
    {"germany", "Germany"},
    {"deutschland", "Deutschland"},
    {"france", "France"},
    {"the netherlands", "The Netherlands"},
    {"netherlands", "Netherlands"},
    {"nederland", "Nederland"},
    {"holland", "Holland"},
    {"belgium", "Belgium"},
    {"belgie", "België"},
    {"belgique", "Belgique"},
    {"switzerland", "Switzerland"},
    {"schweiz", "Schweiz"},
    {"suisse", "Suisse"},
    {"svizzera", "Svizzera"},
    {"austria", "Austria"},
    {"osterreich", "Österreich"},
    {"italy", "Italy"},
    {"italia", "Italia"},
    {"spain", "Spain"},
    {"espana", "España"},
    {"portugal", "Portugal"},
    {"luxembourg", "Luxembourg"},
    {"denmark", "Denmark"},
    {"danmark", "Danmark"},
    {"sweden", "Sweden"},
    {"sverige", "Sverige"},
    {"norway", "Norway"},
    {"norge", "Norge"},
    {"finland", "Finland"},
    {"suomi", "Suomi"},
    {"iceland", "Iceland"},
    {"poland", "Poland"},
    {"polska", "Polska"},
    {"czechia", "Czechia"},
    {"czech republic", "Czech Republic"},
    {"austria", "Austria"},
    {"greece", "Greece"},
    {"australia", "Australia"},
    {"new zealand", "New Zealand"},
    {"mexico", "Mexico"},
    {"japan", "Japan"},
    {"brazil", "Brazil"},
    {"argentina", "Argentina"},
    {"india", "India"},
    {"china", "China"},
    {"south africa", "South Africa"},
    {"israel", "Israel"},
}};

// What the recogniser needs to know about a word, looked up once per word
// so that a long text costs one hash look-up per word.
enum WordClass : std::uint8_t {
    kEndsRegion = 1,   // an abbreviation or the last word of a state's name
    kStreetWord = 2,   // names a kind of street, anywhere in the street's name
    kStreetSuffix = 4, // names a kind of street and ends the street's name
};

const std::unordered_map<std::string_view, std::uint8_t>& wordClasses() {
    static const auto classes = [] {
        std::unordered_map<std::string_view, std::uint8_t> map;
        const auto add = [&map](const auto& regions) {
            for (const auto& region : regions) {
                map[region.abbreviation] |= kEndsRegion;
                map[region.key.substr(region.key.rfind(' ') + 1)] |= kEndsRegion;
            }
        };
        add(kUsStates);
        add(kCanadianProvinces);
        add(kAustralianStates);
        for (const auto word : kStreetWords) {
            map[word] |= kStreetWord;
        }
        for (const auto word : kStreetSuffixes) {
            map[word] |= kStreetSuffix;
        }
        return map;
    }();
    return classes;
}

// First words of every country name, for the same reason.
const std::unordered_set<std::string_view>& countryFirstWords() {
    static const auto words = [] {
        std::unordered_set<std::string_view> set;
        for (const auto& country : kCountries) {
            set.insert(country.key.substr(0, country.key.find(' ')));
        }
        return set;
    }();
    return words;
}

// Number of words in a folded name.
std::size_t wordCount(std::string_view key) {
    return static_cast<std::size_t>(std::count(key.begin(), key.end(), ' ')) + 1;
}

// ---------------------------------------------------------------------------
// Capitalisation

// "o'brien" -> "O'Brien", "saint-denis" -> "Saint-Denis", "mcdonald" ->
// "McDonald", "straße" -> "Straße". Connectors inside a hyphenated name stay
// lower case ("Stratford-upon-Avon").
std::string titleCase(std::string_view word) {
    std::string out;
    out.reserve(word.size() + 2);
    bool startOfPart = true;
    bool firstPart = true;
    for (std::size_t i = 0; i < word.size();) {
        const auto c = decodeAt(word, i);
        if (startOfPart && isLetterCodePoint(c.value)) {
            // Find the part (up to the next hyphen or apostrophe).
            std::size_t end = i;
            while (end < word.size() && word[end] != '-' && word[end] != '\'') {
                ++end;
            }
            const std::string part = fold(word.substr(i, end - i));
            const bool connector = !firstPart && contains(kConnectors, part);
            // A single letter after an apostrophe is an ending ("joe's").
            const bool ending = i > 0 && word[i - 1] == '\'' && end - i == 1 && !firstPart;
            if (connector || ending) {
                out.append(word.substr(i, end - i));
            } else if (part.size() > 3 && part.compare(0, 2, "mc") == 0 && isAsciiLetter(word[i + 2])) {
                out.push_back('M');
                out.push_back('c');
                out.push_back(asciiUpper(word[i + 2]));
                out.append(word.substr(i + 3, end - i - 3));
            } else {
                appendCodePoint(out, utf8proc_totitle(c.value));
                out.append(word.substr(i + c.length, end - i - c.length));
            }
            i = end;
            startOfPart = false;
            firstPart = false;
            continue;
        }
        if (c.value == '-' || c.value == '\'') {
            startOfPart = true;
        }
        out.append(word.substr(i, c.length));
        i += c.length;
    }
    return out;
}

bool isOrdinal(std::string_view word) {
    std::size_t digits = 0;
    while (digits < word.size() && isAsciiDigit(word[digits])) {
        ++digits;
    }
    if (digits == 0) {
        return false;
    }
    std::string_view rest = word.substr(digits);
    if (!rest.empty() && rest.back() == '.') {
        rest.remove_suffix(1);
    }
    std::string lower(rest);
    for (auto& ch : lower) {
        ch = static_cast<char>(ch >= 'A' && ch <= 'Z' ? ch - 'A' + 'a' : ch);
    }
    return lower == "st" || lower == "nd" || lower == "rd" || lower == "th";
}

std::string foldedKey(std::string_view word) {
    std::string withoutPeriods;
    withoutPeriods.reserve(word.size());
    for (char c : word) {
        if (c != '.') {
            withoutPeriods.push_back(c);
        }
    }
    return fold(withoutPeriods);
}

// Capitalises the lower-case words of one street line the way people write
// addresses. Words the user already capitalised are left alone.
std::string capitaliseStreetLine(std::string_view line) {
    std::string out;
    bool firstAlphabetic = true;
    std::string previousKey;
    std::size_t i = 0;
    while (i < line.size()) {
        const auto space = line.find(' ', i);
        const auto end = space == std::string_view::npos ? line.size() : space;
        const std::string_view word = line.substr(i, end - i);
        if (!out.empty() || i > 0) {
            out.push_back(' ');
        }
        const std::string key = foldedKey(word);
        if (word.empty()) {
            // Collapsed below.
        } else if (hasUpperLetter(word)) {
            out.append(word);
            if (hasLetter(word) && !isAsciiDigit(word[0]) && word[0] != '#') {
                firstAlphabetic = false;
            }
        } else if (isAsciiDigit(word[0]) || word[0] == '#') {
            // A letter after a leading house number or a unit reads as a
            // capital ("221B", "Apt 8J", "#5B"); one after a house number at
            // the end ("Hauptstr. 12a") is kept as typed, the German way.
            const bool designation = out.empty() || word[0] == '#' || contains(kUnitWords, previousKey);
            if (isOrdinal(word) || !designation) {
                out.append(word);
            } else {
                for (char c : word) {
                    out.push_back(asciiUpper(c));
                }
            }
        } else {
            if (contains(kShortDirectionals, key) || key == "po") {
                for (char c : word) {
                    out.push_back(asciiUpper(c));
                }
            } else if ((!firstAlphabetic && contains(kConnectors, key)) ||
                       ((key == "ul" || key == "al" || key == "os") && word.back() == '.')) {
                // Small words, and the Polish "ul." (street), "al." (avenue)
                // and "os." (estate), are written in lower case.
                out.append(word);
            } else if (!firstAlphabetic && word.size() > 2 && (word[0] == 'l' || word[0] == 'd') &&
                       word[1] == '\'') {
                // French elision: "rue de l'église" -> "Rue de l'Église".
                out.append(word.substr(0, 2));
                out.append(titleCase(word.substr(2)));
            } else {
                out.append(titleCase(word));
            }
            if (hasLetter(word)) {
                firstAlphabetic = false;
            }
        }
        if (!word.empty()) {
            previousKey = key;
        }
        i = end + (space == std::string_view::npos ? 0 : 1);
    }
    // Collapse runs of spaces left by empty words.
    std::string collapsed;
    collapsed.reserve(out.size());
    for (char c : out) {
        if (c == ' ' && (collapsed.empty() || collapsed.back() == ' ')) {
            continue;
        }
        collapsed.push_back(c);
    }
    while (!collapsed.empty() && collapsed.back() == ' ') {
        collapsed.pop_back();
    }
    return collapsed;
}

// A city typed all in lower case is capitalised word by word; one the user
// capitalised is kept as typed ("McAllen", "DeKalb").
std::string capitaliseCity(std::string_view city) {
    if (hasUpperLetter(city)) {
        return std::string(city);
    }
    std::string out;
    bool first = true;
    std::size_t i = 0;
    while (i <= city.size()) {
        const auto space = city.find(' ', i);
        const auto end = space == std::string_view::npos ? city.size() : space;
        const std::string_view word = city.substr(i, end - i);
        if (!word.empty()) {
            if (!out.empty()) {
                out.push_back(' ');
            }
            const std::string key = foldedKey(word);
            out.append(!first && contains(kConnectors, key) ? std::string(word) : titleCase(word));
            first = false;
        }
        if (space == std::string_view::npos) {
            break;
        }
        i = end + 1;
    }
    return out;
}

// ---------------------------------------------------------------------------
// Tokens

struct Token {
    std::size_t begin = 0; // raw span in the text
    std::size_t end = 0;
    std::size_t coreBegin = 0; // the span without surrounding punctuation
    std::size_t coreEnd = 0;
    std::string key; // folded core without periods
    std::size_t segment = 0;
    bool mayEndRegion = false; // an abbreviation or the last word of a state's name
    bool streetWord = false;   // names a kind of street, anywhere in its name
    bool streetSuffix = false; // names a kind of street, and ends the name
};

bool hasStreetEnding(std::string_view key) {
    for (const auto ending : kStreetEndings) {
        if (key.size() >= ending.size() + 3 && key.substr(key.size() - ending.size()) == ending) {
            return true;
        }
    }
    return false;
}

struct Segment {
    std::size_t first = 0; // token indices, [first, last)
    std::size_t last = 0;
    bool startsLine = false;
};

struct Range {
    std::size_t first = 0;
    std::size_t last = 0;
    bool empty() const { return first >= last; }
    std::size_t size() const { return empty() ? 0 : last - first; }
};

// Punctuation that may wrap a word in running text without being part of it.
bool isOpeningPunctuation(std::int32_t value) {
    switch (value) {
    case '"':
    case '\'':
    case '(':
    case '[':
    case '{':
    case '<':
    case '*':
    case 0xAB:   // «
    case 0x201C: // “
    case 0x2018: // ‘
    case 0x2022: // •
        return true;
    default:
        return false;
    }
}

bool isClosingPunctuation(std::int32_t value) {
    switch (value) {
    case '.':
    case ':':
    case '!':
    case '?':
    case '"':
    case '\'':
    case ')':
    case ']':
    case '}':
    case '>':
    case 0xBB:   // »
    case 0x201D: // ”
    case 0x2019: // ’
        return true;
    default:
        return false;
    }
}

// How far back the recogniser looks from an anchor (a state or a postal
// code). Addresses are short; bounding every look keeps a long text linear.
constexpr std::size_t kMaxCityTokens = 12;
constexpr std::size_t kMaxStreetTokens = 16;
constexpr std::size_t kMaxStreetLookBack = 3;
constexpr std::size_t kMaxExtraLineTokens = 5;

struct Anchor {
    std::size_t first = 0; // the first token of the state or postal code
    std::size_t last = 0;  // one past the anchor's last token
    std::string state;
    std::string postalCode;
    bool cityFollows = false; // "10115 Berlin": the city comes after the code
};

enum class Evidence {
    any,               // a postal code is evidence enough
    streetOrCountry,   // "1234 Word" could be anything without a street or country
    streetOrWholeText, // "…, OK" could be anything without a street
};

class Recogniser {
public:
    explicit Recogniser(std::string_view text) : m_text(text) { tokenise(); }

    std::optional<AddressParser::Parsed> run() {
        if (auto parsed = scan([this](std::size_t i) { return zipOrPostalAnchor(i); }, Evidence::any)) {
            return parsed;
        }
        if (auto parsed = scan([this](std::size_t i) { return britishAnchor(i); }, Evidence::any)) {
            return parsed;
        }
        if (auto parsed =
                scan([this](std::size_t i) { return continentalAnchor(i); }, Evidence::streetOrCountry)) {
            return parsed;
        }
        return scan([this](std::size_t i) { return stateAnchor(i); }, Evidence::streetOrWholeText);
    }

private:
    std::string_view m_text;
    std::vector<Token> m_tokens;
    std::vector<Segment> m_segments;

    // -- Tokenising --------------------------------------------------------

    void tokenise() {
        bool newSegment = true;
        bool newLine = true;
        std::size_t i = 0;
        while (i < m_text.size()) {
            const auto c = decodeAt(m_text, i);
            if (c.value == ',' || c.value == ';') {
                newSegment = true;
                i += c.length;
                continue;
            }
            if (isSpaceCodePoint(c.value)) {
                if (isLineBreak(c.value)) {
                    newSegment = true;
                    newLine = true;
                }
                i += c.length;
                continue;
            }
            std::size_t end = i;
            while (end < m_text.size()) {
                const auto d = decodeAt(m_text, end);
                if (d.value == ',' || d.value == ';' || isSpaceCodePoint(d.value)) {
                    break;
                }
                end += d.length;
            }
            if (newSegment || m_segments.empty()) {
                m_segments.push_back({m_tokens.size(), m_tokens.size(), newLine});
                newSegment = false;
                newLine = false;
            }
            addToken(i, end);
            m_segments.back().last = m_tokens.size();
            i = end;
        }
    }

    void addToken(std::size_t begin, std::size_t end) {
        Token token;
        token.begin = begin;
        token.end = end;
        std::size_t coreBegin = begin;
        while (coreBegin < end) {
            const auto c = decodeAt(m_text, coreBegin);
            if (!isOpeningPunctuation(c.value)) {
                break;
            }
            coreBegin += c.length;
        }
        std::size_t coreEnd = end;
        while (coreEnd > coreBegin) {
            std::size_t start = coreEnd - 1;
            while (start > coreBegin && (static_cast<unsigned char>(m_text[start]) & 0xC0) == 0x80 &&
                   coreEnd - start < 4) {
                --start;
            }
            const auto c = decodeAt(m_text, start);
            if (start + c.length != coreEnd || !isClosingPunctuation(c.value)) {
                break;
            }
            coreEnd = start;
        }
        token.coreBegin = coreBegin;
        token.coreEnd = coreEnd;
        token.key = foldedKey(m_text.substr(coreBegin, coreEnd - coreBegin));
        const auto& classes = wordClasses();
        const auto found = classes.find(token.key);
        const std::uint8_t wordClass = found == classes.end() ? 0 : found->second;
        const bool compound = hasStreetEnding(token.key);
        token.mayEndRegion = (wordClass & kEndsRegion) != 0;
        token.streetWord = compound || (wordClass & kStreetWord) != 0;
        token.streetSuffix = compound || (wordClass & kStreetSuffix) != 0;
        token.segment = m_segments.size() - 1;
        m_tokens.push_back(std::move(token));
    }

    std::string_view core(std::size_t i) const {
        const auto& token = m_tokens[i];
        return m_text.substr(token.coreBegin, token.coreEnd - token.coreBegin);
    }

    std::string_view raw(std::size_t i) const {
        const auto& token = m_tokens[i];
        return m_text.substr(token.begin, token.end - token.begin);
    }

    const std::string& key(std::size_t i) const { return m_tokens[i].key; }

    const Segment& segmentOf(std::size_t i) const { return m_segments[m_tokens[i].segment]; }

    bool sameSegment(std::size_t a, std::size_t b) const {
        return m_tokens[a].segment == m_tokens[b].segment;
    }

    bool startsSegment(std::size_t i) const { return segmentOf(i).first == i; }

    bool isCapitalised(std::size_t i) const {
        const auto word = core(i);
        for (std::size_t p = 0; p < word.size();) {
            const auto c = decodeAt(word, p);
            if (isLetterCodePoint(c.value)) {
                return isUpperCodePoint(c.value);
            }
            if (c.value >= '0' && c.value <= '9') {
                return false;
            }
            p += c.length;
        }
        return false;
    }

    bool isWordy(std::size_t i) const { return hasLetter(core(i)); }

    bool isLabel(std::size_t i) const {
        const auto text = raw(i);
        return text.size() > 1 && text.back() == ':';
    }

    // "295", "221B", "12-14", "7/2".
    bool isHouseNumber(std::size_t i) const {
        const auto word = core(i);
        std::size_t p = 0;
        while (p < word.size() && isAsciiDigit(word[p])) {
            ++p;
        }
        if (p == 0 || p > 6) {
            return false;
        }
        if (p == word.size()) {
            return true;
        }
        if (p + 1 == word.size() && isAsciiLetter(word[p])) {
            return true;
        }
        if (word[p] != '-' && word[p] != '/') {
            return false;
        }
        std::size_t q = p + 1;
        while (q < word.size() && isAsciiDigit(word[q])) {
            ++q;
        }
        if (q == p + 1) {
            return false;
        }
        return q == word.size() || (q + 1 == word.size() && isAsciiLetter(word[q]));
    }

    bool isStreetWord(std::size_t i) const { return m_tokens[i].streetWord; }

    bool isStreetSuffix(std::size_t i) const { return m_tokens[i].streetSuffix; }

    bool isUnitWord(std::size_t i) const {
        const auto word = core(i);
        return contains(kUnitWords, key(i)) || (!word.empty() && word[0] == '#');
    }

    // -- Patterns ----------------------------------------------------------

    static bool allDigits(std::string_view text, std::size_t count) {
        return text.size() == count && std::all_of(text.begin(), text.end(), isAsciiDigit);
    }

    // "10001" or "10001-1234".
    bool isZip(std::size_t i) const {
        const auto word = core(i);
        return allDigits(word, 5) || (word.size() == 10 && allDigits(word.substr(0, 5), 5) &&
                                      word[5] == '-' && allDigits(word.substr(6), 4));
    }

    static bool matchesShape(std::string_view text, std::string_view shape) {
        // Shape letters: 'A' a letter, '9' a digit, anything else itself.
        if (text.size() != shape.size()) {
            return false;
        }
        for (std::size_t i = 0; i < text.size(); ++i) {
            const char s = shape[i];
            if (s == 'A' ? !isAsciiLetter(text[i]) : s == '9' ? !isAsciiDigit(text[i]) : text[i] != s) {
                return false;
            }
        }
        return true;
    }

    static std::string upper(std::string_view text) {
        std::string out(text);
        std::transform(out.begin(), out.end(), out.begin(), asciiUpper);
        return out;
    }

    // A Canadian postal code at token i: "K1A 0B1" or "K1A0B1". Returns the
    // number of tokens it spans.
    std::size_t canadianPostalCode(std::size_t i, std::string& code) const {
        const auto first = core(i);
        if (matchesShape(first, "A9A9A9") || matchesShape(first, "A9A-9A9")) {
            code = upper(first.substr(0, 3)) + " " + upper(first.substr(first.size() - 3));
            return 1;
        }
        if (matchesShape(first, "A9A") && i + 1 < m_tokens.size() && sameSegment(i, i + 1) &&
            matchesShape(core(i + 1), "9A9")) {
            code = upper(first) + " " + upper(core(i + 1));
            return 2;
        }
        return 0;
    }

    // A British postcode at token i: "SW1A 2AA", "M1 1AE", or written as one
    // word in capitals.
    std::size_t britishPostcode(std::size_t i, std::string& code) const {
        const auto first = core(i);
        const auto isOutward = [](std::string_view text) {
            return matchesShape(text, "A9") || matchesShape(text, "A99") || matchesShape(text, "A9A") ||
                   matchesShape(text, "AA9") || matchesShape(text, "AA99") || matchesShape(text, "AA9A");
        };
        if (isOutward(first) && i + 1 < m_tokens.size() && sameSegment(i, i + 1) &&
            matchesShape(core(i + 1), "9AA")) {
            code = upper(first) + " " + upper(core(i + 1));
            return 2;
        }
        if (first.size() >= 5 && first.size() <= 7 && upper(first) == first &&
            isOutward(first.substr(0, first.size() - 3)) &&
            matchesShape(first.substr(first.size() - 3), "9AA")) {
            code = std::string(first.substr(0, first.size() - 3)) + " " +
                   std::string(first.substr(first.size() - 3));
            return 1;
        }
        return 0;
    }

    // The words of a folded name equal the keys of tokens [first, first+n),
    // all in one segment.
    bool matchesName(std::size_t first, std::string_view name) const {
        std::size_t i = first;
        std::size_t p = 0;
        while (p <= name.size()) {
            const auto space = name.find(' ', p);
            const auto word = name.substr(p, (space == std::string_view::npos ? name.size() : space) - p);
            if (i >= m_tokens.size() || !sameSegment(first, i) || key(i) != word) {
                return false;
            }
            ++i;
            if (space == std::string_view::npos) {
                break;
            }
            p = space + 1;
        }
        return true;
    }

    struct RegionMatch {
        std::size_t first = 0;
        std::string text;
        bool abbreviation = false;
        bool typedInCapitals = false;
    };

    // A state or province whose last word is token `last`. The abbreviation
    // is upper-cased; a full name keeps the user's capitals when there are any.
    template <std::size_t N>
    std::optional<RegionMatch> regionEndingAt(std::size_t last, const std::array<Region, N>& regions) const {
        if (!m_tokens[last].mayEndRegion) {
            return std::nullopt;
        }
        const std::string& lastKey = key(last);
        for (const auto& region : regions) {
            if (lastKey == region.abbreviation) {
                return RegionMatch{last, upper(lastKey), true, hasUpperLetter(core(last))};
            }
        }
        std::optional<RegionMatch> best;
        std::size_t bestWords = 0;
        for (const auto& region : regions) {
            const std::string_view name = region.key;
            const auto lastWord = name.substr(name.rfind(' ') + 1);
            if (lastWord != lastKey) {
                continue;
            }
            const auto words = wordCount(name);
            if (words > last + 1 || words <= bestWords) {
                continue;
            }
            const std::size_t first = last + 1 - words;
            if (!sameSegment(first, last) || !matchesName(first, name)) {
                continue;
            }
            const auto typed = spanText(first, last + 1);
            bestWords = words;
            best = RegionMatch{first, hasUpperLetter(typed) ? typed : std::string(region.name), false,
                               isCapitalised(first)};
        }
        return best;
    }

    std::string spanText(std::size_t first, std::size_t last) const {
        std::string out;
        for (std::size_t i = first; i < last; ++i) {
            if (!out.empty()) {
                out.push_back(' ');
            }
            out.append(core(i));
        }
        return out;
    }

    // The tokens of i's segment before i, at most a street's worth.
    Range streetPartBefore(std::size_t i) const {
        const auto first = segmentOf(i).first;
        return {std::max(first, i >= kMaxStreetTokens ? i - kMaxStreetTokens : 0), i};
    }

    // -- Anchors -----------------------------------------------------------

    // A state followed by a ZIP, a province followed by a postal code, or an
    // Australian state followed by its four-digit postcode.
    std::optional<Anchor> zipOrPostalAnchor(std::size_t i) const {
        if (i == 0) {
            return std::nullopt;
        }
        // A code on a line of its own may follow the state's line.
        if (!sameSegment(i - 1, i) && !(startsSegment(i) && segmentOf(i).last <= i + 2)) {
            return std::nullopt;
        }
        // "in 12345" in a sentence is not Indiana: an abbreviation that is also
        // an English word, typed in lower case, needs a comma or line break
        // before it.
        const auto plausible = [this](const std::optional<RegionMatch>& match) {
            return match && (!match->abbreviation || match->typedInCapitals || startsSegment(match->first) ||
                             !contains(kWordAbbreviations, key(match->first)));
        };
        if (isZip(i)) {
            if (auto state = regionEndingAt(i - 1, kUsStates); plausible(state)) {
                return Anchor{state->first, i + 1, state->text, std::string(core(i)), false};
            }
            return std::nullopt;
        }
        std::string code;
        if (const auto span = canadianPostalCode(i, code)) {
            if (auto province = regionEndingAt(i - 1, kCanadianProvinces); plausible(province)) {
                return Anchor{province->first, i + span, province->text, code, false};
            }
            return std::nullopt;
        }
        if (allDigits(core(i), 4)) {
            if (auto state = regionEndingAt(i - 1, kAustralianStates); plausible(state)) {
                return Anchor{state->first, i + 1, state->text, std::string(core(i)), false};
            }
        }
        return std::nullopt;
    }

    std::optional<Anchor> britishAnchor(std::size_t i) const {
        std::string code;
        if (const auto span = britishPostcode(i, code)) {
            return Anchor{i, i + span, {}, code, false};
        }
        return std::nullopt;
    }

    // A postal code that opens its part of the address and is followed by
    // the city: "10115 Berlin", "F-75001 Paris", "1012 LG Amsterdam",
    // "114 55 Stockholm", "00-950 Warszawa", "1100-148 Lisboa".
    std::optional<Anchor> continentalAnchor(std::size_t i) const {
        const auto segmentEnd = segmentOf(i).last;
        auto word = core(i);
        std::string prefix;
        if (const auto dash = word.find('-');
            dash != std::string_view::npos && dash >= 1 && dash <= 2 &&
            std::all_of(word.begin(), word.begin() + static_cast<long>(dash), isAsciiLetter)) {
            prefix = upper(word.substr(0, dash + 1));
            word = word.substr(dash + 1);
        }
        std::string code;
        std::size_t span = 0;
        if (allDigits(word, 5) || matchesShape(word, "99-999") || matchesShape(word, "9999-999")) {
            code = std::string(word);
            span = 1;
        } else if (allDigits(word, 4)) {
            // Dutch codes add two capital letters: "1012 LG".
            const auto letters = core(i + 1 < segmentEnd ? i + 1 : i);
            if (i + 2 < segmentEnd && letters.size() == 2 && isAsciiLetter(letters[0]) &&
                isAsciiLetter(letters[1]) && upper(letters) == letters) {
                code = std::string(word) + " " + upper(core(i + 1));
                span = 2;
            } else {
                code = std::string(word);
                span = 1;
            }
        } else if (allDigits(word, 3) && i + 2 < segmentEnd && allDigits(core(i + 1), 2)) {
            code = std::string(word) + " " + std::string(core(i + 1));
            span = 2;
        }
        if (span == 0 || i + span >= segmentEnd || !isWordy(i + span)) {
            return std::nullopt;
        }
        // Written without a comma, the code must follow a street on its line:
        // "1 rue de Rivoli 75001 Paris".
        if (!startsSegment(i) && !streetIn(streetPartBefore(i))) {
            return std::nullopt;
        }
        return Anchor{i, i + span, {}, prefix + code, true};
    }

    // A state or province by name or abbreviation, without a code, set off
    // by a comma or a line break: "…, Manhattan, NY".
    std::optional<Anchor> stateAnchor(std::size_t i) const {
        // i is the last word of the candidate state.
        const bool atBoundary = i + 1 >= m_tokens.size() || startsSegment(i + 1);
        std::optional<RegionMatch> match = regionEndingAt(i, kUsStates);
        if (!match) {
            match = regionEndingAt(i, kCanadianProvinces);
        }
        if (!match || match->first == 0 || !startsSegment(match->first)) {
            return std::nullopt;
        }
        // Lower-case "in", "or", "me" are words of a sentence unless the state
        // stands alone in its part of the text.
        if (!atBoundary && !match->typedInCapitals && !countryAt(i + 1)) {
            return std::nullopt;
        }
        return Anchor{match->first, i + 1, match->text, {}, false};
    }

    // -- Assembly ----------------------------------------------------------

    template <typename Find>
    std::optional<AddressParser::Parsed> scan(Find find, Evidence evidence) const {
        for (std::size_t i = 0; i < m_tokens.size(); ++i) {
            if (auto anchor = find(i)) {
                if (auto parsed = assemble(*anchor, evidence)) {
                    return parsed;
                }
            }
        }
        return std::nullopt;
    }

    // A country name filling tokens [first, end of its segment).
    std::optional<std::string> countryAt(std::size_t first) const {
        if (first >= m_tokens.size() || countryFirstWords().count(key(first)) == 0) {
            return std::nullopt;
        }
        const auto end = segmentOf(first).last;
        for (const auto& country : kCountries) {
            if (first + wordCount(country.key) == end && matchesName(first, country.key)) {
                const auto typed = spanText(first, end);
                return hasUpperLetter(typed) ? typed : std::string(country.display);
            }
        }
        return std::nullopt;
    }

    // Where a street line ends when the city follows on the same line: after
    // the kind of street, a direction and a unit ("Ave S Apt 8J").
    std::size_t streetEndAfterSuffix(std::size_t suffix, std::size_t limit) const {
        std::size_t end = suffix + 1;
        if (end < limit && contains(kDirectionals, key(end))) {
            ++end;
        }
        if (end < limit && isUnitWord(end)) {
            const auto word = core(end);
            ++end;
            // "#5" carries its designation; "Apt 8J" and "# 5" have it next.
            const bool designationInside = word.size() > 1 && word[0] == '#';
            if (!designationInside && end < limit) {
                ++end;
            }
        }
        return end;
    }

    bool followsUnitWord(std::size_t i, std::size_t rangeFirst) const {
        return i > rangeFirst && (isUnitWord(i - 1) || key(i - 1) == "box" || key(i - 1) == "no");
    }

    // House numbers in [r.first, r.last) that begin a street: followed by a
    // word and not the designation of a unit.
    std::vector<std::size_t> houseNumbers(Range r) const {
        std::vector<std::size_t> out;
        for (std::size_t i = r.first; i + 1 < r.last; ++i) {
            if (isHouseNumber(i) && (isWordy(i + 1) || isOrdinal(core(i + 1))) &&
                !followsUnitWord(i, r.first)) {
                out.push_back(i);
            }
        }
        return out;
    }

    struct StreetAndCity {
        Range street;
        Range city;
    };

    // "Street" and "St" are one word when telling a street's end from a city
    // that begins with "St." ("123 Main St St. Louis").
    std::string_view suffixClass(std::size_t i) const {
        return key(i) == "street" ? std::string_view("st") : std::string_view(key(i));
    }

    // One line holding both street and city: "123 Main St Springfield". The
    // street ends at its first kind-of-street word, unless another follows
    // it ("100 Court Street Springfield").
    std::optional<StreetAndCity> splitStreetAndCity(Range r) const {
        const auto numbers = houseNumbers(r);
        for (auto it = numbers.rbegin(); it != numbers.rend(); ++it) {
            for (std::size_t s = *it + 1; s < r.last; ++s) {
                if (!isStreetSuffix(s)) {
                    continue;
                }
                if (s + 1 < r.last && isStreetSuffix(s + 1) && suffixClass(s) != suffixClass(s + 1)) {
                    continue;
                }
                const auto end = streetEndAfterSuffix(s, r.last);
                if (end < r.last) {
                    return StreetAndCity{{*it, end}, {end, r.last}};
                }
            }
        }
        return std::nullopt;
    }

    // The street inside one part of the text, trimmed of the sentence around it.
    std::optional<Range> streetIn(Range r) const {
        if (r.empty()) {
            return std::nullopt;
        }
        // Post office boxes.
        for (std::size_t i = r.first; i + 1 < r.last; ++i) {
            if ((key(i) == "po" && key(i + 1) == "box") || key(i) == "pobox" || key(i) == "postfach") {
                return Range{i, r.last};
            }
        }
        // Number first: "295 Park Avenue South".
        const auto numbers = houseNumbers(r);
        for (auto it = numbers.rbegin(); it != numbers.rend(); ++it) {
            for (std::size_t s = *it + 1; s < r.last; ++s) {
                if (isStreetSuffix(s) || isStreetWord(s)) {
                    return Range{*it, r.last};
                }
            }
        }
        if (!numbers.empty() && numbers.front() == r.first) {
            return Range{r.first, r.last};
        }
        // Number last: "Musterstraße 5", "Keizersgracht 123-125", "Via Roma 10 b".
        std::size_t number = r.last - 1;
        if (r.size() >= 3 && core(number).size() == 1 && isAsciiLetter(core(number)[0]) &&
            isHouseNumber(number - 1)) {
            --number;
        }
        if (number > r.first && isHouseNumber(number) && isWordy(number - 1) && !isUnitWord(number - 1)) {
            bool anyCapitals = false;
            bool anyStreetWord = false;
            for (std::size_t i = r.first; i < number; ++i) {
                anyCapitals = anyCapitals || hasUpperLetter(core(i));
                anyStreetWord = anyStreetWord || isStreetWord(i);
            }
            std::size_t first = number;
            if (anyCapitals) {
                // Walk back over the capitalised name, through small words
                // ("Rue de la Loi") and street words ("Karl Johans gate").
                while (first > r.first && !isLabel(first - 1)) {
                    if (isCapitalised(first - 1) || isStreetWord(first - 1)) {
                        --first;
                        continue;
                    }
                    std::size_t small = first - 1;
                    while (small > r.first && contains(kConnectors, key(small))) {
                        --small;
                    }
                    if (small < first - 1 && contains(kConnectors, key(small + 1)) && isCapitalised(small) &&
                        !contains(kConnectors, key(small))) {
                        first = small;
                        continue;
                    }
                    break;
                }
            } else if (anyStreetWord && r.size() <= 6) {
                first = r.first;
            }
            while (first < number && contains(kConnectors, key(first)) && !isCapitalised(first)) {
                ++first;
            }
            if (first < number) {
                return Range{first, r.last};
            }
        }
        // No number: "Baker Street", "Rue de Rivoli".
        if (r.size() <= 6) {
            for (std::size_t i = r.first; i < r.last; ++i) {
                if (isStreetWord(i)) {
                    std::size_t first = r.first;
                    while (first < r.last && isLabel(first)) {
                        ++first;
                    }
                    return first < r.last ? std::optional<Range>(Range{first, r.last}) : std::nullopt;
                }
            }
        }
        return std::nullopt;
    }

    Range lastTokensOf(const Segment& segment, std::size_t count) const {
        return {std::max(segment.first, segment.last >= count ? segment.last - count : 0), segment.last};
    }

    // The street lines before segment `segmentIndex`: the nearest part that
    // holds a street, and the short parts between it and the city
    // ("Apt 8J", "Hinterhaus").
    std::vector<Range> streetBefore(std::size_t segmentIndex) const {
        for (std::size_t back = 1; back <= kMaxStreetLookBack && back <= segmentIndex; ++back) {
            const std::size_t k = segmentIndex - back;
            const auto& segment = m_segments[k];
            if (auto street = streetIn(lastTokensOf(segment, kMaxStreetTokens))) {
                std::vector<Range> lines;
                // "12, rue de la Paix": the number set off by a comma.
                if (street->first == segment.first && k > 0 &&
                    m_segments[k - 1].last - m_segments[k - 1].first == 1 &&
                    isHouseNumber(m_segments[k - 1].first) && !m_segments[k].startsLine) {
                    street->first = m_segments[k - 1].first;
                }
                lines.push_back(*street);
                for (std::size_t j = k + 1; j < segmentIndex; ++j) {
                    const auto& extra = m_segments[j];
                    if (extra.last - extra.first <= kMaxExtraLineTokens) {
                        lines.push_back({extra.first, extra.last});
                    }
                }
                return lines;
            }
            if (segment.last - segment.first > kMaxExtraLineTokens) {
                break;
            }
        }
        return {};
    }

    // Narrows a city part to the city itself: "Meet me in Springfield" ->
    // "Springfield".
    Range refineCity(Range r) const {
        for (std::size_t i = r.last; i > r.first; --i) {
            if (isLabel(i - 1)) {
                r.first = i;
                break;
            }
        }
        if (r.empty()) {
            return r;
        }
        bool anyCapitals = false;
        bool anyLowerWord = false;
        for (std::size_t i = r.first; i < r.last; ++i) {
            if (hasUpperLetter(core(i))) {
                anyCapitals = true;
            } else if (isWordy(i) && !contains(kConnectors, key(i))) {
                anyLowerWord = true;
            }
        }
        std::size_t first = r.last;
        if (anyCapitals && anyLowerWord) {
            while (first > r.first && (isCapitalised(first - 1) || !isWordy(first - 1) ||
                                       (contains(kConnectors, key(first - 1)) && first - 1 > r.first &&
                                        isCapitalised(first - 2)))) {
                --first;
            }
            if (first == r.last) {
                first = r.last - 1;
            }
        } else if (!anyCapitals) {
            while (first > r.first && r.last - first < 4 && !contains(kSentenceWords, key(first - 1))) {
                --first;
            }
            if (first == r.last) {
                first = r.last - 1;
            }
        } else {
            first = r.first;
        }
        // A lower-case small word leads a city only when the whole city is in
        // lower case ("des moines"); otherwise it belongs to the sentence.
        while (anyCapitals && first + 1 < r.last && contains(kConnectors, key(first)) &&
               !isCapitalised(first)) {
            ++first;
        }
        if (r.last - first > 6) {
            first = r.last - 3;
        }
        return {first, r.last};
    }

    // The city after a postal code, without the sentence that goes on after
    // it: "10115 Berlin und dann" -> "Berlin", "Frankfurt am Main" whole.
    Range leadingCity(Range r) const {
        bool anyCapitals = false;
        bool anyLowerWord = false;
        for (std::size_t i = r.first; i < r.last; ++i) {
            if (hasUpperLetter(core(i))) {
                anyCapitals = true;
            } else if (isWordy(i) && !contains(kConnectors, key(i))) {
                anyLowerWord = true;
            }
        }
        if (!anyCapitals || !anyLowerWord) {
            return r;
        }
        std::size_t last = r.first + 1;
        while (last < r.last) {
            if (isCapitalised(last) || !isWordy(last)) {
                ++last;
                continue;
            }
            std::size_t small = last;
            while (small < r.last && contains(kConnectors, key(small))) {
                ++small;
            }
            if (small > last && small < r.last && isCapitalised(small)) {
                last = small + 1;
                continue;
            }
            break;
        }
        return {r.first, last};
    }

    // The text of a range as typed, with single spaces, without the
    // punctuation of the sentence around it. A closing period stays after
    // an abbreviation ("St.", "D.C.").
    std::string rangeText(Range r) const {
        std::string out;
        for (std::size_t i = r.first; i < r.last; ++i) {
            const auto& token = m_tokens[i];
            const std::size_t begin = i == r.first ? token.coreBegin : token.begin;
            std::size_t end = i + 1 == r.last ? token.coreEnd : token.end;
            if (i + 1 == r.last && end < token.end && m_text[end] == '.') {
                const auto word = core(i);
                const bool abbreviation = word.find('.') != std::string_view::npos || key(i).size() <= 2 ||
                                          contains(kStreetSuffixes, key(i)) || contains(kStreetWords, key(i));
                if (abbreviation) {
                    ++end;
                }
            }
            if (i > r.first && m_tokens[i - 1].segment != token.segment) {
                out.push_back(',');
            }
            if (!out.empty()) {
                out.push_back(' ');
            }
            out.append(m_text.substr(begin, end - begin));
        }
        return out;
    }

    std::optional<AddressParser::Parsed> assemble(const Anchor& anchor, Evidence evidence) const {
        AddressParser::Parsed parsed;
        parsed.state = anchor.state;
        parsed.postalCode = anchor.postalCode;
        Range city;
        std::vector<Range> streetLines;
        std::size_t addressEnd = anchor.last; // one past the last token of the address
        std::size_t addressFirst = anchor.first;

        if (anchor.cityFollows) {
            if (!startsSegment(anchor.first)) {
                if (auto street = streetIn(streetPartBefore(anchor.first))) {
                    streetLines.push_back(*street);
                    addressFirst = street->first;
                }
            }
            const auto end = std::min(segmentOf(anchor.first).last, anchor.last + 6);
            city = leadingCity({anchor.last, end});
            addressEnd = city.last;
            // "10115 Berlin Germany"
            if (city.last == segmentOf(anchor.first).last) {
                for (std::size_t p = city.last - 1; p > city.first; --p) {
                    if (auto country = countryAt(p)) {
                        parsed.country = *country;
                        city.last = p;
                        break;
                    }
                }
            }
        } else {
            const auto& segment = segmentOf(anchor.first);
            Range part;
            if (anchor.first > segment.first) {
                part = {segment.first, anchor.first};
            } else if (m_tokens[anchor.first].segment > 0) {
                const auto& previous = m_segments[m_tokens[anchor.first].segment - 1];
                part = {previous.first, previous.last};
            }
            if (part.size() > kMaxCityTokens) {
                part.first = part.last - kMaxCityTokens;
            }
            if (!part.empty()) {
                if (auto split = splitStreetAndCity(part)) {
                    streetLines.push_back(split->street);
                    city = split->city;
                } else if (auto street = streetIn(part); street && isHouseNumber(street->first)) {
                    // "123 Main St, NY 10001": no city between street and state.
                    streetLines.push_back(*street);
                } else {
                    city = refineCity(part);
                }
                addressFirst = streetLines.empty() ? city.first : streetLines.front().first;
            }
        }

        if (streetLines.empty()) {
            const std::size_t before = !city.empty() ? city.first : anchor.first;
            streetLines = streetBefore(m_tokens[before].segment);
            if (!streetLines.empty()) {
                addressFirst = streetLines.front().first;
            }
        }

        // The country fills the rest of the address's last part, or the next
        // part: "NY 10001 USA", "…, NY 10001, USA".
        if (parsed.country.empty() && addressEnd < m_tokens.size()) {
            if (auto country = countryAt(addressEnd)) {
                parsed.country = *country;
                addressEnd = segmentOf(addressEnd).last;
            }
        }

        switch (evidence) {
        case Evidence::any:
            if (anchor.state.empty() && city.empty() && streetLines.empty()) {
                return std::nullopt; // a lone British postcode shape
            }
            break;
        case Evidence::streetOrCountry:
            if (streetLines.empty() && parsed.country.empty()) {
                return std::nullopt;
            }
            break;
        case Evidence::streetOrWholeText:
            if (streetLines.empty() &&
                !(addressFirst == 0 && addressEnd == m_tokens.size() && !city.empty())) {
                return std::nullopt;
            }
            break;
        }

        parsed.city = capitaliseCity(rangeText(city));
        std::string street;
        for (const auto& line : streetLines) {
            if (!street.empty()) {
                street.push_back('\n');
            }
            street.append(capitaliseStreetLine(rangeText(line)));
        }
        parsed.street = AddressParser::splitUnit(street);
        if (parsed.city.empty() && parsed.state.empty() && parsed.postalCode.empty()) {
            return std::nullopt;
        }
        return parsed;
    }
};

// ---------------------------------------------------------------------------
// Unit split

constexpr const char* kUnitPattern =
    "[\\s,]*(\\b(?:apt|apartment|suite|ste|unit|fl|floor|rm|room|bldg|building)\\b"
    "\\.?\\s*[\\w-]+|#\\s*[\\w-]+)[\\s,]*$";

// Only the end of a line can hold a unit; searching just its tail keeps a
// pathological line (a megabyte of spaces) from costing quadratic time.
constexpr std::size_t kUnitSearchWindow = 512;

struct UnitExpression {
    pcre2_code* code = nullptr;
    pcre2_match_context* context = nullptr;

    UnitExpression() {
        int error = 0;
        PCRE2_SIZE errorOffset = 0;
        code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(kUnitPattern), PCRE2_ZERO_TERMINATED,
                             PCRE2_CASELESS | PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF, &error,
                             &errorOffset, nullptr);
        context = pcre2_match_context_create(nullptr);
        if (context) {
            pcre2_set_match_limit(context, 100000);
            pcre2_set_depth_limit(context, 10000);
        }
    }
    ~UnitExpression() {
        pcre2_match_context_free(context);
        pcre2_code_free(code);
    }
    UnitExpression(const UnitExpression&) = delete;
    UnitExpression& operator=(const UnitExpression&) = delete;
};

// Compiled once; a compiled pattern is read-only while matching, so every
// thread can share it. Match data is made per call.
const UnitExpression& unitExpression() {
    static const UnitExpression expression;
    return expression;
}

struct MatchDataDeleter {
    void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
};

} // namespace

std::optional<AddressParser::Parsed> AddressParser::parse(std::string_view text) {
    return Recogniser(text).run();
}

std::string AddressParser::splitUnit(std::string_view street) {
    std::string_view line;
    std::size_t nonEmptyLines = 0;
    std::size_t start = 0;
    while (start <= street.size()) {
        auto end = street.find_first_of("\r\n", start);
        if (end == std::string_view::npos) {
            end = street.size();
        }
        const auto trimmed = trimWhitespace(street.substr(start, end - start));
        if (!trimmed.empty()) {
            ++nonEmptyLines;
            line = trimmed;
        }
        start = end + 1;
    }
    if (nonEmptyLines != 1) {
        return std::string(street);
    }

    const auto& expression = unitExpression();
    if (!expression.code) {
        return std::string(street);
    }
    std::size_t offset = line.size() > kUnitSearchWindow ? line.size() - kUnitSearchWindow : 0;
    while (offset > 0 && offset < line.size() && (static_cast<unsigned char>(line[offset]) & 0xC0) == 0x80) {
        ++offset;
    }
    std::unique_ptr<pcre2_match_data, MatchDataDeleter> match(
        pcre2_match_data_create_from_pattern(expression.code, nullptr));
    if (!match) {
        return std::string(street);
    }
    const int result = pcre2_match(expression.code, reinterpret_cast<PCRE2_SPTR>(line.data()), line.size(),
                                   offset, 0, match.get(), expression.context);
    if (result < 2) {
        return std::string(street);
    }
    const PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(match.get());
    if (ovector[0] == 0 || ovector[2] == PCRE2_UNSET) {
        return std::string(street);
    }
    const auto head = trimWhitespaceAndCommas(line.substr(0, ovector[0]));
    std::string unit(trimWhitespace(line.substr(ovector[2], ovector[3] - ovector[2])));
    if (!unit.empty() && unit[0] == '#') {
        unit = "#" + std::string(trimWhitespace(std::string_view(unit).substr(1)));
    }
    if (head.empty()) {
        return std::string(street);
    }
    return std::string(head) + "\n" + unit;
}

} // namespace kinbook
