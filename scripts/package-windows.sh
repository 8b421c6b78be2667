#!/usr/bin/env bash
# Makes the Windows package from a Windows build (scripts/test-windows.sh
# makes one): BUILD/kym-<version>-win64.zip with kym.exe, libkym.dll and the
# runtime DLLs beside it, the headers, the import library, the CMake package
# and the pkg-config file, and a README.txt on installing it.
#   package-windows.sh [BUILD]      (default: build-windows; prints the zip's path)
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build_dir="$(cd "${1:-${KYM_WINDOWS_BUILD_DIR:-$root/build-windows}}" && pwd)"
version="$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build_dir/CMakeCache.txt")"
[ -f "$build_dir/bin/kym.exe" ] && [ -n "$version" ] ||
  { echo "package-windows.sh: $build_dir holds no Windows build of kym" >&2; exit 1; }

name="kym-$version-win64"
zip="$build_dir/$name.zip"
staging="$(mktemp -d "${TMPDIR:-/tmp}/kym-package.XXXXXX")"
trap 'rm -rf "$staging"' EXIT
cmake --install "$build_dir" --prefix "$staging/$name" --strip >/dev/null
# The runtime DLLs come as Debian ships them, with their debugging symbols.
x86_64-w64-mingw32-strip --strip-debug "$staging/$name"/bin/*.dll
rm -f "$zip"
(cd "$staging" && cmake -E tar cf "$zip.part" --format=zip "$name")
mv "$zip.part" "$zip"
echo "$zip"
