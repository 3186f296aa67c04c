#include "KinbookKit/vcard/CardReader.h"

#include "KinbookKit/records/KinID.h"
#include "KinbookKit/records/LinkService.h"
#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/vcard/CardEntries.h"
#include "KinbookKit/vcard/CardLabels.h"
#include "KinbookKit/vcard/RawPersonBuilder.h"

#include <array>
#include <charconv>

namespace kinbook {
namespace {

bool isSafeIDChar(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.' || c == '@';
}

std::string trimmedText(const VCardProperty& property) {
    return std::string(trimAsciiSpace(property.text()));
}

bool isOneOfIgnoringCase(std::string_view value, std::initializer_list<std::string_view> candidates) {
    for (const auto candidate : candidates) {
        if (equalsIgnoringAsciiCase(value, candidate)) {
            return true;
        }
    }
    return false;
}

bool hasKind(const VCard& card, std::initializer_list<std::string_view> kinds, bool withAppleGroup) {
    for (const VCardProperty* property : card.properties()) {
        if (property->is("KIND") || (withAppleGroup && property->is("X-ADDRESSBOOKSERVER-KIND"))) {
            if (isOneOfIgnoringCase(trimAsciiSpace(property->text()), kinds)) {
                return true;
            }
        }
    }
    return false;
}

// ---- dates

std::optional<int> number(std::string_view digits) {
    if (digits.empty()) {
        return std::nullopt;
    }
    int value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size()) {
        return std::nullopt;
    }
    return value;
}

bool allDigits(std::string_view text) {
    for (const char c : text) {
        if (!isAsciiDigit(c)) {
            return false;
        }
    }
    return !text.empty();
}

// ---- addresses

struct AddressParts {
    ContactDraft::Address address;
    std::string layout; // X-ABADR
};

enum class Layout { cityFirst, codeFirst, british };

Layout layoutFor(std::string_view hint, std::string_view country) {
    constexpr std::array<std::string_view, 28> kCodeFirst{
        "de", "at", "ch", "li", "fr", "it", "es", "nl", "be", "lu", "se", "no", "dk", "fi",
        "is", "pl", "pt", "cz", "sk", "gr", "ee", "lv", "lt", "si", "hr", "mc", "ad", "sm",
    };
    constexpr std::array<std::string_view, 44> kCodeFirstNames{
        "germany",       "deutschland", "austria",     "österreich", "switzerland",     "schweiz",
        "suisse",        "svizzera",    "france",      "italy",      "italia",          "spain",
        "españa",        "espana",      "netherlands", "nederland",  "the netherlands", "belgium",
        "belgië",        "belgique",    "luxembourg",  "sweden",     "sverige",         "norway",
        "norge",         "denmark",     "danmark",     "finland",    "suomi",           "iceland",
        "poland",        "polska",      "portugal",    "czechia",    "czech republic",  "slovakia",
        "greece",        "estonia",     "latvia",      "lithuania",  "slovenia",        "croatia",
        "liechtenstein", "monaco",
    };
    constexpr std::array<std::string_view, 8> kBritish{
        "gb", "uk", "united kingdom", "great britain", "england", "scotland", "wales", "northern ireland",
    };
    // Apple's hint is a two-letter country code; iOS 5 wrote address text
    // there instead, which says nothing about the layout.
    const std::string_view code = trimAsciiSpace(hint);
    const std::string lowered = asciiLowered(code.size() == 2 ? code : trimAsciiSpace(country));
    for (const auto name : kBritish) {
        if (lowered == name) {
            return Layout::british;
        }
    }
    for (const auto name : kCodeFirst) {
        if (lowered == name) {
            return Layout::codeFirst;
        }
    }
    for (const auto name : kCodeFirstNames) {
        if (lowered == name) {
            return Layout::codeFirst;
        }
    }
    return Layout::cityFirst;
}

void addLine(std::string& text, std::string_view line) {
    if (line.empty()) {
        return;
    }
    if (!text.empty()) {
        text.push_back('\n');
    }
    text += line;
}

std::string joinNonEmpty(std::initializer_list<std::string_view> parts, std::string_view separator) {
    std::string joined;
    for (const auto part : parts) {
        if (part.empty()) {
            continue;
        }
        if (!joined.empty()) {
            joined += separator;
        }
        joined += part;
    }
    return joined;
}

// ---- social profiles and messaging

std::string firstParameter(const VCardProperty& property, std::initializer_list<std::string_view> names) {
    for (const auto name : names) {
        for (const auto& value : property.parameterValues(name)) {
            const std::string_view trimmed = trimAsciiSpace(value);
            if (!trimmed.empty()) {
                return std::string(trimmed);
            }
        }
    }
    return {};
}

// A TYPE value that is neither a preference nor a stock label names the
// service (X-SOCIALPROFILE;type=twitter, Nextcloud's IMPP;TYPE=SKYPE).
std::string serviceFromType(const VCardProperty& property) {
    for (const auto& value : property.parameterValues("TYPE")) {
        const std::string_view trimmed = trimAsciiSpace(value);
        if (!trimmed.empty() &&
            !isOneOfIgnoringCase(trimmed, {"pref", "home", "work", "other", "internet"})) {
            return std::string(trimmed);
        }
    }
    return {};
}

struct NamedService {
    std::string_view key;
    std::string_view service;
};

constexpr std::array<NamedService, 13> kLegacyMessaging{{
    {"X-AIM", "AIM"},
    {"X-ICQ", "ICQ"},
    {"X-JABBER", "Jabber"},
    {"X-MSN", "MSN"},
    {"X-YAHOO", "Yahoo"},
    {"X-SKYPE", "Skype"},
    {"X-SKYPE-USERNAME", "Skype"},
    {"X-GTALK", "GoogleTalk"},
    {"X-GOOGLE-TALK", "GoogleTalk"},
    {"X-QQ", "QQ"},
    {"X-GADUGADU", "GaduGadu"},
    {"X-TWITTER", "Twitter"},
    {"X-GROUPWISE", "GroupWise"},
}};

constexpr std::array<NamedService, 13> kSchemes{{
    {"skype", "Skype"},
    {"xmpp", "Jabber"},
    {"aim", "AIM"},
    {"msnim", "MSN"},
    {"ymsgr", "Yahoo"},
    {"sgnl", "Signal"},
    {"signal", "Signal"},
    {"whatsapp", "WhatsApp"},
    {"tg", "Telegram"},
    {"icq", "ICQ"},
    {"gg", "GaduGadu"},
    {"irc", "IRC"},
    {"sip", "SIP"},
}};

// The URI scheme at the start of a value ("skype" of "skype:jdoe"), if any.
std::string_view schemeOf(std::string_view value) {
    const std::size_t colon = value.find(':');
    if (colon == std::string_view::npos || colon == 0) {
        return {};
    }
    const std::string_view scheme = value.substr(0, colon);
    const bool letterFirst = (scheme[0] >= 'a' && scheme[0] <= 'z') || (scheme[0] >= 'A' && scheme[0] <= 'Z');
    for (const char c : scheme) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || isAsciiDigit(c) || c == '+' ||
                        c == '-' || c == '.';
        if (!ok) {
            return {};
        }
    }
    return letterFirst ? scheme : std::string_view();
}

