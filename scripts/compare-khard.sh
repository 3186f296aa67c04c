#!/usr/bin/env bash
# Compares the `kinbook` tool with khard on the same generated address books.
#
#   scripts/compare-khard.sh [BUILD_DIR]
#
# Settings from the environment:
#   SIZES="10000 100000"   people per generated vdir
#   RUNS=3                 runs per command; the median is printed
#   QUERY=smith            the search
#   WORK=/tmp/kinbook-bench    where the vdirs, khard's configuration and the
#                          tool's isolated cache live (reused between runs)
#
# khard is installed from Debian's packages for this comparison only. Every
# command runs once before it is measured, so the page cache is warm for
# both; kinbook's cache is then the one that run wrote. Peak memory is the
# maximum resident set size of the whole process.
set -euo pipefail
export LC_ALL=C

here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=scripts/measure.sh
source "$here/measure.sh"

build=${1:-build/release}
sizes=${SIZES:-10000 100000}
runs=${RUNS:-3}
query=${QUERY:-smith}
work=${WORK:-${TMPDIR:-/tmp}/kinbook-bench}
kinbook="$build/cli/kinbook"

for tool in "$kinbook" "$build/bench/kinbook-gen-vdir"; do
  if [ ! -x "$tool" ]; then
    echo "compare-khard: $tool is missing; build first (make build)" >&2
    exit 1
  fi
done
need_packages khard time
mkdir -p "$work"

# One khard address book per account folder of the vdir.
write_khard_config() {
  local root=$1 config=$2 account
  {
    echo "[addressbooks]"
    for account in "$root"/*/; do
      account=${account%/}
      echo "[[$(basename "$account")]]"
      echo "path = $account"
    done
    echo "[general]"
    echo "default_action = list"
    echo "[contact table]"
    echo "display = first_name"
    echo "sort = last_name"
    echo "[vcard]"
    echo "skip_unparsable = yes"
  } >"$config"
}

# Generated first, so that the table is not interrupted.
for size in $sizes; do
  ensure_vdir "$build" "$work" "$size" >/dev/null
done

printf '\n%-8s %-34s %10s %9s\n' "people" "command" "median s" "peak MB"
declare -A seconds memory
for size in $sizes; do
  root=$(ensure_vdir "$build" "$work" "$size")
  config="$work/khard-$size.conf"
  write_khard_config "$root" "$config"
  # shellcheck disable=SC2046
  environment=$(isolated_environment "$work/kinbook-bench-$size/tool-home")

  row() { # label key command...
    local label=$1 key=$2
    shift 2
    "$@" >/dev/null 2>&1 || true # warm-up; kinbook's writes its cache
    measure "$runs" "$@"
    seconds[$key]=$MEDIAN_SECONDS
    memory[$key]=$PEAK_MB
    printf '%-8s %-34s %10.3f %9s\n' "$size" "$label" "$MEDIAN_SECONDS" "$PEAK_MB"
  }
  # shellcheck disable=SC2086
  {
    row "khard list" khard_list khard -c "$config" list
    row "kinbook list" kinbook_list env $environment "$kinbook" --contacts "$root" list
    row "khard list $query" khard_query khard -c "$config" list "$query"
    row "khard list -f $query" khard_source khard -c "$config" list -f "$query"
    row "kinbook search $query (cache)" kinbook_search env $environment "$kinbook" --contacts "$root" search "$query"
    row "kinbook search $query (no cache)" kinbook_cold \
      env $environment "$kinbook" --contacts "$root" --no-cache search "$query"
  }
  echo
  echo "  at $size people, kinbook from its cache against khard:"
  echo "    list:                         $(ratio "${seconds[khard_list]}" "${seconds[kinbook_list]}") faster," \
    "$(ratio "${memory[khard_list]}" "${memory[kinbook_list]}") less memory"
  echo "    search vs khard list QUERY:   $(ratio "${seconds[khard_query]}" "${seconds[kinbook_search]}") faster," \
    "$(ratio "${memory[khard_query]}" "${memory[kinbook_search]}") less memory"
  echo "    search vs khard list -f:      $(ratio "${seconds[khard_source]}" "${seconds[kinbook_search]}") faster," \
    "$(ratio "${memory[khard_source]}" "${memory[kinbook_search]}") less memory"
  echo "    search without its cache vs khard list QUERY: $(ratio "${seconds[khard_query]}" "${seconds[kinbook_cold]}") faster"
  echo
done
