#!/usr/bin/env bash
# Installs the Debian packages that the build, the tests and the demo need.
# Does nothing when all of them are present; uses sudo only when not root.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libgtk-3-dev libwebkit2gtk-4.1-dev libp11-kit-dev libjson-glib-dev
  libgtest-dev googletest
  xvfb xauth x11-utils xdotool imagemagick openbox weston mutter
  webkit2gtk-driver python3-selenium
  bubblewrap xdg-dbus-proxy
  dbus-daemon at-spi2-core libatspi2.0-dev
  softhsm2 opensc gnutls-bin libgnutls28-dev openssl
  lintian man-db
  clang libclang-rt-14-dev clang-format
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
