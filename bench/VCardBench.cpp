// Throughput of the vCard reader and writer: a typical card, the whole set
// of real samples, and one card carrying a large photo.

#include "KinbookKit/vcard/VCard.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

const std::filesystem::path kSamples = std::filesystem::path(KINBOOK_TESTDATA_DIR) / "vcard-real";

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

std::vector<std::string> allSamples() {
    std::vector<std::string> samples;
    for (const auto& entry : std::filesystem::directory_iterator(kSamples)) {
        if (entry.path().extension() == ".vcf") {
            samples.push_back(readFile(entry.path()));
        }
    }
    return samples;
}

void reportBytes(benchmark::State& state, std::size_t bytesPerIteration) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(bytesPerIteration));
}

// An Apple-style card with labels, an address and a note, no photo.
void BM_ParseTypicalCard(benchmark::State& state) {
    const std::string bytes = readFile(kSamples / "apple-labels-via-sabredav--AllAttr.vcf");
    for (auto _ : state) {
        auto card = kinbook::VCard::parse(bytes);
        benchmark::DoNotOptimize(card);
    }
    reportBytes(state, bytes.size());
}
BENCHMARK(BM_ParseTypicalCard);

void BM_ParseAndDecodeTypicalCard(benchmark::State& state) {
    const std::string bytes = readFile(kSamples / "apple-labels-via-sabredav--AllAttr.vcf");
    for (auto _ : state) {
        auto card = kinbook::VCard::parse(bytes);
        for (const kinbook::VCardProperty* property : std::as_const(*card).properties()) {
            benchmark::DoNotOptimize(property->text());
            benchmark::DoNotOptimize(property->parameterValues("TYPE"));
        }
    }
    reportBytes(state, bytes.size());
}
BENCHMARK(BM_ParseAndDecodeTypicalCard);

void BM_ParseAllSamples(benchmark::State& state) {
    const std::vector<std::string> samples = allSamples();
    std::size_t total = 0;
    for (const std::string& sample : samples) {
        total += sample.size();
    }
    for (auto _ : state) {
        for (const std::string& sample : samples) {
            auto card = kinbook::VCard::parse(sample);
            benchmark::DoNotOptimize(card);
        }
    }
    reportBytes(state, total);
}
BENCHMARK(BM_ParseAllSamples);

void BM_EditOneLineAndSerialise(benchmark::State& state) {
    const std::string bytes = readFile(kSamples / "apple-ios5--John_Doe_IPHONE.vcf");
    for (auto _ : state) {
        auto card = kinbook::VCard::parse(bytes);
        card->first("TEL")->setText("+1 555 0100");
        benchmark::DoNotOptimize(card->serialize());
    }
    reportBytes(state, bytes.size());
}
BENCHMARK(BM_EditOneLineAndSerialise);

// An export of many cards split for import: linear in the file's size.
void BM_SplitLargeExport(benchmark::State& state) {
    const std::string card = readFile(kSamples / "apple-labels-via-sabredav--AllAttr.vcf");
    std::string bytes;
    for (int i = 0; i < state.range(0); ++i) {
        bytes += card;
    }
    for (auto _ : state) {
        auto cards = kinbook::VCard::parseAll(bytes);
        benchmark::DoNotOptimize(cards);
    }
    reportBytes(state, bytes.size());
}
BENCHMARK(BM_SplitLargeExport)->Arg(100)->Arg(2000)->Unit(benchmark::kMillisecond);

// A card whose photo makes it about 20 MB, as social-avatar features produce.
void BM_ParseLargePhotoCard(benchmark::State& state) {
    std::vector<std::uint8_t> image(15 << 20);
    std::uint32_t seed = 1;
    for (auto& byte : image) {
        seed = seed * 1664525u + 1013904223u;
        byte = static_cast<std::uint8_t>(seed >> 24);
    }
    kinbook::VCard source = kinbook::VCard::create();
    source.add("FN").setText("Large Photo");
    source.add("PHOTO").setBinary(image, "image/jpeg");
    const std::string bytes = source.serialize();
    for (auto _ : state) {
        auto card = kinbook::VCard::parse(bytes);
        benchmark::DoNotOptimize(card);
    }
    reportBytes(state, bytes.size());
}
BENCHMARK(BM_ParseLargePhotoCard)->Unit(benchmark::kMillisecond);

} // namespace
