#pragma once

#include "KinbookKit/records/PackedKeys.h"
#include "KinbookKit/records/Person.h"

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace kinbook {

// A field's name as a template argument: each codec then has the key's text
// and length as constants, and the snapshot cache's fast reader compares a
// key in a few fixed loads, as if it had been written out by hand.
template <std::size_t N>
struct FieldName {
    char text[N]{};

    constexpr FieldName(const char (&name)[N]) {
        for (std::size_t i = 0; i < N; ++i) {
            text[i] = name[i];
        }
    }
    constexpr std::string_view view() const { return std::string_view(text, N - 1); }
};

namespace detail {

template <typename Member>
struct MemberOf;

template <typename Value, typename Class>
struct MemberOf<Value Class::*> {
    using type = Value;
};

template <typename T>
inline constexpr bool isOptional = false;
template <typename T>
inline constexpr bool isOptional<std::optional<T>> = true;

} // namespace detail

// A field that whoever reads the card fills: a member of Person. An optional
// member (kinID, circle) is written only when set and read as none when
// absent; every other one is always there.
template <FieldName Name, auto Member>
struct StoredField {
    using Value = typename detail::MemberOf<decltype(Member)>::type;

    static constexpr std::string_view name = Name.view();
    static constexpr auto member = Member;
    static constexpr bool derived = false;
    static constexpr bool optional = detail::isOptional<Value>;
};

// A key derive() works out: taken from the person through its accessor, and
// read back into PersonKeys for the person to adopt. Stored so that a start
// from the cache folds no text again.
template <FieldName Name, auto Key, auto Accessor>
struct DerivedField {
    static constexpr std::string_view name = Name.view();
    static constexpr auto key = Key;
    static constexpr auto accessor = Accessor;
    static constexpr bool derived = true;
    static constexpr bool optional = false;
};

// Every field of a person under its name, in the order the snapshot cache and
// the tool's JSON write them: the stored fields, then the derived keys. Adding
// a field to Person is adding it here; every writer and reader follows.
// clang-format off
using PersonFields = std::tuple<
    StoredField<"id", &Person::id>,
    StoredField<"givenName", &Person::givenName>,
    StoredField<"middleName", &Person::middleName>,
    StoredField<"familyName", &Person::familyName>,
    StoredField<"nickname", &Person::nickname>,
    StoredField<"organization", &Person::organization>,
    StoredField<"jobTitle", &Person::jobTitle>,
    StoredField<"department", &Person::department>,
    StoredField<"phoneNumbers", &Person::phoneNumbers>,
    StoredField<"emailAddresses", &Person::emailAddresses>,
    StoredField<"accountIDs", &Person::accountIDs>,
    StoredField<"hasImage", &Person::hasImage>,
    StoredField<"postalCodes", &Person::postalCodes>,
    StoredField<"places", &Person::places>,
    StoredField<"filledCount", &Person::filledCount>,
    StoredField<"detailed", &Person::detailed>,
    StoredField<"kinID", &Person::kinID>,
    StoredField<"hidden", &Person::hidden>,
    StoredField<"circle", &Person::circle>,
    StoredField<"isPrimaryCard", &Person::isPrimaryCard>,
    StoredField<"memberIDs", &Person::memberIDs>,
    DerivedField<"displayName", &PersonKeys::displayName, &Person::displayName>,
    DerivedField<"sortKey", &PersonKeys::sortKey, &Person::sortKey>,
    DerivedField<"sectionLetter", &PersonKeys::sectionLetter, &Person::sectionLetter>,
    DerivedField<"firstNameSortKey", &PersonKeys::firstNameSortKey, &Person::firstNameSortKey>,
    DerivedField<"firstNameSectionLetter", &PersonKeys::firstNameSectionLetter, &Person::firstNameSectionLetter>,
    DerivedField<"areaCodes", &PersonKeys::areaCodes, &Person::areaCodes>,
    DerivedField<"searchText", &PersonKeys::searchText, &Person::searchText>,
    DerivedField<"phoneDigits", &PersonKeys::phoneDigits, &Person::phoneDigits>>;
// clang-format on

inline constexpr std::size_t kPersonFieldCount = std::tuple_size_v<PersonFields>;

template <std::size_t Index>
using PersonField = std::tuple_element_t<Index, PersonFields>;

// Whether a field is the one a person's JSON object opens with.
template <typename Field>
inline constexpr bool isFirstPersonField = std::is_same_v<Field, PersonField<0>>;

// The text before a field's value in JSON: the lead (a comma, or the brace
// that opens the object), the quoted name and a colon; no blanks.
template <typename Field, char Lead = ','>
inline constexpr auto kJsonKey = [] {
    std::array<char, Field::name.size() + 4> key{};
    key[0] = Lead;
    key[1] = '"';
    for (std::size_t i = 0; i < Field::name.size(); ++i) {
        key[i + 2] = Field::name[i];
    }
    key[key.size() - 2] = '"';
    key[key.size() - 1] = ':';
    return key;
}();

// The text before a field's value where it stands in a written person.
template <typename Field>
inline constexpr const auto& kWrittenKey = kJsonKey<Field, isFirstPersonField<Field> ? '{' : ','>;

// Calls visit(field) with a value of each field's type, in order.
template <typename Visitor>
constexpr void forEachPersonField(Visitor&& visit) {
    [&]<std::size_t... Index>(std::index_sequence<Index...>) {
        (visit(PersonField<Index>{}), ...);
    }
    (std::make_index_sequence<kPersonFieldCount>{});
}

// The same, stopping at the first field for which visit returns false;
// whether every one returned true.
template <typename Visitor>
constexpr bool everyPersonField(Visitor&& visit) {
    return [&]<std::size_t... Index>(std::index_sequence<Index...>) {
        return (visit(PersonField<Index>{}) && ...);
    }
    (std::make_index_sequence<kPersonFieldCount>{});
}

// Calls visit with the field at `index` in the order above, for a reader that
// learns which field it holds only from the text; false for an index past the
// last field.
template <typename Visitor>
bool visitPersonField(std::size_t index, Visitor&& visit) {
    return [&]<std::size_t... Index>(std::index_sequence<Index...>) {
        bool result = false;
        static_cast<void>(((index == Index && (result = visit(PersonField<Index>{}), true)) || ...));
        return result;
    }
    (std::make_index_sequence<kPersonFieldCount>{});
}

// Every field's name, in order.
inline constexpr auto kPersonFieldNames = [] {
    std::array<std::string_view, kPersonFieldCount> names{};
    std::size_t at = 0;
    forEachPersonField([&](auto field) { names[at++] = decltype(field)::name; });
    return names;
}();

} // namespace kinbook
