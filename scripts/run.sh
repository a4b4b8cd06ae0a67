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
if [ -z "${DBUS_SESSION_BUS_ADDRESS:-}" ]; then
  # Siblings reach the station over the session bus; make one when there is none.
  exec dbus-run-session -- "${station[@]}"
fi
exec "${station[@]}"
