#!/usr/bin/env bash
# How smooth the window stays on a large address book, measured by its own
# main-thread watcher ("main thread stalled N ms (…)" in the app log, for
# every wait of 100 ms or more):
#
#   scripts/measure-app.sh [BUILD_DIR]
#
# Under a virtual X server it opens Vellumary Contacts on a generated vdir
# three times: a first launch that reads the whole book and writes the
# snapshot cache, a second that opens to the cached list, and a third in
# which it types a name into the search field letter by letter and scrolls
# the list a few hundred rows at a time. It prints the launch times from the
# log and every stall line of each run.
#
# Settings from the environment:
#   PEOPLE=100000            people in the generated vdir
#   QUERY=smith              what is typed
#   WORK=/tmp/kinbook-bench  where the vdirs and the app's isolated home live
set -euo pipefail
export LC_ALL=C

here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=scripts/measure.sh
source "$here/measure.sh"

build=${1:-build/release}
people=${PEOPLE:-100000}
query=${QUERY:-smith}
work=${WORK:-${TMPDIR:-/tmp}/kinbook-bench}
app="$build/Kinbook/vellumary-contacts"

if [ ! -x "$app" ]; then
  echo "measure-app: $app is missing; build first (make build)" >&2
  exit 1
fi
need_packages xvfb xauth xdotool
vdir=$(ensure_vdir "$build" "$work" "$people")
home="$work/app-home-$people"
rm -rf "$home"
# shellcheck disable=SC2046
export $(isolated_environment "$home")
log="$home/state/kinbook/app.log"

# One launch that quits by itself once the list has loaded.
launch() {
  timeout 600 xvfb-run -a -s "-screen 0 1400x900x24" \
    "$app" --contacts "$vdir" -KinScreenshot "$home/shot.png" >/dev/null 2>&1
}

# One launch driven by keystrokes: search, then scroll, then quit.
type_and_scroll() {
  xvfb-run -a -s "-screen 0 1400x900x24" bash -c '
    "$0" --contacts "$1" & app=$!
    for _ in $(seq 1 100); do
      window=$(xdotool search --sync --onlyvisible --name "People" 2>/dev/null | head -1) && break
      sleep 0.2
    done
    sleep 3 # the cached list is shown and the refresh is done
    xdotool windowactivate --sync "$window" 2>/dev/null || xdotool windowfocus --sync "$window"
    xdotool key --window "$window" ctrl+f
    xdotool type --window "$window" --delay 250 "$2"
    sleep 1
    xdotool key --window "$window" ctrl+a BackSpace
    sleep 1
    xdotool key --window "$window" Tab
    for _ in $(seq 1 40); do xdotool key --window "$window" Next; sleep 0.05; done
    for _ in $(seq 1 40); do xdotool key --window "$window" Prior; sleep 0.05; done
    sleep 1
    kill "$app"; wait "$app" || true
  ' "$app" "$vdir" "$query" >/dev/null 2>&1
}

report() {
  local title=$1 from=$2
  echo "== $title"
  tail -n +"$from" "$log" | grep -E "launch|cache:|fetch:|apply:|search \"|main thread stalled" |
    sed -E 's/^[^ ]+ //' || true
  local stalls
  stalls=$(tail -n +"$from" "$log" | grep -c "main thread stalled" || true)
  echo "stalls of 100 ms or more: $stalls"
}

lines() { if [ -f "$log" ]; then wc -l <"$log"; else echo 0; fi; }

start=$(($(lines) + 1))
launch
report "first launch: the whole book read, the cache written" "$start"
sleep 2
start=$(($(lines) + 1))
launch
report "second launch: from the cache" "$start"
start=$(($(lines) + 1))
type_and_scroll
report "typing \"$query\" and scrolling" "$start"
