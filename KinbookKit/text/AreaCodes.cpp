#include "KinbookKit/text/AreaCodes.h"

#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <cstdint>

namespace kinbook {
namespace {

using NorthAmericanCode = AreaCodes::NorthAmericanCode;
using CountryCode = AreaCodes::CountryCode;

constexpr std::string_view kNortheast = "Northeast";
constexpr std::string_view kSouth = "South";
constexpr std::string_view kMidwest = "Midwest";
constexpr std::string_view kWest = "West";
constexpr std::string_view kCanada = "Canada";
constexpr std::string_view kCaribbean = "Caribbean";
constexpr std::string_view kUSTerritory = "US Territory";
constexpr std::string_view kAtlantic = "Atlantic";
constexpr std::string_view kNoRegion = "";

// The North American Numbering Plan's geographic and toll-free codes. US
// states fall into the Census Bureau's four regions (which count the District
// of Columbia in the South); Canada, the Caribbean members, the US
// territories and Bermuda have regions of their own. Toll-free codes point
// nowhere, so they carry no region.
constexpr std::array kNorthAmericanCodes = std::to_array<NorthAmericanCode>({
    {"201", "New Jersey", kNortheast},
    {"202", "Washington DC", kSouth},
    {"203", "Connecticut", kNortheast},
    {"204", "Manitoba", kCanada},
    {"205", "Alabama", kSouth},
    {"206", "Washington", kWest},
    {"207", "Maine", kNortheast},
    {"208", "Idaho", kWest},
    {"209", "California", kWest},
    {"210", "Texas", kSouth},
    {"212", "New York", kNortheast},
    {"213", "California", kWest},
    {"214", "Texas", kSouth},
    {"215", "Pennsylvania", kNortheast},
    {"216", "Ohio", kMidwest},
    {"217", "Illinois", kMidwest},
    {"218", "Minnesota", kMidwest},
    {"219", "Indiana", kMidwest},
    {"220", "Ohio", kMidwest},
    {"223", "Pennsylvania", kNortheast},
    {"224", "Illinois", kMidwest},
    {"225", "Louisiana", kSouth},
    {"226", "Ontario", kCanada},
    {"227", "Maryland", kSouth},
    {"228", "Mississippi", kSouth},
    {"229", "Georgia", kSouth},
    {"231", "Michigan", kMidwest},
    {"234", "Ohio", kMidwest},
    {"235", "Missouri", kMidwest},
    {"236", "British Columbia", kCanada},
    {"239", "Florida", kSouth},
    {"240", "Maryland", kSouth},
    {"242", "Bahamas", kCaribbean},
    {"246", "Barbados", kCaribbean},
    {"248", "Michigan", kMidwest},
    {"249", "Ontario", kCanada},
    {"250", "British Columbia", kCanada},
    {"251", "Alabama", kSouth},
    {"252", "North Carolina", kSouth},
    {"253", "Washington", kWest},
    {"254", "Texas", kSouth},
    {"256", "Alabama", kSouth},
    {"257", "British Columbia", kCanada},
    {"260", "Indiana", kMidwest},
    {"262", "Wisconsin", kMidwest},
    {"263", "Quebec", kCanada},
    {"264", "Anguilla", kCaribbean},
    {"267", "Pennsylvania", kNortheast},
    {"268", "Antigua", kCaribbean},
    {"269", "Michigan", kMidwest},
    {"270", "Kentucky", kSouth},
    {"272", "Pennsylvania", kNortheast},
    {"274", "Wisconsin", kMidwest},
    {"276", "Virginia", kSouth},
    {"279", "California", kWest},
    {"281", "Texas", kSouth},
    {"283", "Ohio", kMidwest},
    {"284", "British Virgin Islands", kCaribbean},
    {"289", "Ontario", kCanada},
    {"301", "Maryland", kSouth},
    {"302", "Delaware", kSouth},
    {"303", "Colorado", kWest},
    {"304", "West Virginia", kSouth},
    {"305", "Florida", kSouth},
    {"306", "Saskatchewan", kCanada},
    {"307", "Wyoming", kWest},
    {"308", "Nebraska", kMidwest},
    {"309", "Illinois", kMidwest},
    {"310", "California", kWest},
    {"312", "Illinois", kMidwest},
    {"313", "Michigan", kMidwest},
    {"314", "Missouri", kMidwest},
    {"315", "New York", kNortheast},
    {"316", "Kansas", kMidwest},
    {"317", "Indiana", kMidwest},
    {"318", "Louisiana", kSouth},
    {"319", "Iowa", kMidwest},
    {"320", "Minnesota", kMidwest},
    {"321", "Florida", kSouth},
    {"323", "California", kWest},
    {"324", "Florida", kSouth},
    {"325", "Texas", kSouth},
    {"326", "Ohio", kMidwest},
    {"327", "Arkansas", kSouth},
    {"329", "New York", kNortheast},
    {"330", "Ohio", kMidwest},
    {"331", "Illinois", kMidwest},
    {"332", "New York", kNortheast},
    {"334", "Alabama", kSouth},
    {"336", "North Carolina", kSouth},
    {"337", "Louisiana", kSouth},
    {"339", "Massachusetts", kNortheast},
    {"340", "US Virgin Islands", kUSTerritory},
    {"341", "California", kWest},
    {"343", "Ontario", kCanada},
    {"345", "Cayman Islands", kCaribbean},
    {"346", "Texas", kSouth},
    {"347", "New York", kNortheast},
    {"350", "California", kWest},
    {"351", "Massachusetts", kNortheast},
    {"352", "Florida", kSouth},
    {"353", "Wisconsin", kMidwest},
    {"354", "Quebec", kCanada},
    {"360", "Washington", kWest},
    {"361", "Texas", kSouth},
    {"363", "New York", kNortheast},
    {"364", "Kentucky", kSouth},
    {"365", "Ontario", kCanada},
    {"367", "Quebec", kCanada},
    {"368", "Alberta", kCanada},
    {"369", "California", kWest},
    {"380", "Ohio", kMidwest},
    {"382", "Ontario", kCanada},
    {"385", "Utah", kWest},
    {"386", "Florida", kSouth},
    {"401", "Rhode Island", kNortheast},
    {"402", "Nebraska", kMidwest},
    {"403", "Alberta", kCanada},
    {"404", "Georgia", kSouth},
    {"405", "Oklahoma", kSouth},
    {"406", "Montana", kWest},
    {"407", "Florida", kSouth},
    {"408", "California", kWest},
    {"409", "Texas", kSouth},
    {"410", "Maryland", kSouth},
    {"412", "Pennsylvania", kNortheast},
    {"413", "Massachusetts", kNortheast},
    {"414", "Wisconsin", kMidwest},
    {"415", "California", kWest},
    {"416", "Ontario", kCanada},
    {"417", "Missouri", kMidwest},
    {"418", "Quebec", kCanada},
    {"419", "Ohio", kMidwest},
    {"423", "Tennessee", kSouth},
    {"424", "California", kWest},
    {"425", "Washington", kWest},
    {"428", "New Brunswick", kCanada},
    {"430", "Texas", kSouth},
    {"431", "Manitoba", kCanada},
    {"432", "Texas", kSouth},
    {"434", "Virginia", kSouth},
    {"435", "Utah", kWest},
    {"436", "Ohio", kMidwest},
    {"437", "Ontario", kCanada},
    {"438", "Quebec", kCanada},
    {"440", "Ohio", kMidwest},
    {"441", "Bermuda", kAtlantic},
    {"442", "California", kWest},
    {"443", "Maryland", kSouth},
    {"445", "Pennsylvania", kNortheast},
    {"447", "Illinois", kMidwest},
    {"448", "Florida", kSouth},
    {"450", "Quebec", kCanada},
    {"458", "Oregon", kWest},
    {"463", "Indiana", kMidwest},
    {"464", "Illinois", kMidwest},
    {"468", "Quebec", kCanada},
    {"469", "Texas", kSouth},
    {"470", "Georgia", kSouth},
    {"473", "Grenada", kCaribbean},
    {"474", "Saskatchewan", kCanada},
    {"475", "Connecticut", kNortheast},
    {"478", "Georgia", kSouth},
    {"479", "Arkansas", kSouth},
    {"480", "Arizona", kWest},
    {"483", "Alabama", kSouth},
    {"484", "Pennsylvania", kNortheast},
    {"501", "Arkansas", kSouth},
    {"502", "Kentucky", kSouth},
    {"503", "Oregon", kWest},
    {"504", "Louisiana", kSouth},
    {"505", "New Mexico", kWest},
    {"506", "New Brunswick", kCanada},
    {"507", "Minnesota", kMidwest},
    {"508", "Massachusetts", kNortheast},
    {"509", "Washington", kWest},
    {"510", "California", kWest},
    {"512", "Texas", kSouth},
    {"513", "Ohio", kMidwest},
    {"514", "Quebec", kCanada},
    {"515", "Iowa", kMidwest},
    {"516", "New York", kNortheast},
    {"517", "Michigan", kMidwest},
    {"518", "New York", kNortheast},
    {"519", "Ontario", kCanada},
    {"520", "Arizona", kWest},
    {"530", "California", kWest},
    {"531", "Nebraska", kMidwest},
    {"534", "Wisconsin", kMidwest},
    {"539", "Oklahoma", kSouth},
    {"540", "Virginia", kSouth},
    {"541", "Oregon", kWest},
    {"548", "Ontario", kCanada},
    {"551", "New Jersey", kNortheast},
    {"557", "Missouri", kMidwest},
    {"559", "California", kWest},
    {"561", "Florida", kSouth},
    {"562", "California", kWest},
    {"563", "Iowa", kMidwest},
    {"564", "Washington", kWest},
    {"567", "Ohio", kMidwest},
    {"570", "Pennsylvania", kNortheast},
    {"571", "Virginia", kSouth},
    {"572", "Oklahoma", kSouth},
    {"573", "Missouri", kMidwest},
    {"574", "Indiana", kMidwest},
    {"575", "New Mexico", kWest},
    {"579", "Quebec", kCanada},
    {"580", "Oklahoma", kSouth},
    {"581", "Quebec", kCanada},
    {"582", "Pennsylvania", kNortheast},
    {"584", "Manitoba", kCanada},
    {"585", "New York", kNortheast},
    {"586", "Michigan", kMidwest},
    {"587", "Alberta", kCanada},
    {"601", "Mississippi", kSouth},
    {"602", "Arizona", kWest},
    {"603", "New Hampshire", kNortheast},
    {"604", "British Columbia", kCanada},
    {"605", "South Dakota", kMidwest},
    {"606", "Kentucky", kSouth},
    {"607", "New York", kNortheast},
    {"608", "Wisconsin", kMidwest},
    {"609", "New Jersey", kNortheast},
    {"610", "Pennsylvania", kNortheast},
    {"612", "Minnesota", kMidwest},
    {"613", "Ontario", kCanada},
    {"614", "Ohio", kMidwest},
    {"615", "Tennessee", kSouth},
    {"616", "Michigan", kMidwest},
    {"617", "Massachusetts", kNortheast},
    {"618", "Illinois", kMidwest},
    {"619", "California", kWest},
    {"620", "Kansas", kMidwest},
    {"623", "Arizona", kWest},
    {"626", "California", kWest},
    {"628", "California", kWest},
    {"629", "Tennessee", kSouth},
    {"630", "Illinois", kMidwest},
    {"631", "New York", kNortheast},
    {"636", "Missouri", kMidwest},
    {"639", "Saskatchewan", kCanada},
    {"640", "New Jersey", kNortheast},
    {"641", "Iowa", kMidwest},
    {"645", "Florida", kSouth},
    {"646", "New York", kNortheast},
    {"647", "Ontario", kCanada},
    {"649", "Turks and Caicos", kCaribbean},
    {"650", "California", kWest},
    {"651", "Minnesota", kMidwest},
    {"656", "Florida", kSouth},
    {"657", "California", kWest},
    {"658", "Jamaica", kCaribbean},
    {"659", "Alabama", kSouth},
    {"660", "Missouri", kMidwest},
    {"661", "California", kWest},
    {"662", "Mississippi", kSouth},
    {"664", "Montserrat", kCaribbean},
    {"667", "Maryland", kSouth},
    {"669", "California", kWest},
    {"670", "Northern Mariana Islands", kUSTerritory},
    {"671", "Guam", kUSTerritory},
    {"672", "British Columbia", kCanada},
    {"678", "Georgia", kSouth},
    {"679", "Michigan", kMidwest},
    {"680", "New York", kNortheast},
    {"681", "West Virginia", kSouth},
    {"682", "Texas", kSouth},
    {"683", "Ontario", kCanada},
    {"684", "American Samoa", kUSTerritory},
    {"686", "Virginia", kSouth},
    {"689", "Florida", kSouth},
    {"701", "North Dakota", kMidwest},
    {"702", "Nevada", kWest},
    {"703", "Virginia", kSouth},
    {"704", "North Carolina", kSouth},
    {"705", "Ontario", kCanada},
    {"706", "Georgia", kSouth},
    {"707", "California", kWest},
    {"708", "Illinois", kMidwest},
    {"709", "Newfoundland", kCanada},
    {"712", "Iowa", kMidwest},
    {"713", "Texas", kSouth},
    {"714", "California", kWest},
    {"715", "Wisconsin", kMidwest},
    {"716", "New York", kNortheast},
    {"717", "Pennsylvania", kNortheast},
    {"718", "New York", kNortheast},
    {"719", "Colorado", kWest},
    {"720", "Colorado", kWest},
    {"721", "Sint Maarten", kCaribbean},
    {"724", "Pennsylvania", kNortheast},
    {"725", "Nevada", kWest},
    {"726", "Texas", kSouth},
    {"727", "Florida", kSouth},
    {"730", "Illinois", kMidwest},
    {"731", "Tennessee", kSouth},
    {"732", "New Jersey", kNortheast},
    {"734", "Michigan", kMidwest},
    {"737", "Texas", kSouth},
    {"738", "California", kWest},
    {"740", "Ohio", kMidwest},
    {"742", "Ontario", kCanada},
    {"743", "North Carolina", kSouth},
    {"747", "California", kWest},
    {"753", "Ontario", kCanada},
    {"754", "Florida", kSouth},
    {"757", "Virginia", kSouth},
    {"758", "St. Lucia", kCaribbean},
    {"760", "California", kWest},
    {"762", "Georgia", kSouth},
    {"763", "Minnesota", kMidwest},
    {"765", "Indiana", kMidwest},
    {"767", "Dominica", kCaribbean},
    {"769", "Mississippi", kSouth},
    {"770", "Georgia", kSouth},
    {"771", "Washington DC", kSouth},
    {"772", "Florida", kSouth},
    {"773", "Illinois", kMidwest},
    {"774", "Massachusetts", kNortheast},
    {"775", "Nevada", kWest},
    {"778", "British Columbia", kCanada},
    {"779", "Illinois", kMidwest},
    {"780", "Alberta", kCanada},
    {"781", "Massachusetts", kNortheast},
    {"782", "Nova Scotia / PEI", kCanada},
    {"784", "St. Vincent", kCaribbean},
    {"785", "Kansas", kMidwest},
    {"786", "Florida", kSouth},
    {"787", "Puerto Rico", kUSTerritory},
    {"800", "Toll-free", kNoRegion},
    {"801", "Utah", kWest},
    {"802", "Vermont", kNortheast},
    {"803", "South Carolina", kSouth},
    {"804", "Virginia", kSouth},
    {"805", "California", kWest},
    {"806", "Texas", kSouth},
    {"807", "Ontario", kCanada},
    {"808", "Hawaii", kWest},
    {"809", "Dominican Republic", kCaribbean},
    {"810", "Michigan", kMidwest},
    {"812", "Indiana", kMidwest},
    {"813", "Florida", kSouth},
    {"814", "Pennsylvania", kNortheast},
    {"815", "Illinois", kMidwest},
    {"816", "Missouri", kMidwest},
    {"817", "Texas", kSouth},
    {"818", "California", kWest},
    {"819", "Quebec", kCanada},
    {"820", "California", kWest},
    {"825", "Alberta", kCanada},
    {"828", "North Carolina", kSouth},
    {"829", "Dominican Republic", kCaribbean},
    {"830", "Texas", kSouth},
    {"831", "California", kWest},
    {"832", "Texas", kSouth},
    {"833", "Toll-free", kNoRegion},
    {"835", "Pennsylvania", kNortheast},
    {"839", "South Carolina", kSouth},
    {"840", "California", kWest},
    {"843", "South Carolina", kSouth},
    {"844", "Toll-free", kNoRegion},
    {"845", "New York", kNortheast},
    {"847", "Illinois", kMidwest},
    {"848", "New Jersey", kNortheast},
    {"849", "Dominican Republic", kCaribbean},
    {"850", "Florida", kSouth},
    {"854", "South Carolina", kSouth},
    {"855", "Toll-free", kNoRegion},
    {"856", "New Jersey", kNortheast},
    {"857", "Massachusetts", kNortheast},
    {"858", "California", kWest},
    {"859", "Kentucky", kSouth},
    {"860", "Connecticut", kNortheast},
    {"861", "Illinois", kMidwest},
    {"862", "New Jersey", kNortheast},
    {"863", "Florida", kSouth},
    {"864", "South Carolina", kSouth},
    {"865", "Tennessee", kSouth},
    {"866", "Toll-free", kNoRegion},
    {"867", "Yukon / NWT / Nunavut", kCanada},
    {"868", "Trinidad and Tobago", kCaribbean},
    {"869", "St. Kitts and Nevis", kCaribbean},
    {"870", "Arkansas", kSouth},
    {"872", "Illinois", kMidwest},
    {"873", "Quebec", kCanada},
    {"876", "Jamaica", kCaribbean},
    {"877", "Toll-free", kNoRegion},
    {"878", "Pennsylvania", kNortheast},
    {"888", "Toll-free", kNoRegion},
    {"901", "Tennessee", kSouth},
    {"902", "Nova Scotia / PEI", kCanada},
    {"903", "Texas", kSouth},
    {"904", "Florida", kSouth},
    {"905", "Ontario", kCanada},
    {"906", "Michigan", kMidwest},
    {"907", "Alaska", kWest},
    {"908", "New Jersey", kNortheast},
    {"909", "California", kWest},
    {"910", "North Carolina", kSouth},
    {"912", "Georgia", kSouth},
    {"913", "Kansas", kMidwest},
    {"914", "New York", kNortheast},
    {"915", "Texas", kSouth},
    {"916", "California", kWest},
    {"917", "New York", kNortheast},
    {"918", "Oklahoma", kSouth},
    {"919", "North Carolina", kSouth},
    {"920", "Wisconsin", kMidwest},
    {"925", "California", kWest},
    {"928", "Arizona", kWest},
    {"929", "New York", kNortheast},
    {"930", "Indiana", kMidwest},
    {"931", "Tennessee", kSouth},
    {"934", "New York", kNortheast},
    {"936", "Texas", kSouth},
    {"937", "Ohio", kMidwest},
    {"938", "Alabama", kSouth},
    {"939", "Puerto Rico", kUSTerritory},
    {"940", "Texas", kSouth},
    {"941", "Florida", kSouth},
    {"942", "Ontario", kCanada},
    {"945", "Texas", kSouth},
    {"947", "Michigan", kMidwest},
    {"949", "California", kWest},
    {"951", "California", kWest},
    {"952", "Minnesota", kMidwest},
    {"954", "Florida", kSouth},
    {"956", "Texas", kSouth},
    {"959", "Connecticut", kNortheast},
    {"970", "Colorado", kWest},
    {"971", "Oregon", kWest},
    {"972", "Texas", kSouth},
    {"973", "New Jersey", kNortheast},
    {"978", "Massachusetts", kNortheast},
    {"979", "Texas", kSouth},
    {"980", "North Carolina", kSouth},
    {"983", "Colorado", kWest},
    {"984", "North Carolina", kSouth},
    {"985", "Louisiana", kSouth},
    {"986", "Idaho", kWest},
    {"989", "Michigan", kMidwest},
});

constexpr std::array kCountryCodes = std::to_array<CountryCode>({
    {"1", "North America"},
    {"20", "Egypt"},
    {"212", "Morocco"},
    {"234", "Nigeria"},
    {"254", "Kenya"},
    {"27", "South Africa"},
    {"30", "Greece"},
    {"31", "Netherlands"},
    {"32", "Belgium"},
    {"33", "France"},
    {"34", "Spain"},
    {"351", "Portugal"},
    {"352", "Luxembourg"},
    {"353", "Ireland"},
    {"354", "Iceland"},
    {"356", "Malta"},
    {"357", "Cyprus"},
    {"358", "Finland"},
    {"359", "Bulgaria"},
    {"36", "Hungary"},
    {"370", "Lithuania"},
    {"371", "Latvia"},
    {"372", "Estonia"},
    {"380", "Ukraine"},
    {"381", "Serbia"},
    {"385", "Croatia"},
    {"386", "Slovenia"},
    {"39", "Italy"},
    {"40", "Romania"},
    {"41", "Switzerland"},
    {"420", "Czechia"},
    {"421", "Slovakia"},
    {"43", "Austria"},
    {"44", "United Kingdom"},
    {"45", "Denmark"},
    {"46", "Sweden"},
    {"47", "Norway"},
    {"48", "Poland"},
    {"49", "Germany"},
    {"502", "Guatemala"},
    {"503", "El Salvador"},
    {"504", "Honduras"},
    {"505", "Nicaragua"},
    {"506", "Costa Rica"},
    {"507", "Panama"},
    {"51", "Peru"},
    {"52", "Mexico"},
    {"53", "Cuba"},
    {"54", "Argentina"},
    {"55", "Brazil"},
    {"56", "Chile"},
    {"57", "Colombia"},
    {"58", "Venezuela"},
    {"591", "Bolivia"},
    {"593", "Ecuador"},
    {"595", "Paraguay"},
    {"598", "Uruguay"},
    {"60", "Malaysia"},
    {"61", "Australia"},
    {"62", "Indonesia"},
    {"63", "Philippines"},
    {"64", "New Zealand"},
    {"65", "Singapore"},
    {"66", "Thailand"},
    {"7", "Russia / Kazakhstan"},
    {"81", "Japan"},
    {"82", "South Korea"},
    {"84", "Vietnam"},
    {"852", "Hong Kong"},
    {"853", "Macau"},
    {"855", "Cambodia"},
    {"86", "China"},
    {"880", "Bangladesh"},
    {"886", "Taiwan"},
    {"90", "Turkey"},
    {"91", "India"},
    {"92", "Pakistan"},
    {"93", "Afghanistan"},
    {"94", "Sri Lanka"},
    {"95", "Myanmar"},
    {"960", "Maldives"},
    {"961", "Lebanon"},
    {"962", "Jordan"},
    {"965", "Kuwait"},
    {"966", "Saudi Arabia"},
    {"971", "United Arab Emirates"},
    {"972", "Israel"},
    {"973", "Bahrain"},
    {"974", "Qatar"},
    {"977", "Nepal"},
    {"98", "Iran"},
});

// Country codes of two digits. Together with "1" and "7" these settle the
// length of every code; the rest of the world uses three digits.
constexpr std::array<std::string_view, 44> kTwoDigitCountryCodes = {
    "20", "27", "30", "31", "32", "33", "34", "36", "39", "40", "41", "43", "44", "45", "46",
    "47", "48", "49", "51", "52", "53", "54", "55", "56", "57", "58", "60", "61", "62", "63",
    "64", "65", "66", "81", "82", "84", "86", "90", "91", "92", "93", "94", "95", "98"};

template <typename Table>
constexpr bool isStrictlySorted(const Table& table) {
    for (std::size_t i = 1; i < table.size(); ++i) {
        if (!(table[i - 1].code < table[i].code)) {
            return false;
        }
    }
    return true;
}

// Lookups are binary searches, so the tables must stay sorted by code.
static_assert(kNorthAmericanCodes.size() == 442);
static_assert(isStrictlySorted(kNorthAmericanCodes));
static_assert(kCountryCodes.size() == 91);
static_assert(isStrictlySorted(kCountryCodes));

template <typename Table>
const typename Table::value_type* findIn(const Table& table, std::string_view code) {
    const auto it = std::lower_bound(table.begin(), table.end(), code,
                                     [](const auto& row, std::string_view key) { return row.code < key; });
    if (it == table.end() || it->code != code) {
        return nullptr;
    }
    return &*it;
}

// The value of a Unicode decimal digit, or -1. Decimal digits are encoded in
// runs of ten, "0" to "9", and runs that touch each other each start at zero,
// so the distance from the start of the stretch gives the value.
int decimalDigitValue(utf8proc_int32_t codepoint) {
    if (codepoint >= '0' && codepoint <= '9') {
        return codepoint - '0';
    }
    if (codepoint < 0x80 || utf8proc_category(codepoint) != UTF8PROC_CATEGORY_ND) {
        return -1;
    }
    utf8proc_int32_t start = codepoint;
    while (start > 0 && utf8proc_category(start - 1) == UTF8PROC_CATEGORY_ND) {
        --start;
    }
    return static_cast<int>((codepoint - start) % 10);
}

// Walks UTF-8 text one code point at a time. A byte that does not start a
// valid sequence is returned as -1 and skipped on its own, so damaged text
// still yields the digits it has.
class CodepointReader {
public:
    explicit CodepointReader(std::string_view text) : m_text(text) {}

