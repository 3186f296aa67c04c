// Reads arbitrary bytes as a card file and writes the unchanged document
// back, which must give the input exactly: a save of a card the user did not
// touch may not change a byte, whatever another program left in the file.
//
//   build/fuzz/fuzz/VCardRoundTripFuzzer -max_len=20000 -max_total_time=240 tests/data/vcard-real

#include "KinbookKit/vcard/VCard.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const auto card = kinbook::VCard::parse(bytes);
    if (card.ok() && card->serialize() != bytes) {
        std::abort();
    }
    return 0;
}
