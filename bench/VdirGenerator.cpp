#include "bench/VdirGenerator.h"

#include "KinbookKit/text/Base64.h"
#include "KinbookKit/vcard/VCardValue.h"
#include "bench/SplitMix64.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>
#include <vector>

namespace kinbook {

namespace {

using std::string_view;

// ---------------------------------------------------------------------------
// Pools. Each name comes with a Latin spelling for e-mail addresses and
// handles, as people with non-Latin names usually have.

struct Name {
    string_view native;
    string_view ascii;
};

enum class Script { latin, cyrillic, greek, chinese, japanese, arabic };

struct Region {
    string_view country;   // as written in ADR
    string_view abCode;    // Apple's X-ABADR
    string_view phones[3]; // '#' a digit, 'A' a US area code
    string_view postal;    // '#' a digit, '@' a capital letter; empty: none
    string_view cities[3];
    string_view streets[3]; // the house number goes after, or before for "#"-led ones
    string_view domain;
};

constexpr Name kLatinGiven[] = {
    {"José", "jose"},     {"Zoë", "zoe"},     {"Łukasz", "lukasz"},       {"Søren", "soren"},
    {"Anaïs", "anais"},   {"Mía", "mia"},     {"François", "francois"},   {"Björn", "bjorn"},
    {"Ana", "ana"},       {"John", "john"},   {"Emily", "emily"},         {"Michael", "michael"},
    {"Sarah", "sarah"},   {"David", "david"}, {"Laura", "laura"},         {"Jürgen", "jurgen"},
    {"Chloé", "chloe"},   {"Íñigo", "inigo"}, {"Agnieszka", "agnieszka"}, {"Mateusz", "mateusz"},
    {"Olivia", "olivia"}, {"Noah", "noah"},   {"Élodie", "elodie"},       {"Håkan", "hakan"},
};
constexpr Name kLatinFamily[] = {
    {"Müller", "mueller"},
    {"Núñez", "nunez"},
    {"García", "garcia"},
    {"Nowak", "nowak"},
    {"Wiśniewska", "wisniewska"},
    {"Lefèvre", "lefevre"},
    {"Öberg", "oberg"},
    {"Smith", "smith"},
    {"Johnson", "johnson"},
    {"O'Brien", "obrien"},
    {"Brown", "brown"},
    {"Schröder", "schroder"},
    {"Dubois", "dubois"},
    {"Fernández", "fernandez"},
    {"Kowalski", "kowalski"},
    {"Lindqvist", "lindqvist"},
    {"van der Berg", "vanderberg"},
    {"Martin", "martin"},
    {"Williams", "williams"},
    {"Jørgensen", "jorgensen"},
};
constexpr Name kCyrillicGiven[] = {
    {"Иван", "ivan"},      {"Мария", "maria"}, {"Алексей", "alexey"}, {"Наталья", "natalya"},
    {"Дмитрий", "dmitry"}, {"Ольга", "olga"},  {"Сергей", "sergey"},  {"Екатерина", "ekaterina"},
};
constexpr Name kCyrillicFamily[] = {
    {"Иванов", "ivanov"}, {"Петрова", "petrova"},   {"Смирнов", "smirnov"}, {"Кузнецова", "kuznetsova"},
    {"Попов", "popov"},   {"Соколова", "sokolova"}, {"Волков", "volkov"},   {"Лебедева", "lebedeva"},
};
constexpr Name kGreekGiven[] = {
    {"Γιώργος", "giorgos"}, {"Μαρία", "maria"},       {"Νίκος", "nikos"},
    {"Ελένη", "eleni"},     {"Δημήτρης", "dimitris"}, {"Σοφία", "sofia"},
};
constexpr Name kGreekFamily[] = {
    {"Παπαδόπουλος", "papadopoulos"}, {"Οικονόμου", "oikonomou"}, {"Γεωργίου", "georgiou"},
    {"Καραγιάννη", "karagianni"},     {"Βλάχος", "vlachos"},      {"Αντωνίου", "antoniou"},
};
constexpr Name kChineseGiven[] = {
    {"伟", "wei"}, {"芳", "fang"}, {"娜", "na"}, {"静", "jing"}, {"磊", "lei"}, {"晓明", "xiaoming"},
};
constexpr Name kChineseFamily[] = {
    {"王", "wang"}, {"李", "li"}, {"张", "zhang"}, {"刘", "liu"}, {"陈", "chen"}, {"杨", "yang"},
};
constexpr Name kJapaneseGiven[] = {
    {"花子", "hanako"}, {"太郎", "taro"}, {"さくら", "sakura"}, {"健", "ken"}, {"由美", "yumi"},
};
constexpr Name kJapaneseFamily[] = {
    {"佐藤", "sato"}, {"鈴木", "suzuki"}, {"高橋", "takahashi"}, {"田中", "tanaka"}, {"渡辺", "watanabe"},
};
constexpr Name kArabicGiven[] = {
    {"محمد", "mohammed"}, {"فاطمة", "fatima"}, {"أحمد", "ahmed"}, {"ليلى", "layla"}, {"يوسف", "youssef"},
};
constexpr Name kArabicFamily[] = {
    {"العلي", "alali"}, {"حسن", "hassan"}, {"الخطيب", "alkhatib"}, {"منصور", "mansour"}, {"سعيد", "saeed"},
};

constexpr Region kUS = {"United States",
                        "us",
                        {"+1 (A) 555-01##", "(A) 555-01##", "A-555-01##"},
                        "#####",
                        {"Springfield", "Portland", "Austin"},
                        {"Main St", "Oak Avenue", "Elm Street"},
                        "example.com"};
constexpr Region kUSCompact = {"USA",
                               "us",
                               {"+1 A 555 01##", "+1A55501##", "A.555.01##"},
                               "#####-####",
                               {"Boston", "Denver", "Seattle"},
                               {"Pine Rd", "Cedar Ln", "Lake Dr"},
                               "example.net"};
constexpr Region kGermany = {"Deutschland",
                             "de",
                             {"+49 30 #######", "030 #######", "+49 171 #######"},
                             "#####",
                             {"Berlin", "München", "Köln"},
                             {"Hauptstraße", "Schillerstraße", "Gartenweg"},
                             "beispiel.de"};
constexpr Region kFrance = {"France",
                            "fr",
                            {"+33 1 ## ## ## ##", "06 ## ## ## ##", "+33 6 ## ## ## ##"},
                            "75###",
                            {"Paris", "Lyon", "Marseille"},
                            {"rue de la Paix", "avenue Foch", "rue Lepic"},
                            "exemple.fr"};
constexpr Region kUK = {"United Kingdom",
                        "gb",
                        {"+44 20 7946 0###", "07700 900###", "+44 7700 900###"},
                        "SW1A #@@",
                        {"London", "Leeds", "Bristol"},
                        {"High Street", "Station Road", "Church Lane"},
                        "example.co.uk"};
constexpr Region kSpain = {"España",
                           "es",
                           {"+34 6## ## ## ##", "91 ### ## ##", "+34 91 ### ## ##"},
                           "28###",
                           {"Madrid", "Sevilla", "Bilbao"},
                           {"Calle Mayor", "Gran Vía", "Calle de Alcalá"},
                           "ejemplo.es"};
constexpr Region kPoland = {"Polska",
                            "pl",
                            {"+48 5## ### ###", "22 ### ## ##", "+48 22 ### ## ##"},
                            "##-###",
                            {"Warszawa", "Kraków", "Łódź"},
                            {"ul. Długa", "ul. Marszałkowska", "ul. Świętojańska"},
                            "przyklad.pl"};
constexpr Region kSweden = {"Sverige",
                            "se",
                            {"+46 8 ### ### ##", "070-### ## ##", "+46 70 ### ## ##"},
                            "### ##",
                            {"Stockholm", "Göteborg", "Malmö"},
                            {"Storgatan", "Drottninggatan", "Kungsgatan"},
                            "exempel.se"};
constexpr Region kRussia = {"Россия",
                            "ru",
                            {"+7 495 ###-##-##", "8 (916) ###-##-##", "+7 916 ### ## ##"},
                            "######",
                            {"Москва", "Санкт-Петербург", "Казань"},
                            {"ул. Ленина", "Невский проспект", "ул. Пушкина"},
                            "primer.ru"};
constexpr Region kGreece = {"Ελλάδα",
                            "gr",
                            {"+30 21 0### ####", "69# ### ####", "+30 69# ### ####"},
                            "### ##",
                            {"Αθήνα", "Θεσσαλονίκη", "Πάτρα"},
                            {"Οδός Ερμού", "Λεωφόρος Αλεξάνδρας", "Οδός Σταδίου"},
                            "paradeigma.gr"};
constexpr Region kChina = {"中国",
                           "cn",
                           {"+86 138 #### ####", "010 #### ####", "+86 10 #### ####"},
                           "######",
                           {"北京", "上海", "广州"},
                           {"长安街", "南京路", "中山路"},
                           "example.cn"};
constexpr Region kJapan = {"日本",
                           "jp",
                           {"+81 3-####-####", "090-####-####", "+81 90-####-####"},
                           "###-####",
                           {"東京都", "大阪市", "京都市"},
                           {"銀座", "新宿", "梅田"},
                           "example.jp"};
constexpr Region kEmirates = {"الإمارات",
                              "ae",
                              {"+971 50 ### ####", "04 ### ####", "+971 4 ### ####"},
                              "",
                              {"دبي", "أبوظبي", "الشارقة"},
                              {"شارع الشيخ زايد", "شارع الوصل", "شارع الجميرا"},
                              "example.ae"};
constexpr Region kEgypt = {"مصر",
                           "eg",
                           {"+20 10 #### ####", "02 #### ####", "+20 2 #### ####"},
                           "#####",
                           {"القاهرة", "الإسكندرية", "الجيزة"},
                           {"شارع التحرير", "شارع الهرم", "شارع النيل"},
                           "example.eg"};

constexpr string_view kAreaCodes[] = {"212", "415", "617", "312", "206", "303",
                                      "512", "404", "213", "646", "718"};

constexpr string_view kCompanies[] = {
    "Acme Corporation",
    "Globex",
    "Initech",
    "Umbrella Research",
    "Müller & Söhne GmbH",
    "Société Générale d'Exemple",
    "Hooli",
    "Stark Industries",
    "Wayne Enterprises",
    "Vandelay Industries",
    "Kowalski i Wspólnicy",
    "Северный ветер",
    "株式会社サンプル",
    "示例科技有限公司",
    "Εταιρεία Παράδειγμα",
    "Soylent, Inc.",
    "Cyberdyne Systems",
    "Tyrell Corp.",
    "Oceanic Airlines",
    "شركة المثال",
};
constexpr string_view kDepartments[] = {"", "", "", "Sales", "Engineering", "Accounting", "R&D", "Legal"};
constexpr string_view kTitles[] = {
    "Software Engineer",
    "Product Manager",
    "CEO",
    "Sales Director",
    "Architect",
    "Doctor",
    "Teacher",
    "Buyer",
    "Head of Marketing",
    "Consultant",
    "Chief Money Counter",
    "Designer",
};
constexpr string_view kNotes[] = {
    "Met at the conference in Lisbon, talked about sailing.",
    "Prefers calls after 6 pm.\nAllergic to peanuts.",
    "Old friend from school; ask about the kids, Anna and Tom.",
    "Landlord. Rent due on the 1st; spare key with the neighbour.",
    "Introduced by Sam. Interested in the Q3 proposal, follow up in May.",
};
constexpr string_view kCustomPhoneLabels[] = {"ex-work", "ex-mobile",  "Office", "Werk",
                                              "Bureau",  "Lake house", "ex-home"};
constexpr string_view kCustomMailLabels[] = {"ex-work", "Uni", "Newsletter", "ex-home", "Club"};
constexpr string_view kAppleProducts[] = {"iOS 17.4.1", "iOS 16.6", "macOS 14.4", "iOS 15.7.2"};
constexpr string_view kSocial[] = {"twitter", "linkedin", "facebook", "flickr"};
constexpr string_view kImServices[] = {"Skype", "Jabber", "ICQ", "Facebook", "GoogleTalk"};
constexpr string_view kGroups[] = {"Family",   "Work",        "Book club", "Neighbours",
                                   "Climbing", "Kita Eltern", "Друзья",    "同事"};
constexpr string_view kAccountNames[] = {"iCloud", "Google", "Nextcloud", "Work", "Fastmail", "Posteo"};

constexpr string_view kAnchorAlphabet = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";

// A valid 8x8 grey baseline JPEG (a single-code Huffman table per class, one
// block with no AC energy). A comment segment of random filler is put after
// its start marker so that photos differ and have the size of a typical
// small thumbnail.
std::vector<std::uint8_t> tinyJpeg(SplitMix64& random, std::size_t filler) {
    std::vector<std::uint8_t> jpeg = {0xFF, 0xD8};
    auto segment = [&](std::uint8_t marker, std::size_t length) {
        jpeg.insert(jpeg.end(), {0xFF, marker, static_cast<std::uint8_t>(length >> 8),
                                 static_cast<std::uint8_t>(length & 0xFF)});
    };
    segment(0xFE, filler + 2); // comment
    for (std::size_t i = 0; i < filler; ++i) {
        jpeg.push_back(static_cast<std::uint8_t>(random.below(256)));
    }
    segment(0xE0, 16); // JFIF 1.1, no density, no thumbnail
    jpeg.insert(jpeg.end(), {'J', 'F', 'I', 'F', 0x00, 0x01, 0x01, 0x00, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00});
    segment(0xDB, 67); // quantisation table 0: all ones
    jpeg.push_back(0x00);
    jpeg.insert(jpeg.end(), 64, 0x01);
    segment(0xC0, 11); // baseline, 8 bits, 8x8, one component with sampling 1x1 and table 0
    jpeg.insert(jpeg.end(), {0x08, 0x00, 0x08, 0x00, 0x08, 0x01, 0x01, 0x11, 0x00});
    for (std::uint8_t tableClass : {std::uint8_t{0x00}, std::uint8_t{0x10}}) { // DC 0, then AC 0
        segment(0xC4, 20);
        jpeg.push_back(tableClass);
        jpeg.push_back(0x01); // one code of length 1 ...
        jpeg.insert(jpeg.end(), 15, 0x00);
        jpeg.push_back(0x00); // ... for DC category 0, and for AC end of block
    }
    segment(0xDA, 8); // the scan: one component, tables 0/0, full spectrum
    jpeg.insert(jpeg.end(), {0x01, 0x01, 0x00, 0x00, 0x3F, 0x00});
    jpeg.push_back(0x3F); // DC difference 0, end of block, padded with ones
    jpeg.insert(jpeg.end(), {0xFF, 0xD9});
    return jpeg;
}

enum class Dialect { apple, google };

struct AccountPlan {
    std::string folder;
    std::string displayName;
    Dialect dialect = Dialect::apple;
    std::vector<std::string> uids; // of its person cards, for group members
};

// ---------------------------------------------------------------------------
// Text helpers.

// Appends `line` folded at 75 octets, never inside a UTF-8 sequence, and
// CRLF.
void appendLine(std::string& out, string_view line) {
    constexpr std::size_t limit = 75;
    std::size_t start = 0;
    std::size_t room = limit;
    while (line.size() - start > room) {
        std::size_t cut = start + room;
        while (cut > start && (static_cast<unsigned char>(line[cut]) & 0xC0) == 0x80) {
            --cut;
        }
        out.append(line, start, cut - start);
        out += "\r\n ";
        start = cut;
        room = limit - 1;
    }
    out.append(line, start, string_view::npos);
    out += "\r\n";
}

// Replaces '#' by a digit, '@' by a capital letter and 'A' by a US area code.
std::string fillPattern(SplitMix64& random, string_view pattern) {
    std::string out;
    for (char c : pattern) {
        if (c == '#') {
            out += static_cast<char>('0' + random.below(10));
        } else if (c == '@') {
            out += static_cast<char>('A' + random.below(26));
        } else if (c == 'A') {
            out += random.pick(kAreaCodes);
        } else {
            out += c;
        }
    }
    return out;
}

std::string hexDigits(SplitMix64& random, std::size_t count, bool upper) {
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string out;
    for (std::size_t i = 0; i < count; ++i) {
        out += digits[random.below(16)];
    }
    return out;
}

std::string appleUid(SplitMix64& random) {
    return hexDigits(random, 8, true) + "-" + hexDigits(random, 4, true) + "-4" + hexDigits(random, 3, true) +
           "-" + "89AB"[random.below(4)] + hexDigits(random, 3, true) + "-" + hexDigits(random, 12, true);
}

std::string twoDigits(int value) {
    return std::string{static_cast<char>('0' + value / 10), static_cast<char>('0' + value % 10)};
}

// ---------------------------------------------------------------------------
// One person, as every card of theirs describes them.

struct Phone {
    std::string number;
    string_view type;        // CELL, HOME, WORK, MAIN, IPHONE; empty with a custom label
    string_view customLabel; // empty for a stock type
};

struct Mail {
    std::string address;
    string_view type;
    string_view customLabel;
};

struct Person {
    Script script = Script::latin;
    const Region* region = &kUS;
    std::string given;
    std::string family;
    std::string middle;
    std::string prefix;
    std::string nickname;
    std::string handle; // ASCII, for e-mail and social profiles
    std::string organisation;
    std::string department;
    std::string title;
    std::vector<Phone> phones;
    std::vector<Mail> mails;
    bool hasAddress = false;
    std::string street;
    std::string city;
    std::string postal;
    std::string homepage;
    int birthYear = 0; // 0: no birthday; -1: a birthday without a year
    int birthMonth = 0;
    int birthDay = 0;
    string_view note;
    std::vector<std::uint8_t> photo;
    string_view socialService;
    string_view imService;
    std::string kinID; // empty: no anchor
    bool hidden = false;
    int circle = 0;
};

const Region& regionFor(SplitMix64& random, Script script) {
    switch (script) {
    case Script::cyrillic:
        return kRussia;
    case Script::greek:
        return kGreece;
    case Script::chinese:
        return kChina;
    case Script::japanese:
        return kJapan;
    case Script::arabic:
        return random.percent(50) ? kEmirates : kEgypt;
    case Script::latin:
        break;
    }
    static constexpr const Region* latin[] = {&kUS,     &kUS, &kUS,    &kUSCompact, &kGermany,
                                              &kFrance, &kUK, &kSpain, &kPoland,    &kSweden};
    return *random.pick(latin);
}

template <std::size_t G, std::size_t F>
void pickName(SplitMix64& random, Person& person, const Name (&given)[G], const Name (&family)[F]) {
    const Name& first = random.pick(given);
    const Name& last = random.pick(family);
    person.given = first.native;
    person.family = last.native;
    person.handle = std::string(first.ascii) + "." + std::string(last.ascii);
}

Person makePerson(SplitMix64& random, bool wantsAnchor) {
    Person person;
    std::uint64_t roll = random.below(100);
    person.script = roll < 68   ? Script::latin
                    : roll < 77 ? Script::cyrillic
                    : roll < 82 ? Script::greek
                    : roll < 88 ? Script::chinese
                    : roll < 93 ? Script::japanese
                                : Script::arabic;
    switch (person.script) {
    case Script::latin:
        pickName(random, person, kLatinGiven, kLatinFamily);
        break;
    case Script::cyrillic:
        pickName(random, person, kCyrillicGiven, kCyrillicFamily);
        break;
    case Script::greek:
        pickName(random, person, kGreekGiven, kGreekFamily);
        break;
    case Script::chinese:
        pickName(random, person, kChineseGiven, kChineseFamily);
        break;
    case Script::japanese:
        pickName(random, person, kJapaneseGiven, kJapaneseFamily);
        break;
    case Script::arabic:
        pickName(random, person, kArabicGiven, kArabicFamily);
        break;
    }
    person.region = &regionFor(random, person.script);
    const Region& region = *person.region;
    if (person.script == Script::latin) {
        if (random.percent(8)) {
            person.middle = std::string(random.pick(kLatinGiven).native);
        }
        if (random.percent(5)) {
            static constexpr string_view prefixes[] = {"Dr.", "Prof.", "Mr.", "Ms."};
            person.prefix = random.pick(prefixes);
        }
        if (random.percent(6)) {
            // The first three letters, not octets: "Zoë" gives "Zoëy".
            std::size_t end = 0;
            for (int letters = 0; letters < 3 && end < person.given.size(); ++letters) {
                do {
                    ++end;
                } while (end < person.given.size() &&
                         (static_cast<unsigned char>(person.given[end]) & 0xC0) == 0x80);
            }
            person.nickname = person.given.substr(0, end) + "y";
        }
    }
    person.handle += std::to_string(random.below(100));

    if (random.percent(60)) {
        person.organisation = random.pick(kCompanies);
        person.department = random.pick(kDepartments);
        if (random.percent(65)) {
            person.title = random.pick(kTitles);
        }
    }

    int phones = random.percent(8) ? 0 : random.between(1, 3);
    static constexpr string_view stockPhoneTypes[] = {"CELL", "CELL", "HOME", "WORK", "MAIN", "IPHONE"};
    for (int i = 0; i < phones; ++i) {
        Phone phone{fillPattern(random, region.phones[random.below(3)]), random.pick(stockPhoneTypes), {}};
        if (random.percent(12)) {
            phone.type = {};
            phone.customLabel = random.pick(kCustomPhoneLabels);
        }
        person.phones.push_back(std::move(phone));
    }
    int mails = random.between(0, 2) + (random.percent(10) ? 1 : 0);
    static constexpr string_view stockMailTypes[] = {"HOME", "WORK", "HOME", "OTHER"};
    for (int i = 0; i < mails; ++i) {
        std::string domain = i == 0 ? "mail." + std::string(region.domain) : std::string(region.domain);
        Mail mail{person.handle + (i == 0 ? "" : std::to_string(i)) + "@" + domain,
                  random.pick(stockMailTypes),
                  {}};
        if (random.percent(10)) {
            mail.type = {};
            mail.customLabel = random.pick(kCustomMailLabels);
        }
        person.mails.push_back(std::move(mail));
    }
    if (random.percent(40)) {
        person.hasAddress = true;
        string_view street = region.streets[random.below(3)];
        std::string number = std::to_string(random.between(1, 240));
        person.street = region.abCode == "us" || region.abCode == "gb" || region.abCode == "fr"
                            ? number + " " + std::string(street)
                            : std::string(street) + " " + number;
        person.city = region.cities[random.below(3)];
        person.postal = fillPattern(random, region.postal);
    }
    if (random.percent(18)) {
        person.homepage = "https://www." + person.handle.substr(0, person.handle.find('.')) + "-" +
                          std::to_string(random.below(1000)) + ".example.org/";
    }
    if (random.percent(30)) {
        person.birthYear = random.percent(25) ? -1 : random.between(1940, 2015);
        person.birthMonth = random.between(1, 12);
        person.birthDay = random.between(1, 28);
    }
    if (random.percent(4)) {
        person.note = random.pick(kNotes);
    }
    if (random.percent(5)) {
        person.photo = tinyJpeg(random, 2000 + random.below(4000));
    }
    if (random.percent(12)) {
        person.socialService = random.pick(kSocial);
    }
    if (random.percent(8)) {
        person.imService = random.pick(kImServices);
    }
    if (wantsAnchor || random.percent(25)) {
        for (int i = 0; i < 8; ++i) {
            person.kinID += kAnchorAlphabet[random.below(kAnchorAlphabet.size())];
        }
        person.hidden = random.percent(3);
        person.circle = random.percent(15) ? random.between(1, 6) : 0;
    }
    return person;
}

// ---------------------------------------------------------------------------
// Cards.

std::string formattedName(const Person& person) {
    bool eastAsian = person.script == Script::chinese || person.script == Script::japanese;
    std::string name;
    if (!person.prefix.empty()) {
        name = person.prefix + " ";
    }
    if (eastAsian) {
        return name + person.family + person.given;
    }
    name += person.given;
    if (!person.middle.empty()) {
        name += " " + person.middle;
    }
    return name + " " + person.family;
}

std::string anchorURL(const Person& person, bool primary) {
    std::string url = "kinbook://c/" + person.kinID;
    std::string query;
    if (person.hidden) {
        query += "h=1";
    }
    if (person.circle != 0) {
        query += (query.empty() ? "" : "&") + std::string("r=") + std::to_string(person.circle);
    }
    if (primary) {
        query += (query.empty() ? "" : "&") + std::string("p=1");
    }
    return query.empty() ? url : url + "?" + query;
}

// `full` is false for the second card of a linked person, which usually
// holds less (a work account knows the work number and address only).
void composeCard(std::string& out, SplitMix64& random, const Person& person, Dialect dialect, bool full,
                 bool primary, const std::string& uid) {
    const bool apple = dialect == Dialect::apple;
    const string_view type = apple ? "type=" : "TYPE=";
    int group = 0;
    auto nextGroup = [&] { return "item" + std::to_string(++group) + "."; };
    // Apple repeats the parameter ("type=CELL;type=VOICE"), Google too in
    // upper case; both write INTERNET on e-mail.
    auto types = [&](std::initializer_list<string_view> values) {
        std::string text;
        for (string_view value : values) {
            text.append(";").append(type).append(value);
        }
        return text;
    };

    out.clear();
    appendLine(out, "BEGIN:VCARD");
    appendLine(out, "VERSION:3.0");
    if (apple) {
        appendLine(out, "PRODID:-//Apple Inc.//" + std::string(random.pick(kAppleProducts)) + "//EN");
    }
    appendLine(out, "N:" + escapeVCardText(person.family) + ";" + escapeVCardText(person.given) + ";" +
                        escapeVCardText(person.middle) + ";" + escapeVCardText(person.prefix) + ";");
    appendLine(out, "FN:" + escapeVCardText(formattedName(person)));
    if (!person.nickname.empty() && full) {
        appendLine(out, "NICKNAME:" + escapeVCardText(person.nickname));
    }
    if (!person.organisation.empty()) {
        appendLine(out,
                   "ORG:" + escapeVCardText(person.organisation) + ";" + escapeVCardText(person.department));
        if (!person.title.empty()) {
            appendLine(out, "TITLE:" + escapeVCardText(person.title));
        }
    }

    bool preferredPhone = true;
    for (const Phone& phone : person.phones) {
        if (!full && phone.type != "WORK" && phone.type != "MAIN" && !random.percent(30)) {
            continue;
        }
        if (!phone.customLabel.empty()) {
            std::string item = nextGroup();
            appendLine(out, item + "TEL:" + phone.number);
            appendLine(out, item + "X-ABLabel:" + std::string(phone.customLabel));
        } else if (phone.type == "MAIN" && apple) {
            std::string item = nextGroup();
            appendLine(out, item + "TEL" + (preferredPhone ? types({"pref"}) : std::string()) + ":" +
                                phone.number);
            appendLine(out, item + "X-ABLabel:_$!<Main>!$_");
        } else if (phone.type == "IPHONE") {
            appendLine(out, "TEL" + types({"IPHONE", "CELL", "VOICE"}) + ":" + phone.number);
        } else if (apple) {
            std::string parameters = types({phone.type, "VOICE"});
            if (preferredPhone) {
                parameters += types({"pref"});
            }
            appendLine(out, "TEL" + parameters + ":" + phone.number);
        } else {
            appendLine(out, "TEL" + types({phone.type}) + ":" + phone.number);
        }
        preferredPhone = false;
    }

    bool preferredMail = true;
    for (const Mail& mail : person.mails) {
        if (!full && mail.type != "WORK" && !random.percent(30)) {
            continue;
        }
        if (!mail.customLabel.empty()) {
            std::string item = nextGroup();
            appendLine(out, item + "EMAIL" + types({"INTERNET"}) + ":" + mail.address);
            appendLine(out, item + "X-ABLabel:" + std::string(mail.customLabel));
        } else {
            std::string parameters = types({"INTERNET", mail.type});
            if (preferredMail && apple) {
                parameters += types({"pref"});
            }
            appendLine(out, "EMAIL" + parameters + ":" + mail.address);
        }
        preferredMail = false;
    }

    if (person.hasAddress && (full || random.percent(40))) {
        const Region& region = *person.region;
        std::string value = ";;" + escapeVCardText(person.street) + ";" + escapeVCardText(person.city) +
                            ";;" + person.postal + ";" + escapeVCardText(region.country);
        if (apple) {
            std::string item = nextGroup();
            appendLine(out, item + "ADR" + types({"HOME", "pref"}) + ":" + value);
            appendLine(out, item + "X-ABADR:" + std::string(region.abCode));
        } else {
            appendLine(out, "ADR" + types({"HOME"}) + ":" + value);
        }
    }

    if (!person.homepage.empty() && full) {
        std::string item = nextGroup();
        appendLine(out, item + "URL" + (apple ? types({"pref"}) : "") + ":" + person.homepage);
        appendLine(out, item + "X-ABLabel:" + std::string(apple ? "_$!<HomePage>!$_" : "PROFILE"));
    }
    if (!person.kinID.empty()) {
        std::string item = nextGroup();
        appendLine(out, item + "URL:" + anchorURL(person, primary));
        appendLine(out, item + "X-ABLabel:Vellumary Contacts");
    }

    if (person.birthYear != 0 && full) {
        std::string monthDay = twoDigits(person.birthMonth) + "-" + twoDigits(person.birthDay);
        if (person.birthYear > 0) {
            appendLine(out, std::string(apple ? "BDAY;value=date:" : "BDAY:") +
                                std::to_string(person.birthYear) + "-" + monthDay);
        } else if (apple) {
            // Apple stores a birthday without a year in year 1604 and says so.
            appendLine(out, "BDAY;X-APPLE-OMIT-YEAR=1604;value=date:1604-" + monthDay);
        } else {
            appendLine(out, "BDAY:--" + twoDigits(person.birthMonth) + twoDigits(person.birthDay));
        }
    }
    if (!person.note.empty() && full) {
        appendLine(out, "NOTE:" + escapeVCardText(person.note));
    }
    if (!person.socialService.empty() && apple) {
        std::string user =
            person.handle.substr(0, person.handle.find('.')) + std::to_string(random.below(1000));
        appendLine(out, "X-SOCIALPROFILE;type=" + std::string(person.socialService) + ";x-user=" + user +
                            ":https://" + std::string(person.socialService) + ".example.com/" + user);
    }
    if (!person.imService.empty() && full) {
        std::string scheme = person.imService == "Skype" ? "skype:" : "xmpp:";
        if (apple) {
            std::string item = nextGroup();
            appendLine(out, item + "IMPP;X-SERVICE-TYPE=" + std::string(person.imService) +
                                ";type=pref:" + scheme + person.handle);
            appendLine(out, item + "X-ABLabel:" + std::string(person.imService));
        } else {
            appendLine(out, "IMPP;X-SERVICE-TYPE=" + std::string(person.imService) + ";TYPE=HOME:" + scheme +
                                person.handle + "@chat.example.com");
        }
    }
    if (!person.photo.empty() && full) {
        appendLine(out, "PHOTO;ENCODING=b;" + std::string(type) + "JPEG:" + base64Encode(person.photo));
    }
    if (apple) {
        appendLine(out, "REV:20" + twoDigits(random.between(18, 25)) + "-" +
                            twoDigits(random.between(1, 12)) + "-" + twoDigits(random.between(1, 28)) + "T" +
                            twoDigits(random.between(0, 23)) + ":" + twoDigits(random.between(0, 59)) + ":" +
                            twoDigits(random.between(0, 59)) + "Z");
    }
    appendLine(out, "UID:" + uid);
    appendLine(out, "END:VCARD");
}

void composeGroup(std::string& out, string_view name, Dialect dialect,
                  const std::vector<std::string>& members, const std::string& uid) {
    out.clear();
    appendLine(out, "BEGIN:VCARD");
    appendLine(out, "VERSION:3.0");
    if (dialect == Dialect::apple) {
        appendLine(out, "PRODID:-//Apple Inc.//macOS 14.4//EN");
    }
    appendLine(out, "N:" + escapeVCardText(name));
    appendLine(out, "FN:" + escapeVCardText(name));
    appendLine(out, "X-ADDRESSBOOKSERVER-KIND:group");
    for (const std::string& member : members) {
        appendLine(out, "X-ADDRESSBOOKSERVER-MEMBER:urn:uuid:" + member);
    }
    appendLine(out, "UID:" + uid);
    appendLine(out, "END:VCARD");
}

// ---------------------------------------------------------------------------
// Files.

Result<std::uint64_t, std::string> writeNewFile(const std::filesystem::path& path, string_view bytes) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        return failure("cannot create " + path.string() + ": " + std::strerror(errno));
    }
    std::size_t written = 0;
    while (written < bytes.size()) {
        ssize_t count = ::write(fd, bytes.data() + written, bytes.size() - written);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            std::string message = "cannot write " + path.string() + ": " + std::strerror(errno);
            ::close(fd);
            return failure(std::move(message));
        }
        written += static_cast<std::size_t>(count);
    }
    if (::close(fd) != 0) {
        return failure("cannot write " + path.string() + ": " + std::strerror(errno));
    }
    return static_cast<std::uint64_t>(bytes.size());
}

