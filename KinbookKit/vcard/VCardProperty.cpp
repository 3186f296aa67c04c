#include "KinbookKit/vcard/VCardProperty.h"

#include "KinbookKit/text/Base64.h"
#include "KinbookKit/vcard/VCardLines.h"

#include <algorithm>

namespace kinbook {
namespace {

bool isNameChar(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

std::string upper(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'a' && c <= 'z') {
            c = static_cast<char>(c - 'a' + 'A');
        }
    }
    return out;
}

bool isOneOf(std::string_view value, std::initializer_list<std::string_view> candidates) {
    return std::any_of(candidates.begin(), candidates.end(),
                       [&](std::string_view candidate) { return equalsIgnoringCase(value, candidate); });
}

// What a nameless 2.1 parameter stands for.
std::string nameForNameless(std::string_view value) {
    if (isOneOf(value, {"QUOTED-PRINTABLE", "BASE64", "8BIT", "7BIT", "B"})) {
        return "ENCODING";
    }
    if (isOneOf(value, {"INLINE", "URL", "URI", "CONTENT-ID", "CID"})) {
        return "VALUE";
    }
    return "TYPE";
}

VCardParameter parseParameter(std::string_view written, VCardVersion version) {
    VCardParameter parameter;
    parameter.written = std::string(written);
    const std::size_t equals = written.find('=');
    if (equals == std::string_view::npos) {
        parameter.nameless = true;
        parameter.name = nameForNameless(written);
        if (!written.empty()) {
            parameter.values.push_back(makeValidUtf8(written));
        }
        return parameter;
    }
    parameter.name = std::string(written.substr(0, equals));
    const std::string_view list = written.substr(equals + 1);
    const bool isType = equalsIgnoringCase(parameter.name, "TYPE");
    forEachParameterValue(list, version, [&](std::string value, bool quoted) {
        if (isType && quoted) {
            // TYPE="HOME,VOICE" means two values.
            std::size_t from = 0;
            for (std::size_t k = 0; k <= value.size(); ++k) {
                if (k == value.size() || value[k] == ',') {
                    if (k > from) {
                        parameter.values.push_back(value.substr(from, k - from));
                    }
                    from = k + 1;
                }
            }
        } else if (!value.empty()) {
            parameter.values.push_back(std::move(value));
        }
    });
    return parameter;
}

std::string encodeParameter(std::string_view name, const std::vector<std::string>& values) {
    std::string written(name);
    written.push_back('=');
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) {
            written.push_back(',');
        }
        written += encodeVCardParameterValue(values[i]);
    }
    return written;
}

VCardParameter makeParameter(std::string_view name, std::vector<std::string> values) {
    VCardParameter parameter;
    parameter.name = std::string(name);
    parameter.written = encodeParameter(name, values);
    parameter.values = std::move(values);
    return parameter;
}

std::string normaliseLineBreaks(std::string text) {
    if (text.find('\r') == std::string::npos) {
        return text;
    }
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r') {
            out.push_back('\n');
            if (i + 1 < text.size() && text[i + 1] == '\n') {
                ++i;
            }
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

std::string withoutLineBreaks(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r' || text[i] == '\n') {
            if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') {
                ++i;
            }
            out.push_back(' ');
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

std::string sanitisedName(std::string_view name) {
    std::string out;
    for (char c : name) {
        if (isNameChar(c)) {
            out.push_back(c);
        }
    }
    return out;
}

enum class ValueKind { text, structured, list, other };

// How a property's value is escaped, for rewriting 2.1 lines as 3.0.
ValueKind valueKind(std::string_view name) {
    if (isOneOf(name, {"N", "ADR", "ORG", "GENDER"})) {
        return ValueKind::structured;
    }
    if (isOneOf(name, {"CATEGORIES", "NICKNAME"})) {
        return ValueKind::list;
    }
    if (isOneOf(name, {"FN", "NOTE", "TITLE", "ROLE", "LABEL", "SORT-STRING", "PRODID", "CLASS", "MAILER",
                       "X-ABLABEL", "X-ABADR", "X-ABRELATEDNAMES", "X-PHONETIC-FIRST-NAME",
                       "X-PHONETIC-MIDDLE-NAME", "X-PHONETIC-LAST-NAME", "X-MAIDENNAME", "X-SPOUSE",
                       "X-ASSISTANT", "X-MANAGER"})) {
        return ValueKind::text;
    }
    return ValueKind::other;
}

} // namespace

VCardProperty VCardProperty::malformed(std::string line) {
    VCardProperty property;
    property.m_line = std::move(line);
    property.m_valueOffset = property.m_line.size();
    property.m_malformed = true;
    return property;
}

