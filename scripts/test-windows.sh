#!/usr/bin/env bash
# The Windows test run: cross-builds libkym, kym.exe and the tests for 64-bit
# Windows with mingw-w64 in build-windows/ (warnings as errors) and runs them
# under Wine, headless, ending with ctest's summary line. Installs what it
# needs (scripts/install-deps.sh --windows) and builds the Windows libraries
# once (scripts/windows-deps.sh).
#
# It also compares kym.exe with the Linux kym's preview of the windows
# conventions; that kym comes from the Linux build (brought up to date).
# KYM_WINDOWS_BUILD_DIR moves the build directory, KYM_BUILD_DIR the Linux
# one; KYM_WINDOWS_DEPS_DIR the folder of the Windows libraries.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
build_dir="${KYM_WINDOWS_BUILD_DIR:-$root/build-windows}"
jobs="$(nproc)"

linux_build_dir="${KYM_BUILD_DIR:-$root/build}"

bash scripts/install-deps.sh --windows
deps="$(bash scripts/windows-deps.sh | tail -n 1)"

# The Linux kym whose preview of the windows conventions kym.exe must match, up to date.
[ -f "$linux_build_dir/CMakeCache.txt" ] || cmake -S "$root" -B "$linux_build_dir" >/dev/null
cmake --build "$linux_build_dir" -j "$jobs" --target kym-command

cmake -S "$root" -B "$build_dir" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
  -DKYM_WINDOWS_DEPS="$deps" -DKYM_WERROR=ON -DKYM_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Release \
  -DKYM_PREVIEW_COMMAND="$linux_build_dir/tools/kym"
cmake --build "$build_dir" -j "$jobs"

# A Wine prefix of the build's own, without a display, debugger or the
# downloads Wine offers for .NET and HTML; a crashing test must fail, so the
# debugger that would answer for it is removed.
export WINEPREFIX="$build_dir/wine-prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY WAYLAND_DISPLAY
wineboot -i >/dev/null 2>&1 || true
wine reg delete 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' /v Debugger /f >/dev/null 2>&1 || true
# One Wine server for the whole run, started apart from ctest's pipes: Wine's
# own services, which the first program starts, would otherwise hold them open.
wineserver -k >/dev/null 2>&1 || true
wineserver -p >/dev/null 2>&1 </dev/null
wine cmd /c exit >/dev/null 2>&1 </dev/null || true
trap 'wineserver -k >/dev/null 2>&1 || true' EXIT

ctest --test-dir "$build_dir" -j "$jobs" --output-on-failure --no-tests=error