// The random source of one person: independent of every other person's, so
// that a person's cards do not depend on how much randomness others used.
// SplitMix64 walks its state by a fixed step, so neighbouring indexes must
// not become neighbouring states (their streams would be the same numbers,
// shifted by one): the starting state is itself a mixed value.
SplitMix64 streamFor(std::uint64_t seed, std::uint64_t stream, std::uint64_t index) {
    SplitMix64 mixer(seed ^ (stream * 0xD1B54A32D192ED03ull));
    SplitMix64 start(mixer.next() ^ (index * 0xA24BAED4963EE407ull));
    return SplitMix64(start.next());
}

} // namespace

Result<VdirGeneratorReport, std::string> VdirGenerator::write(const std::filesystem::path& root) const {
    std::error_code error;
    if (std::filesystem::exists(root, error) && !std::filesystem::is_empty(root, error)) {
        return failure(root.string() + " is not empty");
    }
    std::filesystem::create_directories(root, error);
    if (error) {
        return failure("cannot create " + root.string() + ": " + error.message());
    }

    VdirGeneratorReport report;
    const std::size_t accountCount = std::max<std::size_t>(1, m_options.accounts);
    report.accounts = accountCount;
    report.people = m_options.people;

    std::vector<AccountPlan> accounts(accountCount);
    SplitMix64 setup = streamFor(m_options.seed, 1, 0);
    for (std::size_t i = 0; i < accountCount; ++i) {
        AccountPlan& account = accounts[i];
        account.dialect = i % 2 == 0 ? Dialect::apple : Dialect::google;
        // Collection ids as servers hand them out: Apple's a UUID-like
        // "card" folder, Google's an address.
        account.folder =
            account.dialect == Dialect::apple ? appleUid(setup) : "default-" + hexDigits(setup, 12, false);
        std::string_view base = kAccountNames[i % std::size(kAccountNames)];
        account.displayName = std::string(base);
        if (i >= std::size(kAccountNames)) {
            account.displayName += " " + std::to_string(i / std::size(kAccountNames) + 1);
        }
        std::filesystem::create_directories(root / account.folder, error);
        if (error) {
            return failure("cannot create " + (root / account.folder).string() + ": " + error.message());
        }
        auto written = writeNewFile(root / account.folder / "displayname", account.displayName + "\n");
        if (!written) {
            return failure(written.error());
        }
        report.bytes += *written;
    }

    // The first accounts hold most people, as a main account does.
    auto pickAccount = [&](SplitMix64& random) {
        std::uint64_t total = accountCount * (accountCount + 1) / 2;
        std::uint64_t roll = random.below(total);
        for (std::size_t i = 0; i < accountCount; ++i) {
            std::uint64_t weight = accountCount - i;
            if (roll < weight) {
                return i;
            }
            roll -= weight;
        }
        return accountCount - 1;
    };

    std::string card;
    card.reserve(16384);
    for (std::size_t index = 0; index < m_options.people; ++index) {
        SplitMix64 random = streamFor(m_options.seed, 2, index);
        const bool linked = accountCount > 1 && random.percent(20);
        Person person = makePerson(random, linked);
        std::size_t first = pickAccount(random);
        std::size_t second = first;
        if (linked) {
            second = (first + 1 + random.below(accountCount - 1)) % accountCount;
            ++report.linkedPeople;
        }
        const int primaryCard = linked && random.percent(50) ? random.between(0, 1) : -1;
        for (int copy = 0; copy < (linked ? 2 : 1); ++copy) {
            AccountPlan& account = accounts[copy == 0 ? first : second];
            std::string uid =
                account.dialect == Dialect::apple ? appleUid(random) : hexDigits(random, 16, false);
            composeCard(card, random, person, account.dialect, copy == 0, primaryCard == copy, uid);
            auto written = writeNewFile(root / account.folder / (uid + ".vcf"), card);
            if (!written) {
                return failure(written.error());
            }
            report.bytes += *written;
            ++report.cards;
            account.uids.push_back(std::move(uid));
        }
    }

    for (std::size_t i = 0; i < accountCount; ++i) {
        AccountPlan& account = accounts[i];
        SplitMix64 random = streamFor(m_options.seed, 3, i);
        std::size_t groups = account.uids.size() < 5 ? 0 : 1 + account.uids.size() / 2500;
        for (std::size_t g = 0; g < groups; ++g) {
            // A run of distinct cards from a random place in the account.
            std::vector<std::string> members;
            std::size_t count = std::min<std::size_t>(account.uids.size(), 3 + random.below(40));
            std::size_t start = random.below(account.uids.size());
            for (std::size_t m = 0; m < count; ++m) {
                members.push_back(account.uids[(start + m) % account.uids.size()]);
            }
            std::string name(kGroups[(i + g) % std::size(kGroups)]);
            if (g >= std::size(kGroups)) {
                name += " " + std::to_string(g / std::size(kGroups) + 1);
            }
            std::string uid =
                account.dialect == Dialect::apple ? appleUid(random) : hexDigits(random, 16, false);
            composeGroup(card, name, account.dialect, members, uid);
            auto written = writeNewFile(root / account.folder / (uid + ".vcf"), card);
            if (!written) {
                return failure(written.error());
            }
            report.bytes += *written;
            ++report.cards;
            ++report.groupCards;
        }
    }
    return report;
}

} // namespace kinbook