VCardProperty VCardProperty::parse(std::string line, VCardVersion version, std::string* problem) {
    const std::string_view text = line;
    std::size_t i = 0;
    while (i < text.size() && isNameChar(text[i])) {
        ++i;
    }
    std::size_t nameStart = 0;
    if (i < text.size() && text[i] == '.' && i > 0) {
        nameStart = i + 1;
        i = nameStart;
        while (i < text.size() && isNameChar(text[i])) {
            ++i;
        }
    }
    if (i == nameStart) {
        *problem = "no property name";
        return malformed(std::move(line));
    }
    if (i == text.size() || (text[i] != ';' && text[i] != ':')) {
        *problem = i == text.size() ? "no colon" : "unexpected character in property name";
        return malformed(std::move(line));
    }
    VCardProperty property;
    property.m_syntax = version;
    property.m_group = nameStart > 0 ? std::string(text.substr(0, nameStart - 1)) : std::string();
    property.m_name = std::string(text.substr(nameStart, i - nameStart));
    while (i < text.size() && text[i] == ';') {
        const std::size_t start = ++i;
        const auto [end, unbalancedQuote] = vcardlines::parameterEnd(text, start);
        if (end == std::string_view::npos) {
            *problem = "no colon";
            return malformed(std::move(line));
        }
        if (unbalancedQuote) {
            *problem = "unbalanced quote in parameters";
        }
        i = end;
        property.m_parameters.push_back(parseParameter(text.substr(start, i - start), version));
    }
    property.m_valueOffset = i + 1;
    property.m_line = std::move(line);
    return property;
}

VCardProperty VCardProperty::created(std::string_view group, std::string_view name, VCardVersion version) {
    VCardProperty property;
    property.m_syntax = version == VCardVersion::v2_1 ? VCardVersion::v3_0 : version;
    property.m_group = sanitisedName(group);
    property.m_name = sanitisedName(name);
    property.m_modified = true;
    property.rebuildHead();
    return property;
}

void VCardProperty::setSource(std::shared_ptr<const std::string> source, std::size_t begin, std::size_t end) {
    m_source = std::move(source);
    m_rawBegin = begin;
    m_rawEnd = end;
}

bool VCardProperty::is(std::string_view name) const {
    return !m_malformed && equalsIgnoringCase(m_name, name);
}

bool VCardProperty::isInGroup(std::string_view group) const {
    return !m_malformed && equalsIgnoringCase(m_group, group);
}

std::vector<std::string> VCardProperty::parameterValues(std::string_view name) const {
    std::vector<std::string> values;
    for (const VCardParameter& parameter : m_parameters) {
        if (equalsIgnoringCase(parameter.name, name)) {
            values.insert(values.end(), parameter.values.begin(), parameter.values.end());
        }
    }
    return values;
}

std::optional<std::string> VCardProperty::parameter(std::string_view name) const {
    bool found = false;
    std::string joined;
    for (const VCardParameter& parameter : m_parameters) {
        if (!equalsIgnoringCase(parameter.name, name)) {
            continue;
        }
        found = true;
        for (const std::string& value : parameter.values) {
            if (!joined.empty()) {
                joined.push_back(',');
            }
            joined += value;
        }
    }
    return found ? std::optional<std::string>(std::move(joined)) : std::nullopt;
}

bool VCardProperty::hasType(std::string_view type) const {
    for (const VCardParameter& parameter : m_parameters) {
        if (equalsIgnoringCase(parameter.name, "TYPE")) {
            for (const std::string& value : parameter.values) {
                if (equalsIgnoringCase(value, type)) {
                    return true;
                }
            }
        }
    }
    return false;
}

std::string_view VCardProperty::rawValue() const {
    return std::string_view(m_line).substr(std::min(m_valueOffset, m_line.size()));
}

std::string_view VCardProperty::head() const {
    return std::string_view(m_line).substr(0, m_valueOffset == 0 ? 0 : m_valueOffset - 1);
}

std::string_view VCardProperty::lineWithoutGroup() const {
    if (m_group.empty() || m_malformed) {
        return m_line;
    }
    return std::string_view(m_line).substr(m_group.size() + 1);
}

std::string_view VCardProperty::originalBytes() const {
    if (!m_source) {
        return {};
    }
    return std::string_view(*m_source).substr(m_rawBegin, m_rawEnd - m_rawBegin);
}

