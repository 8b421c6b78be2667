#!/usr/bin/env bash
# The demo. The demo site is started through the kym command, which is not
# there yet; until it is, this builds the library (in build/) and says so.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build_dir="${KYM_BUILD_DIR:-$root/build}"
bash "$root/scripts/install-deps.sh"
cmake -S "$root" -B "$build_dir" >/dev/null
cmake --build "$build_dir" -j "$(nproc)" --target kym
echo
echo "Built $(basename "$(readlink -f "$build_dir/kym/libkym.so")") in $build_dir/kym."
echo "The demo site arrives with the kym command; until then, bash scripts/test.sh shows what works."
