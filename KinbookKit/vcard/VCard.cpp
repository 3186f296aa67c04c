#include "KinbookKit/vcard/VCard.h"

#include "KinbookKit/vcard/VCardLines.h"

#include <algorithm>
#include <map>
#include <utility>

namespace kinbook {
namespace {

using namespace vcardlines;

struct PhysicalLine {
    std::size_t begin = 0;
    std::size_t contentEnd = 0; // the line ending starts here
    std::size_t end = 0;        // after the line ending
};

// Splits on LF, counting any CRs before it as part of the line ending, so
// that CRLF, LF and the CR CR LF of old iPhones all read the same. A file
// without a single LF uses CR alone.
std::vector<PhysicalLine> splitLines(std::string_view bytes) {
    std::vector<PhysicalLine> lines;
    lines.reserve(bytes.size() / 48 + 4);
    const char breakChar = bytes.find('\n') != std::string_view::npos ? '\n' : '\r';
    std::size_t pos = 0;
    while (pos < bytes.size()) {
        const std::size_t found = bytes.find(breakChar, pos);
        PhysicalLine line;
        line.begin = pos;
        line.end = found == std::string_view::npos ? bytes.size() : found + 1;
        line.contentEnd = found == std::string_view::npos ? bytes.size() : found;
        while (line.contentEnd > pos && bytes[line.contentEnd - 1] == '\r') {
            --line.contentEnd;
        }
        lines.push_back(line);
        pos = line.end;
    }
    return lines;
}

struct LogicalLine {
    std::size_t first = 0;
    std::size_t last = 0;
    std::string text;
    std::string embedded; // a nested card, for AGENT
    bool blank = false;
    bool strayCard = false; // a nested card with no AGENT to hold it
};

} // namespace

Result<VCard, VCardError> VCard::parse(std::string_view bytes) {
    return parseFirst(std::make_shared<const std::string>(bytes));
}

Result<std::vector<VCard>, VCardError> VCard::parseAll(std::string_view bytes) {
    if (bytes.find_first_not_of(" \t\r\n") == std::string_view::npos) {
        return failure(VCardError::empty);
    }
    // Find each top-level card's lines in one pass, then read each card on
    // its own bytes, so that a large export costs time in proportion to its
    // size and every card serialises as exactly itself.
    const std::vector<PhysicalLine> lines = splitLines(bytes);
    std::vector<VCard> cards;
    std::size_t cardBegin = 0;
    int depth = 0;
    auto readCard = [&](std::size_t end) {
        auto card = parse(bytes.substr(cardBegin, end - cardBegin));
        if (card) {
            cards.push_back(std::move(card).value());
        }
    };
    for (const PhysicalLine& line : lines) {
        const std::string_view text = bytes.substr(line.begin, line.contentEnd - line.begin);
        if (isBegin(text)) {
            if (depth++ == 0) {
                cardBegin = line.begin;
            }
        } else if (depth > 0 && isAgentBegin(text)) {
            ++depth;
        } else if (depth > 0 && isEnd(text) && --depth == 0) {
            readCard(line.end);
        }
    }
    if (depth > 0) {
        readCard(bytes.size()); // the last card lacks its END:VCARD
    }
    if (cards.empty()) {
        return failure(VCardError::notAVCard);
    }
    return cards;
}

VCard VCard::create(VCardVersion version) {
    if (version == VCardVersion::v2_1) {
        version = VCardVersion::v3_0;
    }
    const std::string bytes =
        "BEGIN:VCARD\r\nVERSION:" + std::string(versionText(version)) + "\r\nEND:VCARD\r\n";
    return parse(bytes).value();
}

Result<VCard, VCardError> VCard::parseFirst(std::shared_ptr<const std::string> source) {
    const std::string_view bytes = *source;
    if (isBlankLine(bytes) || bytes.find_first_not_of(" \t\r\n") == std::string_view::npos) {
        return failure(VCardError::empty);
    }
    const std::vector<PhysicalLine> lines = splitLines(bytes);
    const std::size_t n = lines.size();
    auto content = [&](std::size_t i) {
        return bytes.substr(lines[i].begin, lines[i].contentEnd - lines[i].begin);
    };

    VCard card;
    card.m_source = source;

    std::size_t beginIndex = 0;
    while (beginIndex < n && !isBegin(content(beginIndex))) {
        ++beginIndex;
    }
    if (beginIndex == n) {
        return failure(VCardError::notAVCard);
    }
    for (std::size_t i = 0; i < beginIndex; ++i) {
        std::string_view line = content(i);
        if (i == 0 && line.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
            line.remove_prefix(kByteOrderMark.size());
        }
        if (!isBlankLine(line)) {
            card.m_warnings.push_back({i + 1, "text before BEGIN:VCARD kept as it is"});
            break;
        }
    }
    card.m_propertiesBegin = lines[beginIndex].end;

    // The index of the END:VCARD that closes a card nested at `depth`.
    auto matchingEnd = [&](std::size_t from, int depth, bool* closed) {
        for (std::size_t k = from; k < n; ++k) {
            if (isBegin(content(k))) {
                ++depth;
            } else if (isEnd(content(k)) && --depth == 0) {
                *closed = true;
                return k;
            }
        }
        *closed = false;
        return n - 1;
    };
    auto joinedLines = [&](std::size_t from, std::size_t to) {
        std::string text;
        for (std::size_t k = from; k <= to && k < n; ++k) {
            const std::string_view line = content(k);
            if (k > from && !line.empty() && (line[0] == ' ' || line[0] == '\t')) {
                text.append(line.substr(1));
            } else {
                if (k > from) {
                    text.push_back('\n');
                }
                text.append(line);
            }
        }
        return text;
    };

    // Pass 1: physical lines into logical lines, which needs no version.
    std::vector<LogicalLine> logical;
    logical.reserve(n);
    std::size_t endIndex = n;
    std::size_t i = beginIndex + 1;
    while (i < n) {
        const std::string_view line = content(i);
        if (isEnd(line)) {
            endIndex = i;
            break;
        }
        if (isBegin(line)) {
            bool closed = false;
            const std::size_t last = matchingEnd(i, 0, &closed);
            if (!closed) {
                card.m_warnings.push_back({i + 1, "embedded card without END:VCARD"});
            }
            LogicalLine* agent = logical.empty() ? nullptr : &logical.back();
            if (agent != nullptr && !agent->blank && !agent->strayCard && agent->last + 1 == i &&
                equalsIgnoringCase(roughName(agent->text), "AGENT") && agent->embedded.empty() &&
                isBlankLine(roughValue(agent->text))) {
                agent->last = last;
                agent->embedded = joinedLines(i, last);
            } else {
                card.m_warnings.push_back({i + 1, "embedded card outside AGENT kept as it is"});
                logical.push_back({i, last, joinedLines(i, last), {}, false, true});
            }
            i = last + 1;
            continue;
        }

        LogicalLine entry;
        entry.first = i;
        entry.text = std::string(line);
        std::size_t j = i;
        int quotedPrintable = -1; // unknown until a line ends in '='
        while (j + 1 < n) {
            const std::string_view next = content(j + 1);
            if (!entry.text.empty() && entry.text.back() == '=' && !isBegin(next) && !isEnd(next)) {
                if (quotedPrintable < 0) {
                    quotedPrintable = declaresEncoding(entry.text, "QUOTED-PRINTABLE") ? 1 : 0;
                }
                if (quotedPrintable == 1) {
                    // A soft line break: the '=' and the break vanish, and
                    // the next line is data even when it starts with a space.
                    entry.text.pop_back();
                    entry.text.append(next);
                    ++j;
                    continue;
                }
            }
            if (!next.empty() && (next[0] == ' ' || next[0] == '\t')) {
                entry.text.append(next.substr(1));
                ++j;
                continue;
            }
            break;
        }
        if (isBlankLine(entry.text)) {
            entry.blank = true;
        } else if (declaresEncoding(entry.text, "BASE64")) {
            // 2.1 base64 may continue without fold markers and ends with a
            // blank line, which belongs to the property.
            while (j + 1 < n && isBase64Data(content(j + 1))) {
                entry.text.append(content(j + 1));
                ++j;
            }
            if (j + 1 < n && content(j + 1).empty()) {
                ++j;
            }
        } else if (isAgentBegin(entry.text)) {
            bool closed = false;
            const std::size_t last = matchingEnd(j + 1, 1, &closed);
            if (!closed) {
                card.m_warnings.push_back({i + 1, "embedded card without END:VCARD"});
            }
            entry.embedded = "BEGIN:VCARD\n" + joinedLines(j + 1, last);
            j = last;
        }
        entry.last = j;
        logical.push_back(std::move(entry));
        i = j + 1;
    }

    if (endIndex == n) {
        card.m_missingEnd = true;
        card.m_tailBegin = bytes.size();
        card.m_warnings.push_back({beginIndex + 1, "no END:VCARD; card read to the end of the file"});
    } else {
        card.m_tailBegin = lines[endIndex].begin;
        int depth = 0;
        for (std::size_t k = endIndex + 1; k < n; ++k) {
            if (isBegin(content(k))) {
                if (depth++ == 0) {
                    ++card.m_additionalCards;
                }
            } else if (isEnd(content(k)) && depth > 0) {
                --depth;
            }
        }
    }

    // Pass 2: the version, wherever the VERSION line is.
    card.m_missingVersion = true;
    for (const LogicalLine& entry : logical) {
        if (entry.blank || entry.strayCard || !equalsIgnoringCase(roughName(entry.text), "VERSION")) {
            continue;
        }
        const std::string_view value = trimmedSpaceTab(roughValue(entry.text));
        card.m_missingVersion = false;
        if (value == "2.1" || value == "2.0") {
            card.m_version = VCardVersion::v2_1;
        } else if (value == "4.0") {
            card.m_version = VCardVersion::v4_0;
        } else if (value != "3.0") {
            card.m_warnings.push_back({entry.first + 1, "unknown vCard version; read as 3.0"});
        }
        break;
    }

    // Pass 3: properties, and the habits of the file for lines we write.
    std::map<std::string_view, std::size_t> endings;
    auto countEnding = [&](std::size_t index) {
        const std::string_view ending =
            bytes.substr(lines[index].contentEnd, lines[index].end - lines[index].contentEnd);
        if (!ending.empty()) {
            ++endings[ending];
        }
    };
    countEnding(beginIndex);
    if (endIndex < n) {
        countEnding(endIndex);
    }
    bool sawTypeSpelling = false;
    bool sawRepeatedType = false;
    bool sawTypeList = false;
    bool sawGroup = false;
    for (LogicalLine& entry : logical) {
        countEnding(entry.last);
        std::string problem;
        VCardProperty& property = card.m_properties.emplace_back(
            entry.blank || entry.strayCard
                ? VCardProperty::malformed(std::move(entry.text))
                : VCardProperty::parse(std::move(entry.text), card.m_version, &problem));
        if (!problem.empty()) {
            card.m_warnings.push_back({entry.first + 1, problem + "; line kept as it is"});
        }
        property.setEmbedded(std::move(entry.embedded));
        property.setSource(source, lines[entry.first].begin, lines[entry.last].end);

        std::size_t typeParameters = 0;
        for (const VCardParameter& parameter : property.parameters()) {
            if (!parameter.nameless && equalsIgnoringCase(parameter.name, "TYPE")) {
                ++typeParameters;
                sawTypeList = sawTypeList || parameter.values.size() > 1;
                if (!sawTypeSpelling) {
                    card.m_typeSpelling = parameter.name;
                    sawTypeSpelling = true;
                }
            }
        }
        sawRepeatedType = sawRepeatedType || typeParameters > 1;
        if (!sawGroup && !property.group().empty()) {
            sawGroup = true;
            card.m_upperCaseGroups = property.group().rfind("ITEM", 0) == 0;
        }
    }
    card.m_repeatTypes = sawRepeatedType || (!sawTypeList && card.m_version != VCardVersion::v4_0);

    std::size_t best = 0;
    for (const auto& [ending, count] : endings) {
        if (count > best || (count == best && ending == "\r\n")) {
            best = count;
            card.m_lineEnding = std::string(ending);
        }
    }
    for (VCardProperty& property : card.m_properties) {
        card.adoptStyle(property);
    }
    std::stable_sort(card.m_warnings.begin(), card.m_warnings.end(),
                     [](const VCardWarning& a, const VCardWarning& b) { return a.line < b.line; });
    return card;
}

void VCard::adoptStyle(VCardProperty& property) const {
    property.m_typeSpelling = m_typeSpelling;
    property.m_repeatTypes = m_repeatTypes;
}

bool VCard::isModified() const {
    return m_structureChanged ||
           std::any_of(m_properties.begin(), m_properties.end(),
                       [](const VCardProperty& property) { return property.isModified(); });
}

std::vector<VCardProperty*> VCard::properties() {
    std::vector<VCardProperty*> all;
    for (VCardProperty& property : m_properties) {
        all.push_back(&property);
    }
    return all;
}

std::vector<const VCardProperty*> VCard::properties() const {
    std::vector<const VCardProperty*> all;
    for (const VCardProperty& property : m_properties) {
        all.push_back(&property);
    }
    return all;
}

std::vector<VCardProperty*> VCard::find(std::string_view name) {
    std::vector<VCardProperty*> found;
    for (VCardProperty& property : m_properties) {
        if (property.is(name)) {
            found.push_back(&property);
        }
    }
    return found;
}

std::vector<const VCardProperty*> VCard::find(std::string_view name) const {
    std::vector<const VCardProperty*> found;
    for (const VCardProperty& property : m_properties) {
        if (property.is(name)) {
            found.push_back(&property);
        }
    }
    return found;
}

VCardProperty* VCard::first(std::string_view name) {
    for (VCardProperty& property : m_properties) {
        if (property.is(name)) {
            return &property;
        }
    }
    return nullptr;
}

const VCardProperty* VCard::first(std::string_view name) const {
    for (const VCardProperty& property : m_properties) {
        if (property.is(name)) {
            return &property;
        }
    }
    return nullptr;
}

std::vector<VCardProperty*> VCard::groupMembers(std::string_view group) {
    std::vector<VCardProperty*> members;
    if (group.empty()) {
        return members;
    }
    for (VCardProperty& property : m_properties) {
        if (property.isInGroup(group)) {
            members.push_back(&property);
        }
    }
    return members;
}

std::vector<const VCardProperty*> VCard::groupMembers(std::string_view group) const {
    std::vector<const VCardProperty*> members;
    if (group.empty()) {
        return members;
    }
    for (const VCardProperty& property : m_properties) {
        if (property.isInGroup(group)) {
            members.push_back(&property);
        }
    }
    return members;
}

VCardProperty* VCard::companion(const VCardProperty& property, std::string_view name) {
    return const_cast<VCardProperty*>(std::as_const(*this).companion(property, name));
}

const VCardProperty* VCard::companion(const VCardProperty& property, std::string_view name) const {
    if (property.group().empty()) {
        return nullptr;
    }
    for (const VCardProperty& other : m_properties) {
        if (&other != &property && other.isInGroup(property.group()) && other.is(name)) {
            return &other;
        }
    }
    return nullptr;
}

std::string VCard::newGroupName() const {
    std::size_t highest = 0;
    for (const VCardProperty& property : m_properties) {
        const std::string& group = property.group();
        if (group.size() <= 4 || !equalsIgnoringCase(std::string_view(group).substr(0, 4), "item") ||
            group.size() > 12) {
            continue;
        }
        const std::string_view digits = std::string_view(group).substr(4);
        if (std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) {
            highest = std::max<std::size_t>(highest, std::stoull(std::string(digits)));
        }
    }
    return (m_upperCaseGroups ? "ITEM" : "item") + std::to_string(highest + 1);
}

std::list<VCardProperty>::iterator VCard::locate(const VCardProperty& property) {
    for (auto it = m_properties.begin(); it != m_properties.end(); ++it) {
        if (&*it == &property) {
            return it;
        }
    }
    return m_properties.end();
}

std::list<VCardProperty>::iterator VCard::insertionPoint(std::string_view name, std::string_view group,
                                                         const VCardProperty* after) {
    if (after != nullptr) {
        const auto it = locate(*after);
        if (it != m_properties.end()) {
            return std::next(it);
        }
    }
    auto lastOf = [&](auto matches) {
        auto last = m_properties.end();
        for (auto it = m_properties.begin(); it != m_properties.end(); ++it) {
            if (matches(*it)) {
                last = it;
            }
        }
        return last;
    };
    if (!group.empty()) {
        const auto last = lastOf([&](const VCardProperty& p) { return p.isInGroup(group); });
        if (last != m_properties.end()) {
            return std::next(last);
        }
    }
    auto last = lastOf([&](const VCardProperty& p) { return p.is(name); });
    if (last == m_properties.end()) {
        return m_properties.end();
    }
    if (!last->group().empty()) {
        const std::string lastGroup = last->group();
        last = lastOf([&](const VCardProperty& p) { return p.isInGroup(lastGroup); });
    }
    return std::next(last);
}

VCardProperty& VCard::add(std::string_view name, std::string_view group, const VCardProperty* after) {
    const auto position = insertionPoint(name, group, after);
    VCardProperty property = VCardProperty::created(group, name, m_version);
    adoptStyle(property);
    m_structureChanged = true;
    return *m_properties.insert(position, std::move(property));
}

void VCard::reorder(const std::vector<const VCardProperty*>& order) {
    using Iterator = std::list<VCardProperty>::iterator;
    // Each moving property with the lines of its group that follow it.
    struct Block {
        Iterator begin;
        Iterator end;
        std::size_t size = 0;
    };
    std::vector<Block> blocks;   // in the wanted order
    std::vector<Iterator> slots; // where the moving properties are now, in file order
    for (const VCardProperty* property : order) {
        const Iterator it = locate(*property);
        if (it == m_properties.end()) {
            return;
        }
        Iterator end = std::next(it);
        if (!it->group().empty()) {
            while (end != m_properties.end() && end->isInGroup(it->group()) &&
                   std::find(order.begin(), order.end(), &*end) == order.end()) {
                ++end;
            }
        }
        blocks.push_back({it, end, static_cast<std::size_t>(std::distance(it, end))});
    }
    for (Iterator it = m_properties.begin(); it != m_properties.end(); ++it) {
        if (std::find(order.begin(), order.end(), &*it) != order.end()) {
            slots.push_back(it);
        }
    }
    bool inOrder = true;
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        inOrder = inOrder && blocks[i].begin == slots[i];
    }
    if (inOrder) {
        return;
    }
    // Mark every slot with a placeholder, take the blocks out, then put
    // each block where its slot's placeholder stands.
    std::list<VCardProperty> taken;
    std::vector<Iterator> placeholders;
    for (const Iterator slot : slots) {
        placeholders.push_back(m_properties.insert(slot, VCardProperty()));
    }
    for (const Block& block : blocks) {
        // By size: the placeholder of the next slot may now stand where
        // this block used to end.
        taken.splice(taken.end(), m_properties, block.begin,
                     std::next(block.begin, static_cast<std::ptrdiff_t>(block.size)));
    }
    std::vector<Block> moved;
    Iterator from = taken.begin();
    for (const Block& block : blocks) {
        const Iterator to = std::next(from, static_cast<std::ptrdiff_t>(block.size));
        moved.push_back({from, to, block.size});
        from = to;
    }
    for (std::size_t i = 0; i < moved.size(); ++i) {
        m_properties.splice(placeholders[i], taken, moved[i].begin, moved[i].end);
        m_properties.erase(placeholders[i]);
    }
    m_structureChanged = true;
}