std::string VCardProperty::transferDecoded() const {
    const std::string_view value = rawValue();
    const auto encoding = parameter("ENCODING");
    std::string bytes = encoding && equalsIgnoringCase(*encoding, "QUOTED-PRINTABLE")
                            ? decodeQuotedPrintable(value)
                            : std::string(value);
    if (isValidUtf8(bytes) && bytes.find('\0') == std::string::npos) {
        return bytes;
    }
    // A CHARSET is meaningful in 2.1; in 3.0 and 4.0 the file is UTF-8, so a
    // stray CHARSET only helps when the bytes are not UTF-8 anyway.
    if (const auto charset = parameter("CHARSET")) {
        return convertToUtf8(bytes, *charset);
    }
    // 2.1 cards without CHARSET come from phones and Outlook, whose 8-bit
    // text is in the Windows code page far more often than anything else.
    if (m_syntax == VCardVersion::v2_1) {
        return convertToUtf8(bytes, "windows-1252");
    }
    return makeValidUtf8(bytes);
}

std::string VCardProperty::text() const {
    if (!m_embedded.empty()) {
        return makeValidUtf8(m_embedded);
    }
    return normaliseLineBreaks(unescapeVCardText(transferDecoded()));
}

std::vector<std::vector<std::string>> VCardProperty::components() const {
    auto fields = splitVCardStructured(transferDecoded(), m_syntax != VCardVersion::v2_1);
    for (auto& field : fields) {
        for (auto& component : field) {
            component = normaliseLineBreaks(std::move(component));
        }
    }
    return fields;
}

std::vector<std::string> VCardProperty::listValues() const {
    auto values = splitVCardList(transferDecoded());
    for (auto& value : values) {
        value = normaliseLineBreaks(std::move(value));
    }
    return values;
}

std::optional<VCardBinary> VCardProperty::binary() const {
    const auto encoding = parameter("ENCODING");
    if (encoding && isOneOf(*encoding, {"B", "BASE64"})) {
        auto bytes = base64Decode(rawValue());
        if (!bytes) {
            return std::nullopt;
        }
        VCardBinary binary{std::move(*bytes), {}};
        if (const auto mediaType = parameter("MEDIATYPE")) {
            binary.mediaType = mediaTypeFromImageType(*mediaType);
        }
        for (const std::string& type : parameterValues("TYPE")) {
            if (binary.mediaType.empty()) {
                binary.mediaType = mediaTypeFromImageType(type);
            }
        }
        return binary;
    }
    const std::string_view value = rawValue();
    if (value.size() < 5 || !equalsIgnoringCase(value.substr(0, 5), "data:")) {
        return std::nullopt;
    }
    // Some writers escape a data URI as if it were TEXT ("data:image/jpeg\;base64\,").
    if (value.find('\\') != std::string_view::npos) {
        return decodeDataUri(unescapeVCardText(value));
    }
    return decodeDataUri(value);
}

void VCardProperty::rebuildHead() {
    std::string line;
    if (!m_group.empty()) {
        line = m_group + ".";
    }
    line += m_name;
    for (const VCardParameter& parameter : m_parameters) {
        line.push_back(';');
        line += parameter.written;
    }
    line.push_back(':');
    const std::size_t valueOffset = line.size();
    line.append(rawValue());
    m_line = std::move(line);
    m_valueOffset = valueOffset;
}

void VCardProperty::setEncodedValue(std::string value) {
    m_line.resize(m_valueOffset);
    m_line += value;
    m_embedded.clear();
}

bool VCardProperty::prepareEdit() {
    if (m_malformed) {
        return false;
    }
    if (m_syntax == VCardVersion::v2_1) {
        upgradeFrom21();
    }
    m_modified = true;
    return true;
}

void VCardProperty::dropParameters(std::initializer_list<std::string_view> names) {
    const auto before = m_parameters.size();
    std::erase_if(m_parameters,
                  [&](const VCardParameter& parameter) { return isOneOf(parameter.name, names); });
    if (m_parameters.size() != before) {
        rebuildHead();
    }
}

void VCardProperty::setText(std::string_view text) {
    if (!prepareEdit()) {
        return;
    }
    dropParameters({"ENCODING", "CHARSET"});
    setEncodedValue(escapeVCardText(makeValidUtf8(text)));
}

void VCardProperty::setComponents(const std::vector<std::vector<std::string>>& fields) {
    if (!prepareEdit()) {
        return;
    }
    dropParameters({"ENCODING", "CHARSET"});
    std::vector<std::vector<std::string>> valid;
    valid.reserve(fields.size());
    for (const auto& field : fields) {
        std::vector<std::string> components;
        for (const auto& component : field) {
            components.push_back(makeValidUtf8(component));
        }
        valid.push_back(std::move(components));
    }
    setEncodedValue(joinVCardStructured(valid));
}

