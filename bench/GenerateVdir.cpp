// kinbook-gen-vdir ROOT --people N [--seed S] [--accounts K]
//
// Writes a synthetic, realistic address book (see VdirGenerator.h) for
// benchmarks and scale tests, and says how much it wrote and how long that
// took.

#include "bench/VdirGenerator.h"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include <chrono>
#include <string>

int main(int argc, char** argv) {
    CLI::App app{"Writes a synthetic vdir address book for benchmarks", "kinbook-gen-vdir"};
    std::string root;
    kinbook::VdirGeneratorOptions options;
    app.add_option("ROOT", root, "the vdir root to create (missing or empty)")->required();
    app.add_option("--people", options.people, "how many people")->required();
    app.add_option("--seed", options.seed, "the seed: the same seed writes the same bytes")
        ->capture_default_str();
    app.add_option("--accounts", options.accounts, "how many account folders")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000));
    CLI11_PARSE(app, argc, argv);

    const auto start = std::chrono::steady_clock::now();
    auto report = kinbook::VdirGenerator(options).write(root);
    const auto elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!report) {
        fmt::print(stderr, "kinbook-gen-vdir: {}\n", report.error());
        return 1;
    }
    fmt::print("{} people, {} linked, {} cards ({} groups) in {} accounts, {:.1f} MB in {:.2f} s\n",
               report->people, report->linkedPeople, report->cards, report->groupCards, report->accounts,
               static_cast<double>(report->bytes) / 1e6, elapsed);
    return 0;
}
