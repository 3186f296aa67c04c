// Feeds arbitrary text to the pasted-address recogniser, as a paste into the
// address editor's street field could be anything. It must never fail on any
// text, and an address it finds must be stable: its street, split again,
// stays as it is, and every part it fills is valid UTF-8 when the text was.
//
//   build/fuzz/fuzz/AddressParserFuzzer -max_total_time=60 fuzz/corpus/AddressParserFuzzer

#include "KinbookKit/text/AddressParser.h"
#include "KinbookKit/vcard/VCardValue.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const std::string split = kinbook::AddressParser::splitUnit(text);
    if (kinbook::AddressParser::splitUnit(split) != split) {
        std::abort();
    }
    const auto parsed = kinbook::AddressParser::parse(text);
    if (!parsed) {
        return 0;
    }
    if (parsed->city.empty() && parsed->state.empty() && parsed->postalCode.empty()) {
        std::abort();
    }
    if (kinbook::isValidUtf8(text)) {
        for (const auto* part :
             {&parsed->street, &parsed->city, &parsed->state, &parsed->postalCode, &parsed->country}) {
            if (!kinbook::isValidUtf8(*part)) {
                std::abort();
            }
        }
    }
    return 0;
}