void VCardProperty::setComponents(const std::vector<std::string>& fields) {
    std::vector<std::vector<std::string>> nested;
    nested.reserve(fields.size());
    for (const auto& field : fields) {
        nested.push_back({field});
    }
    setComponents(nested);
}

void VCardProperty::setListValues(const std::vector<std::string>& values) {
    if (!prepareEdit()) {
        return;
    }
    dropParameters({"ENCODING", "CHARSET"});
    std::vector<std::string> valid;
    for (const auto& value : values) {
        valid.push_back(makeValidUtf8(value));
    }
    setEncodedValue(joinVCardList(valid));
}

void VCardProperty::setRawValue(std::string_view value) {
    if (!prepareEdit()) {
        return;
    }
    dropParameters({"ENCODING", "CHARSET"});
    setEncodedValue(withoutLineBreaks(makeValidUtf8(value)));
}

void VCardProperty::setBinary(std::span<const std::uint8_t> bytes, std::string_view mediaType) {
    if (!prepareEdit()) {
        return;
    }
    std::string media;
    for (char c : mediaType) {
        media.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
    }
    if (m_syntax == VCardVersion::v4_0) {
        dropParameters({"ENCODING", "CHARSET", "VALUE", "MEDIATYPE"});
        setEncodedValue("data:" + (media.empty() ? std::string("application/octet-stream") : media) +
                        ";base64," + base64Encode(bytes));
        return;
    }
    dropParameters({"CHARSET", "VALUE", "MEDIATYPE"});
    setParameter("ENCODING", {"b"});
    const std::size_t slash = media.find('/');
    std::string imageType = slash == std::string::npos ? std::string() : upper(media.substr(slash + 1));
    setParameter("TYPE",
                 imageType.empty() ? std::vector<std::string>{} : std::vector<std::string>{imageType});
    setEncodedValue(base64Encode(bytes));
}

void VCardProperty::setParameter(std::string_view name, const std::vector<std::string>& values) {
    if (!prepareEdit()) {
        return;
    }
    std::vector<std::string> kept;
    for (const std::string& value : values) {
        if (!value.empty()) {
            kept.push_back(value);
        }
    }
    const bool isType = equalsIgnoringCase(name, "TYPE");
    std::size_t firstMatch = m_parameters.size();
    std::size_t matches = 0;
    std::string spelling;
    for (std::size_t i = 0; i < m_parameters.size(); ++i) {
        const VCardParameter& parameter = m_parameters[i];
        if (!equalsIgnoringCase(parameter.name, name)) {
            continue;
        }
        firstMatch = std::min(firstMatch, i);
        ++matches;
        if (spelling.empty() && !parameter.nameless) {
            spelling = parameter.name;
        }
    }
    if (spelling.empty()) {
        spelling = isType ? m_typeSpelling : std::string(name);
    }
    const bool repeat = matches > 1 || (matches == 1 ? false : (isType && m_repeatTypes));

    std::vector<VCardParameter> replacement;
    if (!kept.empty()) {
        if (repeat) {
            for (const std::string& value : kept) {
                replacement.push_back(makeParameter(spelling, {value}));
            }
        } else {
            replacement.push_back(makeParameter(spelling, kept));
        }
    }
    std::vector<VCardParameter> parameters;
    parameters.reserve(m_parameters.size() + replacement.size());
    for (std::size_t i = 0; i < m_parameters.size(); ++i) {
        if (i == firstMatch) {
            parameters.insert(parameters.end(), replacement.begin(), replacement.end());
        }
        if (!equalsIgnoringCase(m_parameters[i].name, name)) {
            parameters.push_back(std::move(m_parameters[i]));
        }
    }
    if (firstMatch == m_parameters.size()) {
        parameters.insert(parameters.end(), replacement.begin(), replacement.end());
    }
    m_parameters = std::move(parameters);
    rebuildHead();
}

void VCardProperty::removeParameter(std::string_view name) {
    setParameter(name, {});
}

void VCardProperty::setGroup(std::string_view group) {
    if (!prepareEdit()) {
        return;
    }
    m_group = sanitisedName(group);
    rebuildHead();
}

void VCardProperty::rename(std::string_view name) {
    if (!prepareEdit()) {
        return;
    }
    m_name = sanitisedName(name);
    rebuildHead();
}

