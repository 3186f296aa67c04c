#!/usr/bin/env bash
# Runs every fuzz target of a fuzz build for a while each:
#   fuzz/run.sh BUILD_DIR SECONDS [TARGET...]
# Each target starts from its seeds in fuzz/corpus/<target> and keeps what it
# learns in BUILD_DIR/corpus/<target>, so the committed seeds stay small and
# a later run goes on from where the last one stopped. A crash leaves its
# input in BUILD_DIR/crashes/<target>/ and makes the run fail; the input then
# belongs in a regression test of the normal suites.
set -uo pipefail
cd "$(dirname "$0")/.."
build=$1
seconds=$2
shift 2
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  mapfile -t targets < "$build/fuzz/fuzzers.txt"
fi

failed=()
for target in "${targets[@]}"; do
  corpus="$build/corpus/$target"
  crashes="$build/crashes/$target"
  mkdir -p "$corpus" "$crashes"
  echo "fuzz: $target for ${seconds}s"
  if ! "$build/fuzz/$target" "$corpus" "fuzz/corpus/$target" -max_total_time="$seconds" -timeout=30 \
    -rss_limit_mb=2048 -max_len=16384 -print_final_stats=1 -artifact_prefix="$crashes/" \
    > "$build/$target.log" 2>&1; then
    failed+=("$target")
    tail -n 40 "$build/$target.log"
  fi
  grep -E "^stat::number_of_executed_units|^Done " "$build/$target.log" | sed "s/^/  /"
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: crashes in ${failed[*]} (inputs in $build/crashes)"
  exit 1
fi
echo "fuzz: no crash in ${#targets[@]} targets"
