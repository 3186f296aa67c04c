#include "KinbookKit/setup/DemoAddressBook.h"

#include "KinbookKit/AtomicFile.h"
#include "KinbookKit/records/ContactDraft.h"
#include "KinbookKit/records/KinID.h"
#include "KinbookKit/records/PastJob.h"
#include "KinbookKit/records/StockLabel.h"
#include "KinbookKit/vcard/CardWriter.h"
#include "KinbookKit/vcard/EntryRegistry.h"
#include "KinbookKit/vcard/VCard.h"

#include <fmt/core.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <system_error>

namespace kinbook {

namespace fs = std::filesystem;

namespace {

// The demo's people, as plain data. Labels are what the user sees: stock
// names ("mobile", "work") become the cards' stock labels, anything else
// ("ex-work", "studio") is written as a custom label.
struct Entry {
    std::string_view label;
    std::string_view value;
};

struct Address {
    std::string_view label;
    std::string_view street;
    std::string_view city;
    std::string_view state;
    std::string_view postalCode;
    std::string_view country;
};

struct Link {
    LinkService service;
    std::string_view handle;
};

struct Job {
    std::string_view id;
    std::string_view company;
    std::string_view title;
    std::string_view years;
};

struct Card {
    std::string_view account; // folder name
    std::string_view organization = {};
    std::string_view department = {};
    std::string_view jobTitle = {};
    std::vector<Entry> phones = {};
    std::vector<Entry> emails = {};
    std::vector<Address> addresses = {};
    std::vector<Entry> urls = {};
    std::vector<Link> links = {};
    std::optional<DateComponents> birthday = {};
    std::string_view note = {};
    bool primary = false;
    bool photo = false; // the person's portrait on this card
};

struct DemoPerson {
    std::string_view namePrefix;
    std::string_view givenName;
    std::string_view familyName;
    std::string_view nickname;
    std::string_view kinID; // empty: a card Kinbook never marked
    std::optional<ContactCircle> circle;
    bool hidden = false;
    std::uint32_t colour = 0x5B7DB1;
    std::vector<Card> cards;
    std::vector<Job> pastJobs = {};
};

constexpr std::string_view kPersonal = "default";
constexpr std::string_view kWork = "work";

std::optional<DateComponents> born(int year, int month, int day) {
    return DateComponents::make(year, month, day);
}

std::optional<DateComponents> bornOn(int month, int day) {
    return DateComponents::make(std::nullopt, month, day);
}

// Phone numbers are in the ranges set aside for fiction and examples (555-01xx
// in North America, 07700 900xxx in Britain), addresses are made up, and mail
// goes to example domains.
std::vector<DemoPerson> demoPeople() {
    using enum ContactCircle;
    std::vector<DemoPerson> people;
    people.push_back({.givenName = "Maya",
                      .familyName = "Okafor",
                      .kinID = "M9S346Q3",
                      .circle = closest,
                      .colour = 0xC0504D,
                      .cards = {{.account = kPersonal,
                                 .phones = {{"mobile", "+1 503-555-0142"}},
                                 .emails = {{"home", "maya.okafor@example.com"}},
                                 .addresses = {{"home", "2231 SE Belmont St", "Portland", "OR", "97214-1234",
                                                "United States"}},
                                 .links = {{LinkService::signal, "+15035550142"}},
                                 .birthday = born(1990, 6, 14),
                                 .note = "Allergic to cashews. Anniversary: 3 September.",
                                 .photo = true}}});
    people.push_back(
        {.givenName = "Rosa",
         .familyName = "Delgado",
         .nickname = "Mom",
         .kinID = "D25VT4F5",
         .circle = closest,
         .colour = 0x9B59B6,
         .cards = {{.account = kPersonal,
                    .phones = {{"mobile", "+1 505-555-0117"}, {"home", "(505) 555-0160"}},
                    .emails = {{"home", "rosa.delgado@example.net"}},
                    .addresses = {{"home", "418 Calle Luna", "Santa Fe", "NM", "87501", "United States"}},
                    .birthday = born(1961, 2, 29),
                    .note = "Sunday calls after church, around noon.",
                    .photo = true}}});
    people.push_back({.givenName = "Tomás",
                      .familyName = "Delgado",
                      .kinID = "V37E3S3E",
                      .circle = closest,
                      .colour = 0x2E86C1,
                      .cards = {{.account = kPersonal,
                                 .phones = {{"mobile", "+1 505-555-0188"}, {"ex-mobile", "+1 505-555-0123"}},
                                 .emails = {{"home", "tomas.delgado@example.org"}},
                                 .links = {{LinkService::instagram, "tomas.delgado"}},
                                 .birthday = bornOn(11, 2),
                                 .photo = true}}});
    // A friend from work: a card in each account, joined by one KinID; the
    // personal card is the primary one.
    people.push_back({.givenName = "Priya",
                      .familyName = "Raman",
                      .kinID = "28JT97KB",
                      .circle = goodFriends,
                      .colour = 0x16A085,
                      .cards = {{.account = kPersonal,
                                 .phones = {{"mobile", "+1 503-555-0171"}},
                                 .emails = {{"home", "priya.r@example.com"}},
                                 .links = {{LinkService::linkedin, "priya-raman"}},
                                 .birthday = bornOn(4, 8),
                                 .primary = true,
                                 .photo = true},
                                {.account = kWork,
                                 .organization = "Fernhill Labs",
                                 .department = "Platform",
                                 .jobTitle = "Staff Engineer",
                                 .phones = {{"work", "+1 503-555-0190"}},
                                 .emails = {{"work", "priya.raman@fernhill.example"}}}},
                      .pastJobs = {{"8F0C6E52-4B1D-4D8A-9C3E-2A7B5D1E9F01", "Tidewater Systems",
                                    "Senior Engineer", "2015–2020"}}});
    people.push_back(
        {.givenName = "Søren",
         .familyName = "Jørgensen",
         .kinID = "6CQ643DZ",
         .circle = goodFriends,
         .colour = 0x34495E,
         .cards = {{.account = kPersonal,
                    .phones = {{"mobile", "+45 20 12 34 56"}},
                    .emails = {{"home", "soren@example.dk"}},
                    .addresses = {{"home", "Jægersborggade 12", "København N", "", "2200", "Danmark"}},
                    .urls = {{"homepage", "https://soren.example.dk"}},
                    .links = {{LinkService::mastodon, "@soren@mastodon.example"}},
                    .photo = true}}});
    people.push_back(
        {.givenName = "Zoë",
         .familyName = "Lefèvre",
         .kinID = "VMXXQKFB",
         .circle = goodFriends,
         .colour = 0xD35400,
         .cards = {{.account = kPersonal,
                    .phones = {{"mobile", "+33 6 12 34 56 78"}},
                    .emails = {{"home", "zoe.lefevre@example.fr"}, {"ex-work", "zoe@ateliernord.example"}},
                    .addresses = {{"home", "14 rue Oberkampf", "Paris", "", "75011", "France"}},
                    .birthday = born(1988, 12, 1)}},
         .pastJobs = {
             {"1B7E3F9A-2C4D-4E6F-8A1B-3C5D7E9F0A12", "Atelier Nord", "Art Director", "2011–2019"}}});
    people.push_back(
        {.givenName = "Grace",
         .familyName = "Liu",
         .kinID = "F5KZNWJ4",
         .circle = goodFriends,
         .colour = 0x27AE60,
         .cards = {{.account = kPersonal,
                    .phones = {{"mobile", "+1 206-555-0133"}},
                    .emails = {{"home", "grace.liu@example.com"}},
                    .addresses = {{"home", "1520 Pine St", "Seattle", "WA", "98101", "United States"}}}}});
    people.push_back({.givenName = "芳",
                      .familyName = "王",
                      .kinID = "7TAN9ZT2",
                      .circle = friends,
                      .colour = 0xB03A2E,
                      .cards = {{.account = kPersonal,
                                 .phones = {{"mobile", "+86 138 0013 8000"}},
                                 .emails = {{"home", "fang.wang@example.cn"}},
                                 .addresses = {{"home", "南京西路 1266号", "上海", "", "200040", "中国"}}}}});
    people.push_back({.givenName = "Иван",
                      .familyName = "Петров",
                      .kinID = "4MNPZX45",
                      .circle = friends,
                      .colour = 0x1F618D,
                      .cards = {{.account = kPersonal,
                                 .phones = {{"mobile", "+7 916 555-01-77"}},
                                 .emails = {{"home", "ivan.petrov@example.ru"}},
                                 .links = {{LinkService::telegram, "ivan_petrov"}}}}});
    people.push_back(
        {.givenName = "José",
         .familyName = "Núñez",
         .kinID = "HY43KWJR",
         .circle = friends,
         .colour = 0xCA6F1E,
         .cards = {{.account = kPersonal,
                    .phones = {{"mobile", "+34 612 34 56 78"}},
                    .emails = {{"home", "jose.nunez@example.es"}},
                    .addresses = {{"home", "Calle de Atocha 27", "Madrid", "", "28012", "España"}},
                    .photo = true}}});
    // A client who became a friend: here the work card is the primary one.
    people.push_back(
        {.givenName = "Łukasz",
         .familyName = "Nowak",
         .kinID = "P1XPA7Z3",
         .circle = friends,
         .colour = 0x7D3C98,
         .cards = {{.account = kPersonal,
                    .phones = {{"mobile", "+48 512 345 678"}},
                    .emails = {{"home", "lukasz.nowak@example.pl"}}},
                   {.account = kWork,
                    .organization = "Wawel Software",
                    .jobTitle = "Product Lead",
                    .phones = {{"work", "+48 12 345 67 89"}},
                    .emails = {{"work", "l.nowak@wawel.example"}},
                    .addresses = {{"work", "ul. Floriańska 3", "Kraków", "", "31-019", "Polska"}},
                    .primary = true}}});
    people.push_back({.givenName = "Fatima",
                      .familyName = "Al-Sayed",
                      .kinID = "DJ8FSSZ5",
                      .circle = friends,
                      .colour = 0x117A65,
                      .cards = {{.account = kPersonal,
                                 .phones = {{"mobile", "+971 50 123 4567"}},
                                 .emails = {{"home", "fatima.alsayed@example.ae"}},
                                 .links = {{LinkService::whatsapp, "+971501234567"}}}}});
    // Moved from Munich to Berlin: the old home address stays, marked former.
    people.push_back(
        {.givenName = "Hannah",
         .familyName = "Becker",
         .kinID = "AWSH8VHT",
         .circle = meaningful,
         .colour = 0x884EA0,
         .cards = {{.account = kPersonal,
                    .phones = {{"mobile", "+49 171 2345678"}},
                    .emails = {{"home", "hannah.becker@example.de"}},
                    .addresses = {{"home", "Kastanienallee 9", "Berlin", "", "10435", "Deutschland"},
                                  {"ex-home", "Schellingstraße 40", "München", "", "80799", "Deutschland"}},
                    .photo = true}}});
    people.push_back({.givenName = "Ahmed",
                      .familyName = "Hassan",
                      .kinID = "PRE95B9E",
                      .circle = meaningful,
                      .colour = 0x2874A6,
                      .cards = {{.account = kPersonal,
                                 .phones = {{"mobile", "+20 10 1234 5678"}},
                                 .emails = {{"home", "ahmed.hassan@example.eg"}}}}});
    // Linked without a primary mark: the list leads with the card that sorts first.
    people.push_back({.givenName = "Chloé",
                      .familyName = "Martin",
                      .kinID = "E0ZBGJ09",
                      .circle = meaningful,
                      .colour = 0xAF601A,
                      .cards = {{.account = kPersonal,
                                 .phones = {{"mobile", "+1 415-555-0109"}},
                                 .emails = {{"home", "chloe.martin@example.com"}},
                                 .note = "Met at the Portland climbing gym."},
                                {.account = kWork,
                                 .organization = "Fernhill Labs",
                                 .jobTitle = "Designer",
                                 .emails = {{"work", "chloe.martin@fernhill.example"}}}}});
    people.push_back(
        {.givenName = "Kenji",
         .familyName = "Watanabe",
         .kinID = "TQM83XSS",
         .circle = known,
         .colour = 0x1A5276,
         .cards = {{.account = kPersonal,
                    .phones = {{"mobile", "+81 90-1234-5678"}},
                    .emails = {{"home", "kenji.watanabe@example.jp"}},
                    .addresses = {{"home", "神宮前 1-2-3", "渋谷区", "東京都", "150-0001", "日本"}},
                    .photo = true}}});
    people.push_back({.givenName = "Ana-María",
                      .familyName = "Costa",
                      .kinID = "SS6YS3C4",
                      .circle = known,
                      .colour = 0xA93226,
                      .cards = {{.account = kPersonal,
                                 .phones = {{"mobile", "+1 212-555-0150"}},
                                 .emails = {{"home", "anamaria.costa@example.com"}}}}});
    people.push_back({.givenName = "Élodie",
                      .familyName = "Moreau",
                      .kinID = "DWA7N360",
                      .circle = known,
                      .colour = 0x6C3483,
                      .cards = {{.account = kPersonal,
                                 .emails = {{"home", "elodie.moreau@example.fr"}},
                                 .birthday = bornOn(7, 21)}}});
    people.push_back({.givenName = "Αλέξανδρος",
                      .familyName = "Παπαδόπουλος",
                      .kinID = "96Q14DR9",
                      .circle = acquaintance,
                      .colour = 0x0E6655,
                      .cards = {{.account = kPersonal,
                                 .phones = {{"mobile", "+30 691 234 5678"}},
                                 .emails = {{"home", "alexandros.p@example.gr"}},
                                 .addresses = {{"home", "Ερμού 25", "Αθήνα", "", "105 63", "Ελλάδα"}}}}});
    people.push_back({.namePrefix = "Dr.",
                      .givenName = "Lena",
                      .familyName = "Fischer",
                      .kinID = "GPQY77ZX",
                      .circle = acquaintance,
                      .colour = 0x148F77,
                      .cards = {{.account = kPersonal,
                                 .organization = "Hawthorne Family Clinic",
                                 .jobTitle = "Physician",
                                 .phones = {{"work", "(503) 555-0101"}, {"work fax", "(503) 555-0102"}},
                                 .emails = {{"work", "appointments@hawthorneclinic.example"}},
                                 .addresses = {{"work", "3700 SE Hawthorne Blvd", "Portland", "OR", "97214",
                                                "United States"}},
                                 .note = "Call before 10 for same-day appointments."}}});
    // A business: a card with a company and no person's name.
    people.push_back({.kinID = "YYK596NG",
                      .circle = acquaintance,
                      .cards = {{.account = kPersonal,
                                 .organization = "Rossi Plumbing & Heating",
                                 .phones = {{"main", "(503) 555-0177"}},
                                 .emails = {{"work", "office@rossiplumbing.example"}},
                                 .urls = {{"homepage", "https://rossiplumbing.example"}},
                                 .note = "Fixed the boiler in March; ask for Marco."}}});
    people.push_back({.givenName = "Noah",
                      .familyName = "Kim",
                      .colour = 0x5D6D7E,
                      .cards = {{.account = kPersonal,
                                 .phones = {{"mobile", "+1 971-555-0124"}},
                                 .emails = {{"home", "noah.kim@example.com"}}}}});
    people.push_back(
        {.givenName = "Oliver",
         .familyName = "Grant",
         .cards = {{.account = kPersonal,
                    .phones = {{"mobile", "07700 900461"}},
                    .emails = {{"home", "oliver.grant@example.co.uk"}},
                    .addresses = {{"home", "22 Mill Lane", "Bristol", "", "BS1 4DJ", "United Kingdom"}}}}});
    people.push_back({.givenName = "Sam",
                      .familyName = "O'Brien",
                      .cards = {{.account = kPersonal, .emails = {{"home", "sam.obrien@example.ie"}}}}});
    // Someone only an address is known for: the list shows the address.
    people.push_back({.cards = {{.account = kPersonal, .emails = {{"other", "bookclub@example.org"}}}}});
    // Archived: kept in the accounts, so calls and mail are still
    // recognised, but left out of the list.
    people.push_back(
        {.givenName = "Gary",
         .familyName = "Whitfield",
         .kinID = "YA1DQ91K",
         .hidden = true,
         .cards = {{.account = kPersonal,
                    .phones = {{"mobile", "+1 503-555-0155"}},
                    .emails = {{"home", "gary.whitfield@example.com"}},
                    .addresses = {{"ex-home", "815 NE Going St", "Portland", "OR", "97211", "United States"}},
                    .note = "Landlord of the old flat on Going Street."}}});
    people.push_back({.givenName = "Bianca",
                      .familyName = "Russo",
                      .kinID = "5GQAPENE",
                      .hidden = true,
                      .cards = {{.account = kWork,
                                 .organization = "Fernhill Labs",
                                 .phones = {{"ex-work", "+1 503-555-0144"}},
                                 .emails = {{"ex-work", "bianca.russo@fernhill.example"}}}}});
    // Work.
    people.push_back(
        {.givenName = "Marcus",
         .familyName = "Webb",
         .kinID = "CFSECZP1",
         .circle = meaningful,
         .colour = 0x1B4F72,
         .cards = {{.account = kWork,
                    .organization = "Fernhill Labs",
                    .department = "Platform",
                    .jobTitle = "Engineering Manager",
                    .phones = {{"work", "+1 503-555-0191"}, {"mobile", "+1 503-555-0119"}},
                    .emails = {{"work", "marcus.webb@fernhill.example"}},
                    .links = {{LinkService::github, "mwebb"}},
                    .photo = true}},
         .pastJobs = {
             {"3D9A1C7E-5F2B-4A8C-B6D4-0E1F2A3B4C5D", "Cascade Robotics", "Team Lead", "2012–2018"},
             {"6E2B8D4F-7A1C-4B9E-8D3F-1A2B3C4D5E6F", "Cascade Robotics", "Engineer", "2008–2012"}}});
    // Changed jobs: the old work address and number are kept, marked former.
    people.push_back({.givenName = "Daniela",
                      .familyName = "Reyes",
                      .kinID = "1HYGCPWP",
                      .circle = friends,
                      .colour = 0xB9770E,
                      .cards = {{.account = kWork,
                                 .organization = "Fernhill Labs",
                                 .jobTitle = "Product Designer",
                                 .phones = {{"work", "+1 503-555-0192"}, {"ex-work", "+1 503-555-0138"}},
                                 .emails = {{"work", "daniela.reyes@fernhill.example"},
                                            {"ex-work", "daniela@harborpine.example"}}}},
                      .pastJobs = {{"9C4E2A6B-8D1F-4C3A-A5E7-2B4D6F8A0C1E", "Harbor & Pine Studio",
                                    "Designer", "2016–2021"}}});
    people.push_back({.givenName = "Yuki",
                      .familyName = "Sato",
                      .kinID = "Q5E6EYCN",
                      .circle = known,
                      .cards = {{.account = kWork,
                                 .organization = "Fernhill Labs",
                                 .department = "Tokyo office",
                                 .jobTitle = "Sales Engineer",
                                 .phones = {{"work", "+81 3-1234-5678"}},
                                 .emails = {{"work", "yuki.sato@fernhill.example"}}}}});
    people.push_back({.givenName = "Ingrid",
                      .familyName = "Halvorsen",
                      .kinID = "DY0YP57R",
                      .circle = acquaintance,
                      .cards = {{.account = kWork,
                                 .organization = "Nordlys Data AS",
                                 .jobTitle = "CTO",
                                 .phones = {{"work", "+47 22 12 34 56"}},
                                 .emails = {{"work", "ingrid@nordlys.example"}}}}});
    people.push_back({.givenName = "Jordan",
                      .familyName = "Blake",
                      .cards = {{.account = kWork,
                                 .organization = "Fernhill Labs",
                                 .jobTitle = "Recruiter",
                                 .phones = {{"work", "+1 503-555-0193"}},
                                 .emails = {{"work", "jordan.blake@fernhill.example"}}}}});
    people.push_back({.givenName = "Aisha",
                      .familyName = "Bello",
                      .cards = {{.account = kWork,
                                 .organization = "Fernhill Labs",
                                 .department = "Finance",
                                 .phones = {{"work", "+1 503-555-0194"}},
                                 .emails = {{"work", "aisha.bello@fernhill.example"}}}}});
    people.push_back({.cards = {{.account = kWork,
                                 .organization = "Fernhill Labs IT Help Desk",
                                 .phones = {{"work", "+1 503-555-0199"}},
                                 .emails = {{"work", "help@fernhill.example"}}}}});
    people.push_back({.givenName = "Ben",
                      .familyName = "Adeyemi",
                      .kinID = "CYBVN5SX",
                      .circle = known,
                      .cards = {{.account = kWork,
                                 .organization = "Wawel Software",
                                 .jobTitle = "Account Manager",
                                 .phones = {{"work", "+48 12 345 67 00"}},
                                 .emails = {{"work", "b.adeyemi@wawel.example"}}}}});
    people.push_back({.givenName = "Camille",
                      .familyName = "Dubois",
                      .cards = {{.account = kWork,
                                 .organization = "Fernhill Labs",
                                 .department = "Paris office",
                                 .phones = {{"work", "+33 1 23 45 67 89"}},
                                 .emails = {{"work", "camille.dubois@fernhill.example"}}}}});
    return people;
}

// A card's UID made from what names it, so that the same build always writes
// the same files: the form of a random UUID, from a stable hash.
std::string demoUID(std::string_view text) {
    std::uint64_t high = 0xcbf29ce484222325ULL;
    for (unsigned char byte : text) {
        high = (high ^ byte) * 0x100000001b3ULL;
    }
    std::uint64_t low = high;
    for (unsigned char byte : text) {
        low = (low ^ byte) * 0x100000001b3ULL;
        low ^= low >> 29;
    }
    return fmt::format("{:08X}-{:04X}-4{:03X}-{:04X}-{:012X}", high >> 32, (high >> 16) & 0xFFFF,
                       high & 0xFFF, 0x8000 | ((low >> 48) & 0x3FFF), low & 0xFFFFFFFFFFFFULL);
}

std::string labelFor(std::string_view shown) {
    return labelFromDisplayName(shown);
}

std::string initialsOf(const DemoPerson& person) {
    auto first = [](std::string_view text) -> std::string {
        if (text.empty()) {
            return {};
        }
        // The whole first character, whatever its length in UTF-8.
        std::size_t length = 1;
        while (length < text.size() && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) {
            ++length;
        }
        return std::string(text.substr(0, length));
    };
    return first(person.givenName) + first(person.familyName);
}

std::string displayNameOf(const DemoPerson& person, const Card& card) {
    std::string name;
    if (!person.givenName.empty()) {
        name = person.givenName;
    }
    if (!person.familyName.empty()) {
        name += (name.empty() ? "" : " ") + std::string(person.familyName);
    }
    if (name.empty()) {
        name = card.organization;
    }
    return name;
}

// One card's vCard text, written by Kinbook's own writer as if the user had
// typed it into a new card.
std::string cardText(const DemoPerson& person, const Card& card, const std::string& uid,
                     const std::optional<std::vector<std::uint8_t>>& photo) {
    // A fixed moment, so that the same build writes the same bytes.
    const auto written = std::chrono::sys_days{std::chrono::year{2024} / 5 / 1} + std::chrono::hours{9};
    ContactDraft draft = ContactDraft::empty(std::nullopt, std::string(card.account));
    draft.namePrefix = person.namePrefix;
    draft.givenName = person.givenName;
    draft.familyName = person.familyName;
    draft.nickname = person.nickname;
    draft.organization = card.organization;
    draft.department = card.department;
    draft.jobTitle = card.jobTitle;
    int entry = 0;
    auto field = [&](const Entry& item) {
        return ContactDraft::Field{fmt::format("{}-{}", uid, ++entry), labelFor(item.label),
                                   std::string(item.value), true};
    };
    for (const auto& phone : card.phones) {
        draft.phones.push_back(field(phone));
    }
    for (const auto& email : card.emails) {
        draft.emails.push_back(field(email));
    }
    for (const auto& url : card.urls) {
        draft.urls.push_back(field(url));
    }
    for (const auto& address : card.addresses) {
        draft.addresses.push_back({fmt::format("{}-{}", uid, ++entry), labelFor(address.label),
                                   std::string(address.street), std::string(address.city),
                                   std::string(address.state), std::string(address.postalCode),
                                   std::string(address.country), true});
    }
    for (const auto& link : card.links) {
        draft.links.push_back(
            {fmt::format("{}-{}", uid, ++entry), link.service, std::string(link.handle), true});
    }
    draft.birthday = card.birthday;
    if (!person.kinID.empty()) {
        KinID::Anchor anchor;
        anchor.id = person.kinID;
        anchor.hidden = person.hidden;
        anchor.circle = person.circle;
        anchor.primary = card.primary;
        draft.anchorURL = anchor.url();
    }

    VCard vcard = newCardFor(draft, uid);
    // Nothing is remembered about these entries: the address book assigns
    // their identities when it first reads them.
    EntryRegistry registry;
    applyDraft(vcard, draft, uid, registry, written);
    if (!card.note.empty()) {
        vcard.add("NOTE").setText(card.note);
    }
    if (photo) {
        setPhoto(vcard, *photo, written);
    }
    return vcard.serialize();
}

Result<void, std::string> writeFile(const fs::path& path, std::string_view bytes) {
    if (!writeFileAtomically(path, bytes)) {
        return failure(fmt::format("can't write {}", path.string()));
    }
    return {};
}

// Removes what an interrupted earlier run left beside the root: hidden
// folders named after it that nobody has touched for a while.
void removeLeftovers(const fs::path& root) {
    const std::string prefix = "." + root.filename().string() + ".seeding-";
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(root.parent_path(), error)) {
        if (!entry.path().filename().string().starts_with(prefix)) {
            continue;
        }
        const auto modified = fs::last_write_time(entry.path(), error);
        if (!error && fs::file_time_type::clock::now() - modified > std::chrono::minutes(10)) {
            fs::remove_all(entry.path(), error);
        }
    }
}

// Past jobs in the sidecar, one "jobs.json" per person, in the person's
// folder: "People/<display name> <KinID>". A folder that exists already is
// the user's and is left alone.
Result<std::size_t, std::string> writePastJobs(const std::vector<DemoPerson>& people,
                                               const fs::path& sidecar) {
    std::size_t written = 0;
    const fs::path folder = sidecar / "Documents" / "People";
    for (const auto& person : people) {
        if (person.pastJobs.empty() || person.kinID.empty()) {
            continue;
        }
        const fs::path personFolder =
            folder / fmt::format("{} {}", displayNameOf(person, person.cards.front()), person.kinID);
        std::error_code error;
        if (fs::exists(personFolder, error)) {
            continue;
        }
        fs::create_directories(personFolder, error);
        if (error) {
            return failure(fmt::format("can't create {}: {}", personFolder.string(), error.message()));
        }
        std::vector<PastJob> jobs;
        for (const auto& job : person.pastJobs) {
            jobs.push_back({std::string(job.id), std::string(job.company), std::string(job.title),
                            std::string(job.years)});
        }
        if (auto result = writeFile(personFolder / "jobs.json", PastJob::encodeList(jobs)); !result) {
            return failure(result.error());
        }
        ++written;
    }
    return written;
}

} // namespace

