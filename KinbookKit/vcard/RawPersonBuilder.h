#pragma once

#include "KinbookKit/records/Person.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

using VCardFields = std::vector<std::vector<std::string>>;

// A card's name and work texts as Kinbook shows them, worked out the same way
// for the person page and for the list.
struct CardNames {
    std::string namePrefix;
    std::string givenName;
    std::string middleName;
    std::string familyName;
    std::string nameSuffix;
    std::string organization;
    std::string department;

    bool operator==(const CardNames&) const = default;
};

// A structured value (N, ORG, ADR) as the rules below read it. Each reader
// supplies its own: a parsed property's components, or the scanner's view of
// the raw value.
class StructuredValue {
public:
    virtual ~StructuredValue() = default;
    // The components of field `index` joined by `separator`; empty when the
    // value has fewer fields.
    virtual std::string joined(std::size_t index, std::string_view separator) const = 0;
    // Some component has something in it (isFilledValue).
    virtual bool isFilled() const = 0;
};

// A parsed property's components as a StructuredValue.
class FieldsValue final : public StructuredValue {
public:
    explicit FieldsValue(const VCardFields& fields) : m_fields(fields) {}
    std::string joined(std::size_t index, std::string_view separator) const override;
    bool isFilled() const override;

private:
    const VCardFields& m_fields;
};

// N gives the person's names (the components of one field joined by a
// blank); ORG gives the organisation and the department (components joined
// by ",", which is what an unescaped comma in a company name meant).
void readNameFields(const StructuredValue& n, CardNames& names);
void readOrganizationFields(const StructuredValue& org, CardNames& names);

// The names a card shows, from what its N and ORG gave: a card whose N has
// no given, middle or family name shows its FN as the given name, unless FN
// just repeats the organisation. A company card keeps its N names but is
// known by its organisation; with no ORG its FN is the organisation.
CardNames completeCardNames(CardNames names, std::string_view formattedName, bool isCompany);

// What a line of a card contributes to the raw person.
enum class PersonLine : unsigned char {
    ignored,
    n,
    fn,
    nickname,
    org,
    title,
    showAs, // X-ABShowAs
    kind,   // 4.0 KIND
    abKind, // X-ADDRESSBOOKSERVER-KIND
    uid,    // exactly "UID", without a group
    tel,
    email,
    adr,
    url,
    bday,
    photo,
    entry, // another entry (dates, relations, social, messaging): counted only
};

// The rules that turn a card's lines into its raw Person, fed line by line
// in file order with values already decoded. Two readers feed it: readPerson
// from a parsed VCard and scanPerson straight from the bytes; sharing it is
// what keeps their results identical.
//
// The measure of filledCount: each non-empty name and work text of the
// person (given, middle, family, nickname, organisation, job title,
// department), each phone, e-mail, address, web address (the anchor left
// out), date, relation, social profile and messaging address whose value has
// anything but blanks, ";" and ",", a birthday, and a photo.
//
// A names-only pass (details false) reads the names, the anchor (KinID,
// hidden, circle, primary: joining cards needs them) and the group marks;
// everything else stays empty and filledCount 0.
class RawPersonBuilder {
public:
    // The lists a card's entries are gathered in before they go to the
    // person. A reader of many cards hands every builder the same ones, so
    // they keep their room from card to card and each person's lists are
    // allocated once, at their final size.
    struct Lists {
        std::vector<std::string> phones;
        std::vector<std::string> emails;
        std::vector<std::string> postalCodes;
        std::vector<std::string> places;
        std::vector<std::string> anchors;
    };

    explicit RawPersonBuilder(bool details) : m_details(details), m_lists(&m_ownLists) {}
    RawPersonBuilder(bool details, Lists& reused);
    RawPersonBuilder(const RawPersonBuilder&) = delete;
    RawPersonBuilder& operator=(const RawPersonBuilder&) = delete;

    // What the line is to the person, or ignored when its value is not
    // needed (a second N, a phone in a names-only pass). Names compare
    // ignoring case, except UID, which sync tools read as written.
    PersonLine classify(std::string_view name, bool hasGroup) const;

    // Value for n, org and adr.
    void addFields(PersonLine line, const StructuredValue& value);
    // Value for every other kind, as TEXT; nickname as its list values
    // joined by ", ".
    void addText(PersonLine line, std::string_view text);
    // A PHOTO line: whether its data is inline (not a reference).
    void addPhoto(bool hasInlineData);

    bool isGroup() const { return m_group; }
    const std::optional<std::string>& uid() const { return m_uid; }

    Person finish(std::string_view cardID, std::string_view accountID) &&;
    // The same into `person`, a freshly made one the caller keeps (a full
    // read fills its people in place).
    void finishInto(Person& person, std::string_view cardID, std::string_view accountID) &&;

private:
    bool m_details;
    bool m_hasN = false;
    bool m_hasOrg = false;
    CardNames m_names;
    std::optional<std::string> m_fn;
    std::optional<std::string> m_nickname;
    std::optional<std::string> m_title;
    std::optional<std::string> m_uid;
    bool m_company = false;
    bool m_group = false;
    bool m_birthday = false;
    bool m_image = false;
    int m_filledEntries = 0;
    Lists m_ownLists;
    Lists* m_lists;
};

// Whether an entry's value counts as filled: anything but white space, ";"
// and ",".
bool isFilledValue(std::string_view text);

// The place text of an address, for search: city, state and country, the
// empty ones dropped, joined by ", ".
std::string placeText(std::string_view city, std::string_view state, std::string_view country);

} // namespace kinbook
