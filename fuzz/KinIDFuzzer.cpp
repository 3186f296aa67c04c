// Reads arbitrary text as a card's anchor URL, a dropped text and a web
// address, as any card from a stranger may hold them. An anchor that reads
// must read back the same from the URL it writes; percent-encoding must give
// every valid text back; the link readers must never fail on any text.
//
//   build/fuzz/fuzz/KinIDFuzzer -max_total_time=60 fuzz/corpus/KinIDFuzzer

#include "KinbookKit/records/KinID.h"
#include "KinbookKit/records/LinkService.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

using namespace kinbook;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::vector<std::string> urls{text};

    if (const auto anchor = KinID::Anchor::read(urls)) {
        const std::vector<std::string> written{anchor->url()};
        const auto again = KinID::Anchor::read(written);
        if (!again || *again != *anchor || KinID::readID(written) != anchor->id) {
            std::abort();
        }
    }
    if (const auto decoded = percentDecode(text)) {
        if (percentDecode(percentEncodeQueryComponent(*decoded)) != *decoded) {
            std::abort();
        }
    }
    (void)KinID::personIDsFromDrop(urls);

    // The link readers: a split at the first line break gives a service name
    // and a handle or address.
    const auto newline = text.find('\n');
    const std::string_view first = std::string_view(text).substr(0, newline);
    const std::string_view second =
        newline == std::string::npos ? std::string_view{} : std::string_view(text).substr(newline + 1);
    if (const auto link = linkFromSocialProfile("e", first, second, second)) {
        (void)webURL(*link);
        (void)appURL(*link);
        (void)socialProfileURL(*link);
    }
    (void)linkFromMessagingAddress("e", first, second);
    (void)linkFromWebAddress("e", text);
    (void)phoneForLink(text);
    for (const LinkService service : allLinkServices()) {
        const LinkedAccount link{.id = "e", .service = service, .handle = cleanHandle(text, service)};
        (void)webURL(link);
        (void)appURL(link);
    }
    return 0;
}