Result<DemoAddressBookReport, std::string>
writeDemoAddressBook(const fs::path& root, const std::optional<fs::path>& sidecar, PortraitPainter* painter) {
    std::error_code error;
    if (fs::exists(root, error)) {
        return failure(fmt::format("{} exists already", root.string()));
    }
    const fs::path parent = root.has_parent_path() ? root.parent_path() : fs::path(".");
    fs::create_directories(parent, error);
    if (error) {
        return failure(fmt::format("can't create {}: {}", parent.string(), error.message()));
    }
    removeLeftovers(root);

    std::string pattern = (parent / ("." + root.filename().string() + ".seeding-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        return failure(fmt::format("can't create a folder beside {}", root.string()));
    }
    const fs::path staging = pattern;
    auto abandon = [&](std::string message) -> Result<DemoAddressBookReport, std::string> {
        fs::remove_all(staging, error);
        return failure(std::move(message));
    };

    const std::vector<std::pair<std::string_view, std::string_view>> accounts = {
        {kPersonal, "On My Computer"}, {kWork, "Work"}};
    for (const auto& [folder, name] : accounts) {
        fs::create_directories(staging / folder, error);
        if (error) {
            return abandon(fmt::format("can't create {}: {}", (staging / folder).string(), error.message()));
        }
        if (auto result = writeFile(staging / folder / "displayname", std::string(name) + "\n"); !result) {
            return abandon(result.error());
        }
    }

    DemoAddressBookReport report;
    report.accounts = accounts.size();
    const auto people = demoPeople();
    for (const auto& person : people) {
        ++report.people;
        std::optional<std::vector<std::uint8_t>> portrait;
        for (const auto& card : person.cards) {
            const std::string uid = demoUID(fmt::format("{}/{} {} {}", card.account, person.givenName,
                                                        person.familyName, card.organization));
            std::optional<std::vector<std::uint8_t>> photo;
            if (card.photo && painter != nullptr) {
                if (!portrait) {
                    portrait = painter->portrait(initialsOf(person), person.colour, 240);
                }
                photo = portrait;
            }
            const fs::path file = staging / card.account / (uid + ".vcf");
            if (auto result = writeFile(file, cardText(person, card, uid, photo)); !result) {
                return abandon(result.error());
            }
            ++report.cards;
            report.photos += photo ? 1 : 0;
        }
    }

    // The address book appears whole or not at all.
    fs::rename(staging, root, error);
    if (error) {
        return abandon(
            fmt::format("can't move the demo address book to {}: {}", root.string(), error.message()));
    }
    if (sidecar) {
        // The address book is in place; a sidecar that can't be written (an
        // unmounted share) costs the past jobs only.
        auto jobs = writePastJobs(people, *sidecar);
        if (jobs) {
            report.pastJobFiles = *jobs;
        } else {
            report.warnings.push_back(jobs.error());
        }
    }
    return report;
}

Result<std::optional<DemoAddressBookReport>, std::string>
seedDemoAddressBookOnFirstRun(const Configuration& configuration, PortraitPainter* painter) {
    if (!configuration.usesEmbeddedDefault()) {
        return std::optional<DemoAddressBookReport>();
    }
    std::error_code error;
    if (fs::exists(configuration.contacts, error) || error) {
        return std::optional<DemoAddressBookReport>();
    }
    auto report = writeDemoAddressBook(configuration.contacts, configuration.sidecar, painter);
    if (!report) {
        return failure(report.error());
    }
    return std::optional<DemoAddressBookReport>(*report);
}

} // namespace kinbook
