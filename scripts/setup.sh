#!/usr/bin/env bash
# Installs every Debian package Kinbook needs to build, test and benchmark.
# Idempotent: packages already present are left alone, and the package lists
# are refreshed at most once per run, only when something is missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git python3
  clang clang-format libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev libutf8proc-dev libicu-dev libpcre2-dev libfmt-dev
  libtomlplusplus-dev nlohmann-json3-dev libsimdjson-dev libsystemd-dev libvips-dev libdlib-dev liburing-dev
  libjemalloc-dev libxxhash-dev
  radicale vdirsyncer
  # The desktop application: Qt 6 Widgets (Qt's CMake files need the GL
  # headers), the SVG plugin for its icon, a font, and a virtual X server for
  # its screenshot test.
  qt6-base-dev libgl-dev libqt6svg6 fonts-dejavu-core xvfb xauth
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
