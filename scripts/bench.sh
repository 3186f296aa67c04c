#!/usr/bin/env bash
# Runs every benchmark executable of a build and prints its figures.
set -euo pipefail
build_dir=${1:-build/release}
for bench in "$build_dir"/bench/kinbook_*_bench; do
  echo "== $(basename "$bench")"
  "$bench" --benchmark_counters_tabular=true
done
