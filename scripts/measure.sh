# Shared by scripts/bench.sh and scripts/compare-khard.sh (sourced, not run):
# whole-process timing of a command, the median of several runs, with the
# peak memory of the largest run.

# A vdir of `people` people under $work, made once with the deterministic
# generator (the same seed always writes the same cards) and kept for later
# runs. The layout is kinbook-bench-people's, so both use the same folders.
#   ensure_vdir BUILD_DIR WORK_DIR PEOPLE  -> prints the root
ensure_vdir() {
  local build=$1 work=$2 people=$3
  local root="$work/kinbook-bench-$people/vdir"
  if [ ! -f "$root/.complete" ]; then
    rm -rf "$root"
    mkdir -p "$(dirname "$root")"
    "$build/bench/kinbook-gen-vdir" "$root" --people "$people" --seed 1 --accounts 4 >&2
    touch "$root/.complete"
  fi
  echo "$root"
}

# Runs a command `runs` times with its output thrown away, and sets
#   MEDIAN_SECONDS  the median wall-clock time
#   PEAK_MB         the largest maximum resident set size of the runs
# A run that fails ends the script with its error output.
#   measure RUNS command args...
measure() {
  local runs=$1
  shift
  local times=() peak_kb=0 i
  local stats
  stats=$(mktemp)
  for ((i = 0; i < runs; i++)); do
    # Wall time from the shell's microsecond clock (time's own has only
    # hundredths); the peak memory from time.
    local start=$EPOCHREALTIME
    if ! /usr/bin/time -f '%M' -o "$stats" "$@" >/dev/null 2>"$stats.err"; then
      echo "measure: '$*' failed:" >&2
      cat "$stats.err" "$stats" >&2
      rm -f "$stats" "$stats.err"
      exit 1
    fi
    local end=$EPOCHREALTIME kb
    read -r kb <"$stats"
    times+=("$(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.4f", b - a }')")
    if ((kb > peak_kb)); then
      peak_kb=$kb
    fi
  done
  rm -f "$stats" "$stats.err"
  MEDIAN_SECONDS=$(printf '%s\n' "${times[@]}" | sort -g | awk '{ v[NR] = $1 } END {
    if (NR % 2) print v[(NR + 1) / 2]; else printf "%.4f\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }')
  PEAK_MB=$((peak_kb / 1024))
}

# An isolated home for the tool, so that measuring never touches the user's
# configuration, cache or state: prints the environment assignments to pass
# through `env`.
#   isolated_environment FOLDER
isolated_environment() {
  local home=$1
  mkdir -p "$home/config" "$home/data" "$home/state" "$home/cache"
  echo "HOME=$home XDG_CONFIG_HOME=$home/config XDG_DATA_HOME=$home/data XDG_STATE_HOME=$home/state XDG_CACHE_HOME=$home/cache"
}

# Installs Debian packages that are missing (with sudo when not root).
#   need_packages PACKAGE...
need_packages() {
  local missing=() package
  for package in "$@"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
      missing+=("$package")
    fi
  done
  if [ ${#missing[@]} -eq 0 ]; then
    return
  fi
  local sudo=""
  if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
  fi
  echo "installing ${missing[*]}" >&2
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}" >&2 ||
    { $sudo apt-get update -q >&2 && DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q \
      --no-install-recommends "${missing[@]}" >&2; }
}

# "12.3×": how many times `slow` takes as long as `fast`.
ratio() {
  awk -v slow="$1" -v fast="$2" 'BEGIN { if (fast <= 0) fast = 0.005; printf "%.1f×", slow / fast }'
}
