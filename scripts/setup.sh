#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test, fuzz and run, then configures
# and builds the default build. Quiet and quick when everything is already installed.
#   bash scripts/setup.sh            packages + build/ (RelWithDebInfo)
#   bash scripts/setup.sh --no-build packages only
set -euo pipefail
cd "$(dirname "$0")/.."

PACKAGES=(
  g++ cmake ninja-build pkg-config
  libjsoncpp-dev libdbus-1-dev libsystemd-dev dbus-daemon dbus-bin
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev clang-format
  procps libtsan2
  scdoc dpkg-dev systemd
  libcpp-httplib-dev         # the browser panel's HTTP server
  chromium chromium-driver   # the browser panel's end-to-end test (headless)
)

missing=()
for pkg in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$pkg")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

if [ "${1:-}" != "--no-build" ]; then
  bash scripts/build.sh build
fi