std::string decodedIfPossible(std::string_view text) {
    if (text.find('%') == std::string_view::npos) {
        return std::string(text);
    }
    return percentDecode(text).value_or(std::string(text));
}

struct Messaging {
    std::string service;
    std::string user;
};

Messaging messagingOf(const VCardProperty& property) {
    Messaging messaging;
    const std::string value = trimmedText(property);
    messaging.service = firstParameter(property, {"X-SERVICE-TYPE", "SERVICE-TYPE"});
    if (messaging.service.empty()) {
        for (const auto& legacy : kLegacyMessaging) {
            if (property.is(legacy.key)) {
                messaging.service = std::string(legacy.service);
            }
        }
    }
    const std::string_view scheme = schemeOf(value);
    if (messaging.service.empty()) {
        for (const auto& known : kSchemes) {
            if (equalsIgnoringAsciiCase(scheme, known.key)) {
                messaging.service = std::string(known.service);
            }
        }
    }
    if (messaging.service.empty()) {
        messaging.service = serviceFromType(property);
    }
    std::string_view user = value;
    if (!scheme.empty() && property.is("IMPP")) {
        user.remove_prefix(scheme.size() + 1);
    }
    messaging.user = decodedIfPossible(trimAsciiSpace(user));
    return messaging;
}