void VCard::remove(const VCardProperty& property, VCardRemoval scope) {
    const auto it = locate(property);
    if (it == m_properties.end()) {
        return;
    }
    m_structureChanged = true;
    if (scope == VCardRemoval::wholeGroup && !it->group().empty()) {
        const std::string group = it->group();
        m_properties.remove_if([&](const VCardProperty& p) { return p.isInGroup(group); });
        return;
    }
    m_properties.erase(it);
}

std::optional<std::string> VCard::uid() const {
    for (const VCardProperty& property : m_properties) {
        if (!property.isMalformed() && property.name() == "UID" && property.group().empty()) {
            return property.text();
        }
    }
    return std::nullopt;
}

void VCard::writeUid(VCardProperty& property, std::string_view uid) {
    if (property.name() != "UID") {
        property.rename("UID");
    }
    if (!property.group().empty()) {
        property.setGroup({});
    }
    // A 4.0 UID is a URI and takes no escaping; a 3.0 UID is TEXT.
    if (m_version == VCardVersion::v4_0) {
        property.setRawValue(uid);
    } else {
        property.setText(uid);
    }
}

UidRepair VCard::ensureUid(std::string_view newUid) {
    const std::vector<VCardProperty*> uids = find("UID");
    if (uids.empty()) {
        writeUid(add("UID"), newUid);
        return UidRepair::added;
    }
    const std::string value = uids.front()->text();
    for (const VCardProperty* property : uids) {
        if (property->text() != value) {
            return UidRepair::conflicting;
        }
    }
    VCardProperty* plain = nullptr;
    for (VCardProperty* property : uids) {
        if (property->name() == "UID" && property->group().empty()) {
            plain = property;
            break;
        }
    }
    if (uids.size() == 1 && plain != nullptr) {
        return UidRepair::unchanged;
    }
    VCardProperty* keep = plain != nullptr ? plain : uids.front();
    if (plain == nullptr) {
        keep->rename("UID");
        keep->setGroup({});
    }
    for (VCardProperty* property : uids) {
        if (property != keep) {
            remove(*property);
        }
    }
    return UidRepair::normalised;
}