bool VCardProperty::needsUpgradeFrom21() const {
    if (m_malformed || m_syntax != VCardVersion::v2_1) {
        return false;
    }
    if (!m_embedded.empty() || !isValidUtf8(rawValue())) {
        return true;
    }
    // 2.1 has no component lists, so a comma in a structured value is text;
    // 3.0 reads it as a separator ("Paul,George" would become two middle
    // names). A backslash is kept as text by 2.1 but starts an escape in 3.0.
    // Both need the value re-escaped.
    if (valueKind(m_name) == ValueKind::structured &&
        rawValue().find_first_of(",\\") != std::string_view::npos) {
        return true;
    }
    return std::any_of(m_parameters.begin(), m_parameters.end(), [](const VCardParameter& parameter) {
        if (parameter.nameless || isOneOf(parameter.name, {"ENCODING", "CHARSET"})) {
            return true;
        }
        if (equalsIgnoringCase(parameter.name, "VALUE")) {
            return std::any_of(parameter.values.begin(), parameter.values.end(),
                               [](const std::string& value) {
                                   return isOneOf(value, {"URL", "CONTENT-ID", "CID", "INLINE"});
                               });
        }
        return false;
    });
}

void VCardProperty::upgradeFrom21() {
    if (m_malformed || m_syntax != VCardVersion::v2_1) {
        return;
    }
    const auto encoding = parameter("ENCODING");
    const bool base64 = encoding && isOneOf(*encoding, {"B", "BASE64"});
    std::string value;
    if (base64) {
        for (char c : rawValue()) {
            if (c != ' ' && c != '\t') {
                value.push_back(c);
            }
        }
    } else if (!m_embedded.empty()) {
        value = escapeVCardText(makeValidUtf8(m_embedded));
    } else {
        const std::string decoded = transferDecoded();
        switch (valueKind(m_name)) {
        case ValueKind::structured: {
            // 2.1 has no component lists: a comma is part of the text.
            std::vector<std::vector<std::string>> fields = splitVCardStructured(decoded, false);
            for (auto& field : fields) {
                for (auto& component : field) {
                    component = normaliseLineBreaks(std::move(component));
                }
            }
            value = joinVCardStructured(fields);
            break;
        }
        case ValueKind::list:
            value = joinVCardList(splitVCardList(decoded));
            break;
        case ValueKind::text:
            value = escapeVCardText(unescapeVCardText(decoded));
            break;
        case ValueKind::other:
            // Opaque to us: keep its text; only a line break needs a 3.0 form.
            for (std::size_t i = 0; i < decoded.size(); ++i) {
                if (decoded[i] == '\r' || decoded[i] == '\n') {
                    if (decoded[i] == '\r' && i + 1 < decoded.size() && decoded[i + 1] == '\n') {
                        ++i;
                    }
                    value += "\\n";
                } else {
                    value.push_back(decoded[i]);
                }
            }
            break;
        }
    }

    std::vector<VCardParameter> parameters;
    for (VCardParameter& parameter : m_parameters) {
        const std::string key = upper(parameter.name);
        const std::string_view spelling = parameter.nameless ? std::string_view(key) : parameter.name;
        if (key == "CHARSET") {
            continue;
        }
        if (key == "ENCODING") {
            if (base64) {
                parameters.push_back(makeParameter(spelling, {"b"}));
            }
            continue;
        }
        if (key == "VALUE") {
            std::vector<std::string> values;
            for (const std::string& v : parameter.values) {
                if (isOneOf(v, {"URL", "URI", "CONTENT-ID", "CID"})) {
                    values.emplace_back("uri");
                } else if (!equalsIgnoringCase(v, "INLINE")) {
                    values.push_back(v);
                }
            }
            if (!values.empty()) {
                parameters.push_back(makeParameter(spelling, values));
            }
            continue;
        }
        if (parameter.nameless) {
            if (!parameter.values.empty()) {
                parameters.push_back(makeParameter(m_typeSpelling, parameter.values));
            }
            continue;
        }
        parameters.push_back(std::move(parameter));
    }
    m_parameters = std::move(parameters);
    m_syntax = VCardVersion::v3_0;
    m_embedded.clear();
    m_modified = true;
    m_line.resize(m_valueOffset);
    m_line += value;
    rebuildHead();
}

VCardProperty VCardProperty::upgradedFrom21() const {
    VCardProperty copy = *this;
    copy.upgradeFrom21();
    return copy;
}

std::string VCardProperty::serialize(std::string_view lineEnding) const {
    if (!m_modified && m_source) {
        return std::string(originalBytes());
    }
    return foldVCardLine(m_line, lineEnding);
}

} // namespace kinbook