struct Social {
    std::string service;
    std::string user;
    std::string url;
};

Social socialOf(const VCardProperty& property) {
    Social social;
    social.service = firstParameter(property, {"X-SERVICE-TYPE", "SERVICE-TYPE"});
    if (social.service.empty()) {
        social.service = serviceFromType(property);
    }
    social.user = firstParameter(property, {"X-USER", "USERNAME"});
    social.url = trimmedText(property);
    return social;
}

// What a social profile shows: its user name, else its address, where an
// "x-apple:" address (services without web profiles) holds the user name.
std::string socialValue(const Social& social) {
    if (!social.user.empty()) {
        return social.user;
    }
    if (startsWithIgnoringAsciiCase(social.url, "x-apple:")) {
        return decodedIfPossible(trimAsciiSpace(std::string_view(social.url).substr(8)));
    }
    return social.url;
}

// Everything the page and the editor both need from the entries.
struct EntryContents {
    std::vector<ContactDraft::Field> phones;
    std::vector<ContactDraft::Field> emails;
    std::vector<ContactDraft::Field> urls;                                // less anchors and links
    std::vector<std::pair<ContactDraft::Address, std::string>> addresses; // with X-ABADR
    std::vector<ContactDraft::Field> dates;
    std::vector<ContactDraft::Date> dateParts; // the dates that read as dates, for the editor
    std::vector<ContactDraft::Field> relations;
    std::vector<ContactDraft::Field> social;    // label: display text already
    std::vector<ContactDraft::Field> messaging; // label: display text already
    std::vector<LinkedAccount> links;
    std::set<std::string> messageLinkIDs;
    std::optional<std::string> anchorURL;
    std::vector<std::string> allURLs;
};

void addLink(EntryContents& contents, std::optional<LinkedAccount> link, bool fromMessaging) {
    if (!link) {
        return;
    }
    // The same account named twice (a profile and a web address) is one link.
    for (const auto& existing : contents.links) {
        if (existing.service == link->service && equalsIgnoringAsciiCase(existing.handle, link->handle)) {
            return;
        }
    }
    if (fromMessaging) {
        contents.messageLinkIDs.insert(link->id);
    }
    contents.links.push_back(std::move(*link));
}

EntryContents readEntries(const VCard& card, std::string_view cardID, EntryRegistry& registry,
                          std::string_view locale) {
    EntryContents contents;
    for (const auto& entry : cardEntries(card, cardID, registry)) {
        const VCardProperty& property = *entry.property;
        switch (entry.kind) {
        case EntryKind::phone:
            contents.phones.push_back({entry.id, readLabel(card, property), phoneNumberOf(property), false});
            break;
        case EntryKind::email:
            contents.emails.push_back({entry.id, readLabel(card, property), trimmedText(property), false});
            break;
        case EntryKind::address: {
            ContactDraft::Address address = addressPartsOf(property);
            address.id = entry.id;
            address.label = readLabel(card, property);
            const VCardProperty* hint = card.companion(property, "X-ABADR");
            contents.addresses.emplace_back(std::move(address), hint ? trimmedText(*hint) : std::string());
            break;
        }
        case EntryKind::url: {
            std::string value = trimmedText(property);
            contents.allURLs.push_back(value);
            if (KinID::isAnchorURL(value)) {
                if (!contents.anchorURL) {
                    contents.anchorURL = value;
                }
                break;
            }
            if (auto link = linkFromWebAddress(entry.id, value)) {
                addLink(contents, std::move(link), false);
                break;
            }
            contents.urls.push_back({entry.id, readLabel(card, property), std::move(value), false});
            break;
        }
        case EntryKind::date: {
            std::string value = trimmedText(property);
            if (const auto date = readCardDate(property)) {
                if (auto text = date->text(locale)) {
                    value = std::move(*text);
                }
                contents.dateParts.push_back({entry.id, readLabel(card, property), *date, false});
            }
            contents.dates.push_back({entry.id, readLabel(card, property), std::move(value), false});
            break;
        }
        case EntryKind::relation:
            contents.relations.push_back({entry.id, readLabel(card, property), trimmedText(property), false});
            break;
        case EntryKind::social: {
            const Social social = socialOf(property);
            const std::string label =
                social.service.empty() ? labelDisplayText(readLabel(card, property)) : social.service;
            contents.social.push_back({entry.id, label, socialValue(social), false});
            addLink(contents, linkFromSocialProfile(entry.id, social.service, social.user, social.url),
                    false);
            break;
        }
        case EntryKind::messaging: {
            const Messaging messaging = messagingOf(property);
            const std::string label =
                messaging.service.empty() ? labelDisplayText(readLabel(card, property)) : messaging.service;
            contents.messaging.push_back({entry.id, label, messaging.user, false});
            addLink(contents, linkFromMessagingAddress(entry.id, messaging.service, messaging.user), true);
            break;
        }
        }
    }
    return contents;
}

