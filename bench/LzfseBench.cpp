// Throughput and compression ratio of the LZFSE codec behind Trash files, on
// the reference vectors, with the reference encoder's ratio beside ours.

#include "KinbookKit/text/Lzfse.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

std::vector<std::uint8_t> readVector(const std::string& name) {
    std::ifstream file(std::string(KINBOOK_TESTDATA_DIR "/lzfse/") + name, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

const char* const vectorNames[] = {"contacts-json-3k", "text-4096", "text-10k", "repetitive-200k",
                                   "mixed-1m"};

void setRatios(benchmark::State& state, const std::vector<std::uint8_t>& input, std::size_t ours,
               std::size_t reference) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(input.size()));
    state.counters["ratio"] = static_cast<double>(input.size()) / static_cast<double>(ours);
    state.counters["refRatio"] = static_cast<double>(input.size()) / static_cast<double>(reference);
}

void BM_LzfseCompress(benchmark::State& state) {
    const std::string name = vectorNames[state.range(0)];
    const auto input = readVector(name + ".bin");
    const auto reference = readVector(name + ".lzfse");
    state.SetLabel(name);
    std::size_t compressedSize = 0;
    for (auto _ : state) {
        const auto compressed = kinbook::lzfseCompress(input);
        compressedSize = compressed.size();
        benchmark::DoNotOptimize(compressed.data());
    }
    setRatios(state, input, compressedSize, reference.size());
}

void BM_LzfseDecompress(benchmark::State& state) {
    const std::string name = vectorNames[state.range(0)];
    const auto input = readVector(name + ".bin");
    const auto reference = readVector(name + ".lzfse");
    const auto compressed = kinbook::lzfseCompress(input);
    state.SetLabel(name);
    for (auto _ : state) {
        auto result = kinbook::lzfseDecompress(compressed, input.size());
        if (!result.ok() || result->size() != input.size()) {
            state.SkipWithError("round trip failed");
            break;
        }
        benchmark::DoNotOptimize(result->data());
    }
    setRatios(state, input, compressed.size(), reference.size());
}

// Decoding the reference encoder's own streams, which cross block boundaries.
void BM_LzfseDecompressReference(benchmark::State& state) {
    const std::string name = vectorNames[state.range(0)];
    const auto input = readVector(name + ".bin");
    const auto reference = readVector(name + ".lzfse");
    state.SetLabel(name);
    for (auto _ : state) {
        auto result = kinbook::lzfseDecompress(reference, input.size());
        if (!result.ok()) {
            state.SkipWithError("reference stream failed to decode");
            break;
        }
        benchmark::DoNotOptimize(result->data());
    }
    setRatios(state, input, reference.size(), reference.size());
}

BENCHMARK(BM_LzfseCompress)->DenseRange(0, 4);
BENCHMARK(BM_LzfseDecompress)->DenseRange(0, 4);
BENCHMARK(BM_LzfseDecompressReference)->DenseRange(0, 4);

} // namespace
