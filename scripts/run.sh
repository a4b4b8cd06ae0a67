#!/usr/bin/env bash
# Installs everything, builds, and runs the station on the simulated camera:
# headless when there is no display, with its window otherwise.
# Extra arguments go to the station (for example --headless).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake --preset station >/dev/null
cmake --build --preset station -j "$(nproc)"

export BRIX_CAMERA_BACKEND=${BRIX_CAMERA_BACKEND:-simulator}
args=("$@")
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  args=(--headless "${args[@]}")
fi
station=(build/station/app/BrixCanonCapture "${args[@]}")
echo "Starting: ${station[*]}  (Ctrl-C or SIGTERM ends it)"
if [ -n "${DBUS_SESSION_BUS_ADDRESS:-}" ]; then
  exec "${station[@]}"
fi

# Siblings reach the station over the session bus; make one when there is none.
# The bus outlives the first station process, so that a station its watchdog
# relaunched after a crash is still reachable, and ends with this script.
bus=$(dbus-daemon --session --fork --print-address=1 --print-pid=1)
DBUS_SESSION_BUS_ADDRESS=$(sed -n 1p <<<"$bus")
export DBUS_SESSION_BUS_ADDRESS
bus_pid=$(sed -n 2p <<<"$bus")
owner() {
  dbus-send --session --print-reply --dest=org.freedesktop.DBus / \
    org.freedesktop.DBus.GetConnectionUnixProcessID string:com.lumetra.BrixCanonCapture 2>/dev/null |
    awk '/uint32/ { print $2 }' || true
}
stop() {
  pid=$(owner)
  [ -z "$pid" ] || kill -TERM "$pid" 2>/dev/null || true
  while [ -n "$(owner)" ]; do sleep 0.2; done
  exit 0
}
trap stop TERM INT
trap 'kill "$bus_pid" 2>/dev/null' EXIT
"${station[@]}" &
wait $! || true
# A relaunched station holds the bus name: stay while one does (a relaunch
# takes a moment, so the name must stay free for 5 s before the script ends).
free=0
while [ "$free" -lt 25 ]; do
  if [ -n "$(owner)" ]; then free=0; else free=$((free + 1)); fi
  sleep 0.2
done