std::vector<ContactCard::Item> itemsOf(const std::vector<ContactDraft::Field>& fields, bool labelIsConstant) {
    std::vector<ContactCard::Item> items;
    items.reserve(fields.size());
    for (const auto& field : fields) {
        items.push_back(
            {labelIsConstant ? labelDisplayText(field.label) : field.label, field.value, field.id});
    }
    return items;
}

std::string firstText(const VCard& card, std::string_view name) {
    const VCardProperty* property = card.first(name);
    return property ? property->text() : std::string();
}

std::string nicknameOf(const VCard& card) {
    const VCardProperty* property = card.first("NICKNAME");
    if (property == nullptr) {
        return {};
    }
    std::string joined;
    for (const auto& value : property->listValues()) {
        if (!joined.empty()) {
            joined += ", ";
        }
        joined += value;
    }
    return joined;
}

// Inline photo data, without decoding it: base64 by ENCODING, or a data URI.
bool hasInlineData(const VCardProperty& property) {
    const std::string_view value = property.rawValue();
    const auto encoding = property.parameter("ENCODING");
    if (encoding && isOneOfIgnoringCase(*encoding, {"B", "BASE64"})) {
        return !isBlank(value, " \t");
    }
    return startsWithIgnoringAsciiCase(value, "data:");
}

} // namespace

CardNames readCardNames(const VCard& card) {
    CardNames names;
    if (const VCardProperty* n = card.first("N")) {
        readNameFields(FieldsValue(n->components()), names);
    }
    if (const VCardProperty* org = card.first("ORG")) {
        readOrganizationFields(FieldsValue(org->components()), names);
    }
    const VCardProperty* fn = card.first("FN");
    return completeCardNames(std::move(names), fn ? fn->text() : std::string(), isCompanyCard(card));
}

std::string cardIDFromFileName(std::string_view fileName) {
    std::string_view stem = fileName;
    if (stem.size() > 4 && equalsIgnoringAsciiCase(stem.substr(stem.size() - 4), ".vcf")) {
        stem.remove_suffix(4);
    }
    bool safe = !stem.empty() && stem.front() != '.';
    for (const char c : stem) {
        safe = safe && isSafeIDChar(c);
    }
    if (safe) {
        return std::string(stem);
    }
    std::string id;
    for (const char c : stem) {
        id.push_back(isSafeIDChar(c) ? c : '-');
    }
    if (!id.empty()) {
        id.push_back('-');
    }
    return id + EntryRegistry::fingerprintOf(fileName);
}

std::string cardIDOf(const VCard& card, std::string_view fileName) {
    if (const auto uid = card.uid()) {
        const std::string_view trimmed = trimAsciiSpace(*uid);
        if (!trimmed.empty()) {
            return std::string(trimmed);
        }
    }
    return cardIDFromFileName(fileName);
}

bool isGroupCard(const VCard& card) {
    return hasKind(card, {"group"}, true);
}

