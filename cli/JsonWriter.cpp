#include "cli/JsonWriter.h"

#include <array>
#include <charconv>
#include <vector>

namespace kinbook::cli {

void writeSectionsJson(std::FILE* stream, std::span<const Section> sections, int matchCount) {
    std::string out = "{\"matchCount\":" + std::to_string(matchCount) + ",\"sections\":[";
    // Written in pieces of about a megabyte, so memory stays flat however
    // long the list.
    constexpr std::size_t kChunk = 1 << 20;
    auto flushIfFull = [&] {
        if (out.size() >= kChunk) {
            std::fwrite(out.data(), 1, out.size(), stream);
            out.clear();
        }
    };
    for (std::size_t s = 0; s < sections.size(); ++s) {
        out += s == 0 ? "\n{\"letter\":" : ",\n{\"letter\":";
        appendJsonString(out, sections[s].letter, InvalidUTF8::replace);
        out += ",\"people\":[";
        const auto& people = sections[s].people;
        for (std::size_t p = 0; p < people.size(); ++p) {
            out += p == 0 ? "\n" : ",\n";
            appendPersonJson(out, *people[p], InvalidUTF8::replace);
            flushIfFull();
        }
        out += "]}";
    }
    out += "]}\n";
    std::fwrite(out.data(), 1, out.size(), stream);
}

} // namespace kinbook::cli