void VCard::setUid(std::string_view uid) {
    const std::vector<VCardProperty*> uids = find("UID");
    VCardProperty* keep = nullptr;
    for (VCardProperty* property : uids) {
        if (property->name() == "UID" && property->group().empty()) {
            keep = property;
            break;
        }
    }
    if (keep == nullptr) {
        keep = uids.empty() ? &add("UID") : uids.front();
    }
    for (VCardProperty* property : uids) {
        if (property != keep) {
            remove(*property);
        }
    }
    writeUid(*keep, uid);
}

std::string VCard::serialize() const {
    if (!isModified()) {
        return *m_source;
    }
    const std::string_view bytes = *m_source;
    const bool fromVersion21 = m_version == VCardVersion::v2_1;
    std::string out;
    out.reserve(bytes.size() + 1024);
    out.append(bytes.substr(0, m_propertiesBegin));
    auto startLine = [&] {
        if (!out.empty() && out.back() != '\n' && out.back() != '\r') {
            out += m_lineEnding;
        }
    };
    if (m_missingVersion) {
        startLine();
        out += "VERSION:3.0" + m_lineEnding;
    }
    for (const VCardProperty& property : m_properties) {
        if (fromVersion21 && property.is("VERSION") && !property.isModified()) {
            VCardProperty version = property;
            version.m_syntax = VCardVersion::v3_0;
            version.m_modified = true;
            version.setEncodedValue("3.0");
            startLine();
            out += version.serialize(m_lineEnding);
        } else if (fromVersion21 && property.needsUpgradeFrom21()) {
            startLine();
            out += property.upgradedFrom21().serialize(m_lineEnding);
        } else {
            if (property.isModified()) {
                startLine();
            }
            out += property.serialize(m_lineEnding);
        }
    }
    if (m_missingEnd) {
        startLine();
        out += "END:VCARD" + m_lineEnding;
    } else {
        out.append(bytes.substr(m_tailBegin));
    }
    return out;
}

} // namespace kinbook
