#!/usr/bin/env bash
# Installs the Debian packages that building and testing libkym need, when missing.
# With --windows also those of the Windows build: mingw-w64, Wine and what
# scripts/windows-deps.sh builds the Windows libraries with.
set -euo pipefail
packages=(build-essential cmake pkg-config
  libboost1.81-dev libboost-filesystem1.81-dev
  libarchive-dev libpugixml-dev libspdlog-dev libfmt-dev
  libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev
  clang libclang-rt-dev
  tar gzip util-linux hyperfine
  chromium)
if [ "${1:-}" = "--windows" ]; then
  packages+=(g++-mingw-w64-x86-64-posix libz-mingw-w64-dev wine wine64
    googletest dpkg-dev bison xz-utils ninja-build)
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
export DEBIAN_FRONTEND=noninteractive
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  $sudo_cmd apt-get update -qq
  $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
# The browser tests run Playwright, which needs Node.js 18 or newer (Debian 12 has 18), with npm.
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  echo "Installing: nodejs npm"
  $sudo_cmd apt-get install -y -qq --no-install-recommends nodejs npm >/dev/null
fi
