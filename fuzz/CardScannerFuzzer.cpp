// The list's fast scan against the full parser, on arbitrary card bytes: a
// card from anyone is read by the scan on every start and by the parser when
// it is opened, and the two must see the same person (or both no card).
// Both field sets are compared: names only and the details.
//
//   build/fuzz/fuzz/CardScannerFuzzer -max_len=20000 -max_total_time=60 fuzz/corpus/CardScannerFuzzer

#include "KinbookKit/vcard/CardReader.h"
#include "KinbookKit/vcard/CardScanner.h"
#include "KinbookKit/vcard/VCard.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

using namespace kinbook;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const auto card = VCard::parse(bytes);
    for (const bool details : {false, true}) {
        bool scannedGroup = false;
        const auto scanned = scanPerson(bytes, "card.vcf", "acct", details, &scannedGroup);
        if (scanned.has_value() != card.ok()) {
            std::fprintf(stderr, "the scan %s a card the parser %s\n", scanned ? "found" : "missed",
                         card.ok() ? "reads" : "refuses");
            std::abort();
        }
        if (!card.ok()) {
            continue;
        }
        const Person parsed = readPerson(card.value(), cardIDOf(card.value(), "card.vcf"), "acct", details);
        if (*scanned != parsed || scannedGroup != isGroupCard(card.value())) {
            std::fprintf(stderr, "scanned:  %s\nparsed:   %s\n", scanned->toJSON().dump().c_str(),
                         parsed.toJSON().dump().c_str());
            std::abort();
        }
    }
    return 0;
}