bool isCompanyCard(const VCard& card) {
    for (const VCardProperty* property : card.find("X-ABShowAs")) {
        if (equalsIgnoringAsciiCase(trimAsciiSpace(property->text()), "COMPANY")) {
            return true;
        }
    }
    return hasKind(card, {"org", "organization"}, false);
}

std::optional<DateComponents> parseCardDate(std::string_view text, std::string_view omitYear) {
    std::string_view value = trimAsciiSpace(text);
    // The time of a date-time means nothing to a birthday.
    if (const std::size_t time = value.find_first_of("Tt "); time != std::string_view::npos) {
        value = value.substr(0, time);
    }
    std::optional<int> year;
    std::string_view monthDay;
    if (value.starts_with("--")) {
        monthDay = value.substr(2);
    } else {
        std::string_view yearText = value.substr(0, std::min<std::size_t>(4, value.size()));
        if (yearText.size() != 4 || !allDigits(yearText)) {
            return std::nullopt;
        }
        monthDay = value.substr(4);
        if (monthDay.starts_with("-")) {
            monthDay.remove_prefix(1);
        }
        year = number(yearText);
        if (yearText == trimAsciiSpace(omitYear) || year == 1604) {
            year = std::nullopt;
        }
    }
    std::string_view monthText;
    std::string_view dayText;
    if (monthDay.size() == 4 && allDigits(monthDay)) {
        monthText = monthDay.substr(0, 2);
        dayText = monthDay.substr(2);
    } else if (monthDay.size() == 5 && monthDay[2] == '-') {
        monthText = monthDay.substr(0, 2);
        dayText = monthDay.substr(3);
    } else {
        return std::nullopt;
    }
    if (!allDigits(monthText) || !allDigits(dayText)) {
        return std::nullopt;
    }
    return DateComponents::make(year, number(monthText), number(dayText));
}

std::optional<DateComponents> readCardDate(const VCardProperty& property) {
    if (const auto valueType = property.parameter("VALUE");
        valueType && equalsIgnoringAsciiCase(*valueType, "text")) {
        return std::nullopt;
    }
    return parseCardDate(property.text(), property.parameter("X-APPLE-OMIT-YEAR").value_or(std::string()));
}

std::optional<DateComponents> readBirthday(const VCard& card) {
    const VCardProperty* birthday = card.first("BDAY");
    return birthday ? readCardDate(*birthday) : std::nullopt;
}

std::string cardNote(const VCard& card) {
    std::string note;
    for (const VCardProperty* line : card.find("NOTE")) {
        std::string text = line->text();
        if (trimAsciiSpace(text).empty()) {
            continue;
        }
        if (!note.empty()) {
            note += '\n';
        }
        note += text;
    }
    return note;
}

std::string formatPostalAddress(const ContactDraft::Address& address, std::string_view layout) {
    std::string text = address.street;
    switch (layoutFor(layout, address.country)) {
    case Layout::cityFirst: {
        const std::string stateAndCode = joinNonEmpty({address.state, address.postalCode}, " ");
        // "Springfield, IL 62701"; the comma belongs to the state.
        addLine(text, joinNonEmpty({address.city, stateAndCode}, address.state.empty() ? " " : ", "));
        break;
    }
    case Layout::codeFirst:
        addLine(text, joinNonEmpty({address.postalCode, address.city}, " "));
        addLine(text, address.state);
        break;
    case Layout::british:
        addLine(text, address.city);
        addLine(text, address.state);
        addLine(text, address.postalCode);
        break;
    }
    addLine(text, address.country);
    return text;
}

