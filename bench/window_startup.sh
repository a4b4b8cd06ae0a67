#!/usr/bin/env bash
# Time from exec to the first top-level window mapped on the X server, for the
# station and for Entangle, alternating, in one Xvfb and one session bus.
# Usage (from the repository, after building the default preset):
#   xvfb-run -a -s "-screen 0 1280x800x24" dbus-run-session -- bash bench/window_startup.sh [runs=10]
# Entangle is Debian's "entangle" package; it is installed for this comparison only.
set -uo pipefail
runs=${1:-10}
station=${STATION:-build/default/app/BrixCanonCapture}
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT

# Milliseconds from exec until a viewable top-level window whose xwininfo line
# matches the extended regular expression $1.
time_to_window() {
  local pattern=$1; shift
  local start end id
  start=$(date +%s%N)
  "$@" >/dev/null 2>&1 &
  local pid=$!
  for _ in $(seq 1 20000); do
    id=$(xwininfo -root -children 2>/dev/null | grep -E "$pattern" | awk '{print $1}' | head -1)
    if [ -n "$id" ] && xwininfo -id "$id" 2>/dev/null | grep -q IsViewable; then
      end=$(date +%s%N)
      break
    fi
  done
  kill -TERM "$pid" 2>/dev/null; sleep 0.3; kill -KILL "$pid" 2>/dev/null; wait "$pid" 2>/dev/null
  [ -n "${end:-}" ] && echo $(( (end - start) / 1000000 ))
}

median() { sort -n | awk '{a[NR]=$1} END {print (NR%2) ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2}'; }

ours=(); theirs=()
for i in $(seq 1 "$runs"); do
  ours+=("$(HOME=$home XDG_CONFIG_HOME=$home/c XDG_STATE_HOME=$home/s QT_QPA_PLATFORM=xcb \
            time_to_window '"BrixCanonCapture \(v' "$station" --camera-backend=simulator)")
  theirs+=("$(HOME=$home XDG_CONFIG_HOME=$home/c time_to_window '"No camera connected"' entangle)")
done
echo "BrixCanonCapture ms: ${ours[*]}"
echo "Entangle ms:         ${theirs[*]}"
echo "median BrixCanonCapture: $(printf '%s\n' "${ours[@]}" | median) ms"
echo "median Entangle:         $(printf '%s\n' "${theirs[@]}" | median) ms"
