#!/usr/bin/env bash
# Builds the libraries that the Windows build of libkym needs, with mingw-w64,
# from Debian's own sources, into a folder outside the clone:
#   Boost.Filesystem (and the Boost.Atomic it uses) from boost1.81, with b2;
#   libarchive with zlib (libz-mingw-w64-dev), static; pugixml, static;
#   GoogleTest from Debian's googletest package;
#   spdlog, fmt and CLI11 header-only, from Debian's -dev packages.
# The folder is keyed by the versions of all of them, the compiler and this
# script, so a second run reuses it and any change builds afresh.
#
# Usage: scripts/windows-deps.sh   (prints the prefix on its last line)
# KYM_WINDOWS_DEPS_DIR moves the parent folder (default: the user's cache).
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
parent="${KYM_WINDOWS_DEPS_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/kym-windows-deps}"
host=x86_64-w64-mingw32
jobs="$(nproc)"

installed_version() { dpkg-query -W -f='${Version}' "$1"; }

# Debian's source packages are read through a private apt state, so the
# machine's own sources and lists stay as they are.
apt_dir="$(mktemp -d)"
trap 'rm -rf "$apt_dir"' EXIT
mkdir -p "$apt_dir/sources.d" "$apt_dir/lists/partial"
for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
  [ -f "$f" ] && sed -n 's/^deb \(.*debian.*\)$/deb-src \1/p' "$f" >> "$apt_dir/sources.d/src.list"