ContactCard readContactCard(const VCard& card, std::string_view cardID, EntryRegistry& registry,
                            std::string_view locale) {
    ContactCard contact;
    contact.id = std::string(cardID);
    CardNames names = readCardNames(card);
    contact.namePrefix = std::move(names.namePrefix);
    contact.givenName = std::move(names.givenName);
    contact.middleName = std::move(names.middleName);
    contact.familyName = std::move(names.familyName);
    contact.nameSuffix = std::move(names.nameSuffix);
    contact.nickname = nicknameOf(card);
    contact.phoneticName = joinPhoneticName(trimAsciiSpace(firstText(card, "X-PHONETIC-FIRST-NAME")),
                                            trimAsciiSpace(firstText(card, "X-PHONETIC-LAST-NAME")));
    contact.organization = std::move(names.organization);
    contact.department = std::move(names.department);
    contact.jobTitle = firstText(card, "TITLE");

    EntryContents entries = readEntries(card, cardID, registry, locale);
    contact.phones = itemsOf(entries.phones, true);
    contact.emails = itemsOf(entries.emails, true);
    for (const auto& [address, layout] : entries.addresses) {
        contact.addresses.push_back(
            {labelDisplayText(address.label), formatPostalAddress(address, layout), address.id});
        contact.addressParts.push_back(
            {address.street, address.city, address.state, address.postalCode, address.country});
    }
    contact.urls = itemsOf(entries.urls, true);
    if (const auto birthday = readBirthday(card)) {
        contact.birthday = birthday->text(locale);
    }
    contact.dates = itemsOf(entries.dates, true);
    contact.relations = itemsOf(entries.relations, true);
    contact.social = itemsOf(entries.social, false);
    contact.messaging = itemsOf(entries.messaging, false);
    contact.links = std::move(entries.links);
    contact.kinID = KinID::readID(entries.allURLs);
    for (const VCardProperty* photo : card.find("PHOTO")) {
        if (auto binary = photo->binary(); binary && !binary->bytes.empty()) {
            contact.image = std::move(binary->bytes);
            break;
        }
    }
    return contact;
}

ContactDraft readDraft(const VCard& card, std::string_view cardID, EntryRegistry& registry) {
    ContactDraft draft;
    draft.id = std::string(cardID);
    CardNames names = readCardNames(card);
    draft.namePrefix = std::move(names.namePrefix);
    draft.givenName = std::move(names.givenName);
    draft.middleName = std::move(names.middleName);
    draft.familyName = std::move(names.familyName);
    draft.nameSuffix = std::move(names.nameSuffix);
    draft.nickname = nicknameOf(card);
    draft.organization = std::move(names.organization);
    draft.department = std::move(names.department);
    draft.jobTitle = firstText(card, "TITLE");

    EntryContents entries = readEntries(card, cardID, registry, {});
    draft.phones = std::move(entries.phones);
    draft.emails = std::move(entries.emails);
    draft.urls = std::move(entries.urls);
    for (auto& [address, layout] : entries.addresses) {
        draft.addresses.push_back(std::move(address));
    }
    draft.birthday = readBirthday(card);
    draft.links = std::move(entries.links);
    draft.messageLinkIDs = std::move(entries.messageLinkIDs);
    draft.anchorURL = std::move(entries.anchorURL);
    draft.phoneticGivenName = trimAsciiSpace(firstText(card, "X-PHONETIC-FIRST-NAME"));
    draft.phoneticFamilyName = trimAsciiSpace(firstText(card, "X-PHONETIC-LAST-NAME"));
    draft.dates = std::move(entries.dateParts);
    draft.note = cardNote(card);
    return draft;
}

Person readPerson(const VCard& card, std::string_view cardID, std::string_view accountID, bool details) {
    RawPersonBuilder builder(details);
    for (const VCardProperty* property : card.properties()) {
        if (property->isMalformed()) {
            continue;
        }
        const PersonLine line = builder.classify(property->name(), !property->group().empty());
        switch (line) {
        case PersonLine::ignored:
            break;
        case PersonLine::n:
        case PersonLine::org:
        case PersonLine::adr: {
            const VCardFields fields = property->components();
            builder.addFields(line, FieldsValue(fields));
            break;
        }
        case PersonLine::nickname: {
            std::string joined;
            for (const auto& value : property->listValues()) {
                if (!joined.empty()) {
                    joined += ", ";
                }
                joined += value;
            }
            builder.addText(line, joined);
            break;
        }
        case PersonLine::photo:
            builder.addPhoto(hasInlineData(*property));
            break;
        default:
            builder.addText(line, property->text());
            break;
        }
    }
    return std::move(builder).finish(cardID, accountID);
}

} // namespace kinbook
