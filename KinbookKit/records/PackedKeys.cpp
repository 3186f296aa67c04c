#include "KinbookKit/records/PackedKeys.h"

#include <algorithm>

namespace kinbook {

PackedKeys::PackedKeys(const PersonKeys& keys) {
    m_texts = Texts::made(
        [&](const auto& visit) {
            for (const auto* text :
                 {&keys.displayName, &keys.sortKey, &keys.sectionLetter, &keys.firstNameSortKey,
                  &keys.firstNameSectionLetter, &keys.searchText}) {
                visit(*text);
            }
            for (const auto& text : keys.areaCodes) {
                visit(text);
            }
            for (const auto& text : keys.phoneDigits) {
                visit(text);
            }
        },
        static_cast<std::uint32_t>(keys.areaCodes.size()));
}

TextList PackedKeys::areaCodes() const {
    return m_texts.empty() ? TextList() : m_texts.stretch(kSingleTexts, m_texts.mark());
}

TextList PackedKeys::phoneDigits() const {
    if (m_texts.empty()) {
        return {};
    }
    const std::size_t from = kSingleTexts + m_texts.mark();
    return m_texts.stretch(from, m_texts.size() - from);
}

PersonKeys PackedKeys::unpacked() const {
    PersonKeys keys;
    keys.displayName = std::string(text(Text::displayName));
    keys.sortKey = std::string(text(Text::sortKey));
    keys.sectionLetter = std::string(text(Text::sectionLetter));
    keys.firstNameSortKey = std::string(text(Text::firstNameSortKey));
    keys.firstNameSectionLetter = std::string(text(Text::firstNameSectionLetter));
    keys.areaCodes = areaCodes().strings();
    keys.searchText = std::string(text(Text::searchText));
    keys.phoneDigits = phoneDigits().strings();
    return keys;
}

bool PackedKeys::operator==(const PackedKeys& other) const {
    // Keys never worked out read as keys that are all empty.
    const auto blank = [](const Texts& texts) {
        return texts.size() == kSingleTexts &&
               std::all_of(texts.begin(), texts.end(), [](std::string_view text) { return text.empty(); });
    };
    if (m_texts.empty() != other.m_texts.empty()) {
        return blank(m_texts.empty() ? other.m_texts : m_texts);
    }
    return m_texts == other.m_texts;
}

} // namespace kinbook
