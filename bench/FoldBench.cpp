// Throughput of the text folding behind every search and sort key.

#include "KinbookKit/text/Fold.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

namespace {

std::string repeatToSize(const std::string& sample, std::size_t size) {
    std::string out;
    while (out.size() < size) {
        out += sample;
    }
    return out;
}

void reportBytes(benchmark::State& state, std::size_t bytesPerIteration) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(bytesPerIteration));
}

void BM_FoldAscii(benchmark::State& state) {
    const std::string text =
        repeatToSize("Jane Appleseed\nAcme Corporation\njane.appleseed@example.com\nSan Francisco "
                     "CA 94110\nSoftware Engineer\n",
                     static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(kinbook::fold(text));
    }
    reportBytes(state, text.size());
}
BENCHMARK(BM_FoldAscii)->Arg(64)->Arg(64 << 10);

void BM_FoldMixedScript(benchmark::State& state) {
    const std::string text =
        repeatToSize("Émile Zola · Søren Kierkegaard · Straße 12 · Łódź · ПЁТР Чайковский · "
                     "Αλέξανδρος · 山田太郎 · 김민준 · Nguyễn Văn An · مرحبا\n",
                     static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(kinbook::fold(text));
    }
    reportBytes(state, text.size());
}
BENCHMARK(BM_FoldMixedScript)->Arg(64)->Arg(64 << 10);

} // namespace
