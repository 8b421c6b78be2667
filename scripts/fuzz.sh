#!/usr/bin/env bash
# Builds the fuzz targets (fuzz/fuzz_<name>.cpp) with clang, libFuzzer,
# AddressSanitizer and UBSan in build-fuzz/, then runs each for the given
# number of seconds over a scratch copy of fuzz/corpus/<name>/.
#
#   scripts/fuzz.sh [seconds per target, default 20]
#
# An input that breaks a target is kept under build-fuzz/findings/<name>/;
# once the fault is fixed, add it to fuzz/corpus/<name>/, where
# tests/base/FuzzCorpusTest.cpp replays it on every test run.
set -euo pipefail

seconds="${1:-20}"
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${KYM_FUZZ_BUILD_DIR:-$root/build-fuzz}"
jobs="$(nproc)"

if ! command -v clang++ >/dev/null; then
  echo "fuzz.sh: clang++ is not installed (scripts/install-deps.sh installs it)" >&2
  exit 1
fi

shopt -s nullglob
sources=("$root"/fuzz/fuzz_*.cpp)
if [ ${#sources[@]} -eq 0 ]; then
  echo "fuzz.sh: no fuzz targets in $root/fuzz" >&2
  exit 1
fi
targets=()
for source in "${sources[@]}"; do
  name="$(basename "$source" .cpp)"
  targets+=("$name")
done

# Only the base layer and the fuzz targets: everything here is instrumented.
cmake -S "$root" -B "$build" \
  -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKYM_BUILD_FUZZ=ON -DKYM_WERROR=ON \
  -DKYM_BUILD_TESTS=OFF -DKYM_BUILD_BENCH=OFF -DKYM_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j "$jobs" --target "${targets[@]}"

scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
failed=()
for target in "${targets[@]}"; do
  name="${target#fuzz_}"
  corpus="$scratch/$name"
  findings="$build/findings/$name"
  mkdir -p "$corpus" "$findings"
  if [ -d "$root/fuzz/corpus/$name" ]; then
    cp -r "$root/fuzz/corpus/$name/." "$corpus/"
  fi
  options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048
    -artifact_prefix="$findings/" -print_final_stats=1)
  if [ -f "$root/fuzz/$name.dict" ]; then
    options+=(-dict="$root/fuzz/$name.dict")
  fi
  echo "== $target: ${seconds} s over $(find "$corpus" -type f | wc -l) corpus inputs"
  log="$build/$target.log"
  if "$build/fuzz/$target" "${options[@]}" "$corpus" >"$log" 2>&1; then
    grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb|#[0-9]+ +DONE)' "$log" || true
  else
    tail -n 60 "$log"
    echo "== $target FAILED; the input is in $findings/ (full log: $log)"
    failed+=("$target")
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz.sh: failing targets: ${failed[*]}" >&2
  exit 1
fi
echo "fuzz.sh: no finding in ${seconds} s each of: ${targets[*]}"
