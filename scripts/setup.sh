#!/usr/bin/env bash
# Installs every Debian package the station needs to build, run and test.
# Safe to run again: apt-get skips what is already installed.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git clang-format
  qt6-base-dev qt6-base-dev-tools libqt6dbus6 libqt6test6 libqt6svg6 libgl-dev
  libicu-dev libplist-dev libexiv2-dev libgphoto2-dev libusb-1.0-0-dev libcanberra-dev libudev-dev
  libgphoto2-l10n locales
  dbus dbus-x11 libglib2.0-bin xvfb xauth procps
  libgtest-dev libgmock-dev googletest libbenchmark-dev libspdlog-dev
  clang libclang-rt-14-dev libdbus-1-dev
  exiv2 dpkg-dev file gzip appstream desktop-file-utils
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; fi
if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all packages present"
else
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The gphoto2 tests also run once on a German desktop (libgphoto2's German
# translations installed and in use).
if ! locale -a 2>/dev/null | grep -qix 'de_DE.utf8'; then
  $SUDO localedef -i de_DE -f UTF-8 de_DE.UTF-8
fi
