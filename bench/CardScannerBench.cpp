// The list's full read: the fast scan of a card's bytes into a raw Person
// against the full parse followed by readPerson, over the real samples and
// over one typical card without a photo.

#include "KinbookKit/vcard/CardReader.h"
#include "KinbookKit/vcard/CardScanner.h"
#include "KinbookKit/vcard/VCard.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

const std::filesystem::path kSamples = std::filesystem::path(KINBOOK_TESTDATA_DIR) / "vcard-real";

struct Card {
    std::string name;
    std::string bytes;
};

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

std::vector<Card> allSamples() {
    std::vector<Card> cards;
    for (const auto& entry : std::filesystem::directory_iterator(kSamples)) {
        if (entry.path().extension() == ".vcf") {
            cards.push_back({entry.path().filename().string(), readFile(entry.path())});
        }
    }
    return cards;
}

std::vector<Card> typicalCard() {
    const std::string name = "apple-labels-via-sabredav--AllAttr.vcf";
    return {{name, readFile(kSamples / name)}};
}

void report(benchmark::State& state, const std::vector<Card>& cards) {
    std::size_t bytes = 0;
    for (const auto& card : cards) {
        bytes += card.bytes.size();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(bytes));
    // Seconds per card, shown in microseconds by the console reporter's
    // scaling of an inverted rate.
    state.counters["per_card"] =
        benchmark::Counter(static_cast<double>(cards.size()),
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void scanAll(benchmark::State& state, const std::vector<Card>& cards) {
    for (auto _ : state) {
        for (const auto& card : cards) {
            bool isGroup = false;
            auto person = kinbook::scanPerson(card.bytes, card.name, "account", true, &isGroup);
            benchmark::DoNotOptimize(person);
        }
    }
    report(state, cards);
}

void parseAll(benchmark::State& state, const std::vector<Card>& cards) {
    for (auto _ : state) {
        for (const auto& card : cards) {
            auto parsed = kinbook::VCard::parse(card.bytes);
            if (parsed) {
                auto person = kinbook::readPerson(
                    parsed.value(), kinbook::cardIDOf(parsed.value(), card.name), "account", true);
                benchmark::DoNotOptimize(person);
            }
        }
    }
    report(state, cards);
}

void BM_ScanPersonSamples(benchmark::State& state) {
    scanAll(state, allSamples());
}
BENCHMARK(BM_ScanPersonSamples);

void BM_ParseAndReadPersonSamples(benchmark::State& state) {
    parseAll(state, allSamples());
}
BENCHMARK(BM_ParseAndReadPersonSamples);

void BM_ScanPersonTypicalCard(benchmark::State& state) {
    scanAll(state, typicalCard());
}
BENCHMARK(BM_ScanPersonTypicalCard);

void BM_ParseAndReadPersonTypicalCard(benchmark::State& state) {
    parseAll(state, typicalCard());
}
BENCHMARK(BM_ParseAndReadPersonTypicalCard);

} // namespace
