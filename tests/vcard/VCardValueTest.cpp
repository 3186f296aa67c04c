#include "KinbookKit/vcard/VCardValue.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kinbook {
namespace {

TEST(VCardValue, TextEscapingRoundTripsEverySpecialCharacter) {
    const std::string text = "a\\b,c;d\ne\r\nf:g\"h";
    const std::string escaped = escapeVCardText(text);
    EXPECT_EQ(escaped, "a\\\\b\\,c\\;d\\ne\\nf:g\"h");
    EXPECT_EQ(unescapeVCardText(escaped), "a\\b,c;d\ne\nf:g\"h");
}

TEST(VCardValue, UnescapingAcceptsWhatWritersProduceBeyondTheStandard) {
    struct Case {
        const char* value;
        const char* text;
    };
    const Case cases[] = {
        {"line\\Nbreak", "line\nbreak"}, // upper-case N
        {"http\\://example.com", "http://example.com"},
        {"\\\"quoted\\\"", "\"quoted\""},
        {"ends with \\", "ends with \\"},
        {"\\\\n", "\\n"}, // an escaped backslash followed by n is not a newline
    };
    for (const Case& c : cases) {
        EXPECT_EQ(unescapeVCardText(c.value), c.text) << c.value;
    }
}

TEST(VCardValue, StructuredAndListValuesSplitOnlyOnUnescapedSeparators) {
    const auto fields = splitVCardStructured("Doe;John;Richter,James;Mr\\.;Sr\\;\\,x");
    ASSERT_EQ(fields.size(), 5u);
    EXPECT_EQ(fields[2], (std::vector<std::string>{"Richter", "James"}));
    EXPECT_EQ(fields[3], (std::vector<std::string>{"Mr."}));
    EXPECT_EQ(fields[4], (std::vector<std::string>{"Sr;,x"}));

    EXPECT_EQ(splitVCardStructured("a,b;c", false)[0], (std::vector<std::string>{"a,b"}));
    EXPECT_EQ(splitVCardStructured("").size(), 1u);
    EXPECT_EQ(splitVCardStructured(";;;;;;").size(), 7u);
    // A backslash at the very end must not swallow anything that is not there.
    EXPECT_EQ(splitVCardStructured("a;b\\")[1], (std::vector<std::string>{"b\\"}));

    const std::vector<std::vector<std::string>> original{{"Doe"}, {"Jo;hn"}, {"A,B", "C"}, {}, {"x\ny"}};
    EXPECT_EQ(splitVCardStructured(joinVCardStructured(original))[2], (std::vector<std::string>{"A,B", "C"}));
    EXPECT_EQ(joinVCardStructured(original), "Doe;Jo\\;hn;A\\,B,C;;x\\ny");

    const std::vector<std::string> values{"Friends", "Work, old", "a;b"};
    EXPECT_EQ(joinVCardList(values), "Friends,Work\\, old,a\\;b");
    EXPECT_EQ(splitVCardList(joinVCardList(values)), values);
}

TEST(VCardValue, QuotedPrintableDecodesBytesAndKeepsStrayEquals) {
    EXPECT_EQ(decodeQuotedPrintable("=C3=91=20a=3d"), "\xC3\x91 a=");
    EXPECT_EQ(decodeQuotedPrintable("1+1=2 and =ZZ and ="), "1+1=2 and =ZZ and =");
    EXPECT_EQ(decodeQuotedPrintable("=0D=0A"), "\r\n");
}

TEST(VCardValue, LegacyCharsetsConvertToUtf8) {
    EXPECT_EQ(convertToUtf8("M\xFCller", "iso-8859-1"), "M\xC3\xBC"
                                                        "ller");
    EXPECT_EQ(convertToUtf8("\x80", "windows-1252"), "\xE2\x82\xAC");
    // UTF-8 and unknown charsets validate instead.
    EXPECT_EQ(convertToUtf8("ok\xFF", "UTF-8"), "ok\xEF\xBF\xBD");
    EXPECT_EQ(convertToUtf8("ok\xFF", "X-NO-SUCH-CHARSET"), "ok\xEF\xBF\xBD");
}

TEST(VCardValue, InvalidUtf8IsReplacedNeverPassedOn) {
    struct Case {
        std::string bytes;
        std::string valid;
    };
    const std::string r = "\xEF\xBF\xBD";
    const std::vector<Case> cases = {
        {"plain", "plain"},
        {"\xC3\xA9", "\xC3\xA9"},
        {"\xC3", r},                         // truncated
        {"\xC0\xAF", r + r},                 // overlong
        {"\xED\xA0\x80", r + r + r},         // surrogate
        {"\xF4\x90\x80\x80", r + r + r + r}, // above U+10FFFF
        {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
        {std::string("a\0b", 3), "a" + r + "b"}, // NUL
    };
    for (const Case& c : cases) {
        EXPECT_EQ(makeValidUtf8(c.bytes), c.valid);
        EXPECT_TRUE(isValidUtf8(makeValidUtf8(c.bytes)));
    }
    EXPECT_FALSE(isValidUtf8("\xC3"));
}

// Quoted only when needed, with caret escapes for what a quote can't hold;
// what is written reads back as it was.
TEST(VCardValue, ParameterValuesAreQuotedOnlyWhenNeededAndReadBack) {
    EXPECT_EQ(decodeVCardParameterValue("\"a^nb^'c^^d\"", true), "a\nb\"c^d");
    EXPECT_EQ(decodeVCardParameterValue("\"a^nb\"", false), "a^nb");
    EXPECT_EQ(decodeVCardParameterValue("\"unterminated", true), "unterminated");
    EXPECT_EQ(decodeVCardParameterValue("^x^", true), "^x^"); // not an escape

    EXPECT_EQ(encodeVCardParameterValue("Custom Chat"), "Custom Chat");
    EXPECT_EQ(encodeVCardParameterValue("Mike's IM, custom:"), "\"Mike's IM, custom:\"");
    EXPECT_EQ(encodeVCardParameterValue("say \"hi\"\n^"), "\"say ^'hi^'^n^^\"");
    EXPECT_EQ(encodeVCardParameterValue(std::string("a\0b\x01", 4)), "ab");
    EXPECT_EQ(encodeVCardParameterValue("line\r\nbreak"), encodeVCardParameterValue("line\nbreak"));
    for (const char* value : {"x;y", "line\nbreak", "^'", "plain"}) {
        EXPECT_EQ(decodeVCardParameterValue(encodeVCardParameterValue(value), true), value) << value;
    }
}

TEST(VCardValue, DataUrisDecodeBase64AndPercentForms) {
    const auto jpeg = decodeDataUri("data:image/JPEG;base64,/9j/4A==");
    ASSERT_TRUE(jpeg.has_value());
    EXPECT_EQ(jpeg->mediaType, "image/jpeg");
    EXPECT_EQ(jpeg->bytes, (std::vector<std::uint8_t>{0xFF, 0xD8, 0xFF, 0xE0}));

    const auto text = decodeDataUri("DATA:text/plain;charset=utf-8,a%20b%2");
    ASSERT_TRUE(text.has_value());
    EXPECT_EQ(text->mediaType, "text/plain");
    EXPECT_EQ(std::string(text->bytes.begin(), text->bytes.end()), "a b%2");

    EXPECT_FALSE(decodeDataUri("https://example.com/a.jpg").has_value());
    EXPECT_FALSE(decodeDataUri("data:image/jpeg;base64").has_value());
    EXPECT_FALSE(decodeDataUri("data:image/jpeg;base64,@@@").has_value());
}

TEST(VCardValue, ImageTypesNameMediaTypes) {
    EXPECT_EQ(mediaTypeFromImageType("JPEG"), "image/jpeg");
    EXPECT_EQ(mediaTypeFromImageType("image/PNG"), "image/png");
    EXPECT_EQ(mediaTypeFromImageType("HOME"), "");
}

TEST(VCardValue, FoldingKeepsLinesShortAndCharactersWhole) {
    // 30 two-byte letters after a 50-octet prefix: most cut points fall
    // inside a character.
    std::string line = "NOTE:" + std::string(45, 'x');
    for (int i = 0; i < 60; ++i) {
        line += "\xD0\x96";
    }
    const std::string folded = foldVCardLine(line, "\r\n");
    std::string unfolded;
    std::size_t pos = 0;
    bool firstLine = true;
    while (pos < folded.size()) {
        const std::size_t end = folded.find("\r\n", pos);
        ASSERT_NE(end, std::string::npos);
        std::string physical = folded.substr(pos, end - pos);
        EXPECT_LE(physical.size(), 75u);
        EXPECT_TRUE(isValidUtf8(firstLine ? physical : physical.substr(1))) << physical;
        if (!firstLine) {
            ASSERT_EQ(physical[0], ' ');
            EXPECT_GT(physical.size(), 1u); // never a line that is only the marker
            physical.erase(0, 1);
        }
        unfolded += physical;
        firstLine = false;
        pos = end + 2;
    }
    EXPECT_EQ(unfolded, line);

    EXPECT_EQ(foldVCardLine(std::string(75, 'a'), "\n"), std::string(75, 'a') + "\n");
    EXPECT_EQ(foldVCardLine(std::string(76, 'a'), "\n"), std::string(75, 'a') + "\n a\n");
}

} // namespace
} // namespace kinbook
