#!/usr/bin/env bash
# Kinbook's benchmark, one command (make bench):
#
#   scripts/bench.sh [BUILD_DIR]
#
# For each size it prints the people list's own figures (kinbook-bench-people)
# and the command-line tool's whole-process times, the median of several
# runs: `kinbook list` and `kinbook search QUERY`, cold (no snapshot cache)
# and from the cache a previous run wrote, with each one's peak memory.
#
# Settings from the environment:
#   SIZES="1000 10000 100000"  people per generated vdir (deterministic generator)
#   RUNS=5                     runs per command
#   QUERY=smith                the search
#   WORK=/tmp/kinbook-bench    where the generated vdirs and the tool's
#                              isolated cache and state live (reused)
#   MICRO=1                    also run the microbenchmarks (text folding,
#                              LZFSE, vCard parsing, card scanning, change scan)
set -euo pipefail
export LC_ALL=C

here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=scripts/measure.sh
source "$here/measure.sh"

build=${1:-build/release}
sizes=${SIZES:-1000 10000 100000}
runs=${RUNS:-5}
query=${QUERY:-smith}
work=${WORK:-${TMPDIR:-/tmp}/kinbook-bench}
kinbook="$build/cli/kinbook"
people_bench="$build/bench/kinbook-bench-people"

for tool in "$kinbook" "$build/bench/kinbook-gen-vdir"; do
  if [ ! -x "$tool" ]; then
    echo "bench: $tool is missing; build first (make build)" >&2
    exit 1
  fi
done
need_packages time
mkdir -p "$work"

for size in $sizes; do
  root=$(ensure_vdir "$build" "$work" "$size")
  echo
  echo "=== $size people ($(find "$root" -name '*.vcf' | wc -l) card files)"

  if [ -x "$people_bench" ]; then
    echo "--- the people list"
    "$people_bench" --folder "$root"
  else
    echo "--- the people list: $people_bench is not built"
  fi

  echo "--- the command-line tool, whole process, median of $runs runs"
  # shellcheck disable=SC2046
  environment=$(isolated_environment "$work/home-$size")
  printf '%-34s %10s %9s\n' "command" "median s" "peak MB"
  row() { # label command...
    local label=$1
    shift
    measure "$runs" "$@"
    printf '%-34s %10.3f %9s\n' "$label" "$MEDIAN_SECONDS" "$PEAK_MB"
  }
  # shellcheck disable=SC2086
  {
    run=(env $environment "$kinbook" --contacts "$root")
    "${run[@]}" --no-cache list >/dev/null # warm the page cache
    row "list, cold (--no-cache)" "${run[@]}" --no-cache list
    row "search $query, cold (--no-cache)" "${run[@]}" --no-cache search "$query"
    "${run[@]}" list >/dev/null # writes the cache
    row "list, from the cache" "${run[@]}" list
    row "search $query, from the cache" "${run[@]}" search "$query"
    row "list --json, from the cache" "${run[@]}" --json list
  }
done

if [ "${MICRO:-0}" = 1 ]; then
  for bench in "$build"/bench/kinbook_*_bench; do
    echo
    echo "== $(basename "$bench")"
    "$bench" --benchmark_counters_tabular=true
  done
fi