done
for f in /etc/apt/sources.list.d/*.sources; do
  [ -f "$f" ] && grep -q 'debian' "$f" && sed 's/^Types:.*$/Types: deb-src/' "$f" > "$apt_dir/sources.d/$(basename "$f")"
done
apt_options=(-o "Dir::Etc::SourceList=/dev/null" -o "Dir::Etc::SourceParts=$apt_dir/sources.d"
  -o "Dir::State::Lists=$apt_dir/lists" -o "APT::Sandbox::User=root")
apt-get "${apt_options[@]}" update -qq >&2
source_version() { apt-cache "${apt_options[@]}" showsrc --only-source "$1" | sed -n 's/^Version: //p' | sort -V | tail -n 1; }

boost_version="$(source_version boost1.81)"
libarchive_version="$(source_version libarchive)"
pugixml_version="$(source_version pugixml)"
key="$(printf '%s\n' "$(installed_version g++-mingw-w64-x86-64-posix)" "$(installed_version libz-mingw-w64-dev)" \
  "boost $boost_version" "libarchive $libarchive_version" "pugixml $pugixml_version" \
  "googletest $(installed_version googletest)" "spdlog $(installed_version libspdlog-dev)" \
  "fmt $(installed_version libfmt-dev)" "cli11 $(installed_version libcli11-dev)" \
  "$(sha256sum "${BASH_SOURCE[0]}" "$root/cmake/mingw-w64-x86_64.cmake")" | sha256sum | cut -c1-16)"
prefix="$parent/$key"
if [ -f "$prefix/.complete" ]; then
  echo "Windows dependencies: reusing $prefix" >&2
  echo "$prefix"
  exit 0
fi

echo "Windows dependencies: building into $prefix" >&2
work="$(mktemp -d "${TMPDIR:-/tmp}/kym-windows-deps.XXXXXX")"
trap 'rm -rf "$apt_dir" "$work"' EXIT
rm -rf "$prefix"
mkdir -p "$prefix/include" "$prefix/lib/cmake"
# Ninja: libarchive's hundreds of configure checks each build a small project.
toolchain=(-G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" -DKYM_WINDOWS_DEPS="$prefix"
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" -DBUILD_SHARED_LIBS=OFF)
log="$work/build.log"
step() { # what, command...
  local what="$1" start=$SECONDS
  shift
  if ! "$@" >> "$log" 2>&1; then
    tail -n 40 "$log" >&2
    echo "Windows dependencies: $what failed (log above)" >&2
    exit 1
  fi
  echo "  $what: $((SECONDS - start)) s" >&2
}

cd "$work"
step "downloading the sources of boost1.81, libarchive and pugixml" \
  apt-get "${apt_options[@]}" source -qq boost1.81 libarchive pugixml

# Boost: the b2 engine's parser is generated, as Debian's own build does.
boost_src="$(find . -maxdepth 1 -type d -name 'boost1.81-*' | head -n 1)"
step "generating the b2 parser" bash -c "cd '$boost_src/tools/build' && bison -y -d -o src/engine/jamgram.cpp src/engine/jamgram.y"
step "bootstrapping b2" bash -c "cd '$boost_src' && ./bootstrap.sh --with-libraries=filesystem"
echo "using gcc : mingw : $host-g++-posix ;" > "$work/user-config.jam"
step "building Boost.Filesystem" bash -c "cd '$boost_src' && ./b2 -q --user-config='$work/user-config.jam' \
  toolset=gcc-mingw target-os=windows address-model=64 architecture=x86 threadapi=win32 \
  link=static runtime-link=shared threading=multi variant=release --with-filesystem \
  --prefix='$prefix' -j$jobs install"

# libarchive: only what reads a gzip-compressed tar; its static library alone.
libarchive_src="$(find . -maxdepth 1 -type d -name 'libarchive-*' | head -n 1)"
zlib="/usr/$host/lib/libz.a"
step "configuring libarchive" cmake -S "$libarchive_src" -B libarchive-build "${toolchain[@]}" \
  -DZLIB_LIBRARY="$zlib" -DZLIB_INCLUDE_DIR="/usr/$host/include" \
  -DZLIB_WINAPI=OFF -DZLIB_WINAPI_WITH_LIB="$zlib" -DPOSIX_REGEX_LIB=NONE \
  -DENABLE_OPENSSL=OFF -DENABLE_MBEDTLS=OFF -DENABLE_NETTLE=OFF -DENABLE_LIBB2=OFF -DENABLE_LZ4=OFF \
  -DENABLE_LZMA=OFF -DENABLE_ZSTD=OFF -DENABLE_BZip2=OFF -DENABLE_LIBXML2=OFF -DENABLE_EXPAT=OFF \
  -DENABLE_PCREPOSIX=OFF -DENABLE_LIBGCC=OFF -DENABLE_CNG=OFF -DENABLE_TAR=OFF -DENABLE_CPIO=OFF \
  -DENABLE_CAT=OFF -DENABLE_XATTR=OFF -DENABLE_ACL=OFF -DENABLE_ICONV=OFF -DENABLE_TEST=OFF -DENABLE_ZLIB=ON
step "building libarchive" cmake --build libarchive-build -j "$jobs" --target archive_static
cp "$libarchive_src/libarchive/archive.h" "$libarchive_src/libarchive/archive_entry.h" "$prefix/include/"
cp libarchive-build/libarchive/libarchive_static.a "$prefix/lib/libarchive.a"

pugixml_src="$(find . -maxdepth 1 -type d -name 'pugixml-*' | head -n 1)"
step "building pugixml" bash -c "cmake -S '$pugixml_src' -B pugixml-build $(printf "'%s' " "${toolchain[@]}") && \
  cmake --build pugixml-build -j $jobs && cmake --install pugixml-build"

step "building GoogleTest" bash -c "cmake -S /usr/src/googletest -B googletest-build $(printf "'%s' " "${toolchain[@]}") && \
  cmake --build googletest-build -j $jobs && cmake --install googletest-build"

# Header-only libraries: their headers and a package file each naming the
# targets our build uses (Debian's own package files name Linux libraries).
cp -r /usr/include/spdlog /usr/include/fmt /usr/include/CLI "$prefix/include/"
header_package() { # name, targets ("target|definitions" each)
  local name="$1" file
  shift
  file="$prefix/lib/cmake/$name/${name}Config.cmake"
  mkdir -p "$(dirname "$file")"
  echo "# Header-only $name for the mingw-w64 build of libkym." > "$file"
  for entry in "$@"; do
    local target="${entry%%|*}" definitions="${entry#*|}"
    cat >> "$file" <<EOF
if(NOT TARGET $target)
  add_library($target INTERFACE IMPORTED)
  set_target_properties($target PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "\${CMAKE_CURRENT_LIST_DIR}/../../../include"
    INTERFACE_COMPILE_DEFINITIONS "$definitions")
endif()
EOF
  done
}
header_package fmt "fmt::fmt-header-only|FMT_HEADER_ONLY=1" "fmt::fmt|FMT_HEADER_ONLY=1"
header_package spdlog "spdlog::spdlog_header_only|SPDLOG_HEADER_ONLY;SPDLOG_FMT_EXTERNAL;FMT_HEADER_ONLY=1" \
  "spdlog::spdlog|SPDLOG_HEADER_ONLY;SPDLOG_FMT_EXTERNAL;FMT_HEADER_ONLY=1"
header_package CLI11 "CLI11::CLI11|"

touch "$prefix/.complete"
echo "Windows dependencies: ready in $prefix" >&2
echo "$prefix"
