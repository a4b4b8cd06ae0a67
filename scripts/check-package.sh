#!/usr/bin/env bash
# Builds the Debian package (station preset + `cpack --preset deb`), checks its
# contents, its dependencies, its desktop entry and AppStream metadata, then
# unpacks it into a scratch root and has the unpacked station, headless on the
# simulated camera with a session bus of its own, save a shot that the
# unpacked brixctl asks for. Needs no root. Exits non-zero on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)
id=com.lumetra.BrixCanonCapture
cmake --preset station >/dev/null
cmake --build --preset station -j "$jobs"
rm -f build/station/brixcanoncapture_*.deb
cpack --preset deb >/dev/null
deb=$(ls build/station/brixcanoncapture_*.deb)
echo "package: $deb"

scratch=$(mktemp -d "${TMPDIR:-/tmp}/brix-package-XXXXXX")
station_pid=
cleanup() {
  [ -n "$station_pid" ] && kill "$station_pid" 2>/dev/null || true
  rm -rf "$scratch"
}
trap cleanup EXIT
fail() { echo "check-package: $*" >&2; exit 1; }

root=$scratch/root
dpkg -x "$deb" "$root"
for f in usr/bin/BrixCanonCapture usr/bin/brixctl \
         usr/share/BrixCanonCapture/FactoryDefault.plist \
         usr/share/applications/$id.desktop usr/share/metainfo/$id.metainfo.xml \
         usr/share/icons/hicolor/scalable/apps/$id.svg \
         usr/share/man/man1/BrixCanonCapture.1.gz usr/share/man/man1/brixctl.1.gz; do
  [ -e "$root/$f" ] || fail "$f is not in the package"
done
# The watchdog and the kiosk's systemd user unit, once the sources have them.
if [ -d app/watchdog ]; then
  for f in usr/libexec/BrixCanonCapture/watchdog usr/lib/systemd/user/$id.service; do
    [ -e "$root/$f" ] || fail "$f is not in the package"
  done
fi
# Whatever else the build installs (the watchdog, the user unit) is in it too:
# cpack leaves the list of what it installed, under the package's prefix.
while read -r installed; do
  [ -e "$root$installed" ] || fail "$installed is installed by the build but not in the package"
done < build/station/install_manifest.txt
dpkg-deb -f "$deb" Depends | grep -q 'libqt6core6' || fail "no library dependencies computed: $(dpkg-deb -f "$deb" Depends)"
desktop-file-validate "$root/usr/share/applications/$id.desktop"
appstreamcli validate --no-net "$root/usr/share/metainfo/$id.metainfo.xml"

# The unpacked station, with a home and a session bus of its own.
home=$scratch/home
mkdir -p "$home"
export HOME=$home XDG_CONFIG_HOME=$home/.config XDG_STATE_HOME=$home/.local/state
export BRIX_CAMERA_BACKEND=simulator
unset BRIX_RESOURCES_DIR
export ROOT=$root HOME_OUT=$home/station.out
dbus-run-session -- bash -c '
  set -eu
  "$ROOT/usr/bin/BrixCanonCapture" --headless > "$HOME_OUT" &
  station=$!
  for _ in $(seq 60); do
    "$ROOT/usr/bin/brixctl" --timeout 1 status >/dev/null 2>&1 && break
  done
  path=$("$ROOT/usr/bin/brixctl" --timeout 30 shoot)
  kill -TERM "$station"; wait "$station" || true
  echo "installed station saved: $path"
  [ -s "$path" ] || { echo "check-package: $path was not saved" >&2; exit 1; }
  grep -q "shot saved: $path" "$HOME_OUT" || { echo "check-package: the station did not print the shot" >&2; exit 1; }
'
echo "== package checked"