    bool atEnd() const { return m_position >= m_text.size(); }

    utf8proc_int32_t next() {
        utf8proc_int32_t codepoint = -1;
        const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(m_text.data()) + m_position;
        const auto length =
            utf8proc_iterate(bytes, static_cast<utf8proc_ssize_t>(m_text.size() - m_position), &codepoint);
        if (length <= 0) {
            ++m_position;
            return -1;
        }
        m_position += static_cast<std::size_t>(length);
        return codepoint;
    }

private:
    std::string_view m_text;
    std::size_t m_position = 0;
};

bool isSpace(utf8proc_int32_t codepoint) {
    if (codepoint == ' ' || (codepoint >= '\t' && codepoint <= '\r')) {
        return true;
    }
    if (codepoint < 0x80) {
        return false;
    }
    const auto category = utf8proc_category(codepoint);
    return category == UTF8PROC_CATEGORY_ZS || category == UTF8PROC_CATEGORY_ZL ||
           category == UTF8PROC_CATEGORY_ZP || codepoint == 0x85 || codepoint == 0xFEFF;
}

// How a number opens, once trimmed of white space.
enum class Prefix { national, plus, doubleZero };

struct PhoneDigits {
    std::string digits;
    Prefix prefix = Prefix::national;
};

// One pass over the text: collects the digits and notes whether the number,
// trimmed of white space, opens with "+" or "00".
PhoneDigits readPhone(std::string_view phone) {
    PhoneDigits result;
    result.digits.reserve(std::min<std::size_t>(phone.size(), 64));
    CodepointReader reader(phone);
    int leadingSeen = 0; // non-space code points looked at so far, up to two
    bool leadingZero = false;
    while (!reader.atEnd()) {
        const auto codepoint = reader.next();
        const int value = decimalDigitValue(codepoint);
        if (leadingSeen < 2 && !(leadingSeen == 0 && isSpace(codepoint))) {
            if (leadingSeen == 0) {
                // A full-width plus is what an East Asian keyboard types.
                if (codepoint == '+' || codepoint == 0xFF0B) {
                    result.prefix = Prefix::plus;
                }
                leadingZero = value == 0;
            } else if (leadingZero && value == 0) {
                result.prefix = Prefix::doubleZero;
            }
            ++leadingSeen;
        }
        if (value >= 0) {
            result.digits.push_back(static_cast<char>('0' + value));
        }
    }
    return result;
}

} // namespace

std::optional<std::string> AreaCodes::areaCode(std::string_view phone) {
    PhoneDigits number = readPhone(phone);
    std::string_view digits = number.digits;
    if (number.prefix == Prefix::national) {
        if (digits.size() == 11 && digits.front() == '1') {
            digits.remove_prefix(1);
        }
        if (digits.size() != 10 || digits.front() == '0' || digits.front() == '1') {
            return std::nullopt;
        }
        return std::string(digits.substr(0, 3));
    }
    // The international prefix "00" is not part of the number.
    if (number.prefix == Prefix::doubleZero) {
        digits.remove_prefix(2);
    }
    // North American numbers in international form still sort by area code.
    if (digits.size() == 11 && digits.front() == '1') {
        return std::string(digits.substr(1, 3));
    }
    const auto length = static_cast<std::size_t>(countryCodeLength(digits));
    if (length + 3 >= digits.size()) {
        return std::nullopt;
    }
    return "+" + std::string(digits.substr(0, length));
}

int AreaCodes::countryCodeLength(std::string_view digits) {
    if (digits.empty()) {
        return 0;
    }
    if (digits.front() == '1' || digits.front() == '7') {
        return 1;
    }
    const auto prefix = digits.substr(0, 2);
    if (prefix.size() == 2 && std::find(kTwoDigitCountryCodes.begin(), kTwoDigitCountryCodes.end(), prefix) !=
                                  kTwoDigitCountryCodes.end()) {
        return 2;
    }
    return 3;
}

std::string AreaCodes::label(std::string_view code) {
    std::string result(code);
    if (!code.empty() && code.front() == '+') {
        if (const auto* country = findCountry(code.substr(1))) {
            result.append(" · ").append(country->name);
        }
        return result;
    }
    if (const auto* row = findNorthAmerican(code)) {
        result.append(" · ").append(row->place);
        if (!row->region.empty()) {
            result.append(" · ").append(row->region);
        }
    }
    return result;
}

const AreaCodes::NorthAmericanCode* AreaCodes::findNorthAmerican(std::string_view code) {
    return findIn(kNorthAmericanCodes, code);
}

const AreaCodes::CountryCode* AreaCodes::findCountry(std::string_view codeWithoutPlus) {
    return findIn(kCountryCodes, codeWithoutPlus);
}

std::span<const AreaCodes::NorthAmericanCode> AreaCodes::northAmericanCodes() {
    return kNorthAmericanCodes;
}

std::span<const AreaCodes::CountryCode> AreaCodes::countryCodes() {
    return kCountryCodes;
}

std::span<const std::string_view> AreaCodes::twoDigitCountryCodes() {
    return kTwoDigitCountryCodes;
}

} // namespace kinbook
