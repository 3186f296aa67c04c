#!/usr/bin/env bash
# Kinbook's benchmark, one command (make bench):
#
#   scripts/bench.sh [BUILD_DIR]
#
# For each size of generated address book it prints the people list's own
# figures (kinbook-bench-people), then the command-line tool's whole-process
# times, the median of several runs, with peak memory: `kinbook list` and
# `kinbook search QUERY`, cold (no snapshot cache: the full read) and from
# the cache a previous run wrote, and `kinbook --json list` from the cache.
#
# Settings from the environment:
#   SIZES="1000 10000 100000"  people per generated vdir (deterministic generator)
#   RUNS=5                     runs per command
#   QUERY=smith                the search
#   WORK=/tmp/kinbook-bench    where the generated vdirs and the tool's
#                              isolated cache and state live (reused)
#   MICRO=1                    also run the microbenchmarks (text folding,
#                              LZFSE, vCard parsing, card scanning, change
#                              scan, the people list's sort orders, search
#                              keystrokes and snapshot cache)
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
  ensure_vdir "$build" "$work" "$size" >/dev/null
done

echo
echo "=== The people list"
if [ -x "$people_bench" ]; then
  "$people_bench" --sizes "$(echo $sizes | tr ' ' ',')" --folder "$work"
else
  echo "$people_bench is not built"
fi

echo
echo "=== The command-line tool, whole process: median seconds of $runs runs / peak MB"
labels=("list, cold (--no-cache)" "search $query, cold (--no-cache)" "list, from the cache"
  "search $query, from the cache" "--json list, from the cache")
declare -A cells
for size in $sizes; do
  root=$(ensure_vdir "$build" "$work" "$size")
  # shellcheck disable=SC2046
  environment=$(isolated_environment "$work/kinbook-bench-$size/tool-home")
  # shellcheck disable=SC2086
  run=(env $environment "$kinbook" --contacts "$root")
  cell() { # row command...
    local row=$1
    shift
    measure "$runs" "$@"
    cells[$row,$size]=$(printf '%.3f / %s' "$MEDIAN_SECONDS" "$PEAK_MB")
  }
  "${run[@]}" --no-cache list >/dev/null # warms the page cache
  cell 0 "${run[@]}" --no-cache list
  cell 1 "${run[@]}" --no-cache search "$query"
  "${run[@]}" list >/dev/null # writes the cache
  cell 2 "${run[@]}" list
  cell 3 "${run[@]}" search "$query"
  cell 4 "${run[@]}" --json list
done
printf '%-34s' "people"
for size in $sizes; do
  printf ' %16s' "$size"
done
echo
for row in "${!labels[@]}"; do
  printf '%-34s' "${labels[$row]}"
  for size in $sizes; do
    printf ' %16s' "${cells[$row,$size]}"
  done
  echo
done

if [ "${MICRO:-0}" = 1 ]; then
  for bench in "$build"/bench/kinbook_*_bench; do
    echo
    echo "== $(basename "$bench")"
    "$bench" --benchmark_counters_tabular=true
  done
fi
