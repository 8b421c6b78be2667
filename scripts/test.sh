#!/usr/bin/env bash
# The test command. Installs missing packages, then configures, builds and
# runs the whole test suite three times, with warnings as errors:
#   build/          the normal build, its tests run again as user nobody,
#                   and kym serve in Chromium (Playwright, tests/browser)
#   build-asan/     AddressSanitizer + UBSan, with LeakSanitizer on
#   build-windows/  64-bit Windows, cross-built with mingw-w64 and run under
#                   Wine (scripts/test-windows.sh)
# and finally runs each fuzz target briefly (scripts/fuzz.sh) when clang is
# there. Exits non-zero on any failure; ends with a summary of every phase.
#
# KYM_BUILD_DIR, KYM_ASAN_BUILD_DIR, KYM_WINDOWS_BUILD_DIR and
# KYM_FUZZ_BUILD_DIR move the build directories; KYM_FUZZ_SECONDS sets the
# fuzzing time per target (default 15).
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
jobs="$(nproc)"
build_dir="${KYM_BUILD_DIR:-$root/build}"
asan_dir="${KYM_ASAN_BUILD_DIR:-$root/build-asan}"
export KYM_WINDOWS_BUILD_DIR="${KYM_WINDOWS_BUILD_DIR:-$root/build-windows}"
export KYM_FUZZ_BUILD_DIR="${KYM_FUZZ_BUILD_DIR:-$root/build-fuzz}"
fuzz_seconds="${KYM_FUZZ_SECONDS:-15}"

# Leaks count as failures; every sanitizer finding stops the program.
export ASAN_OPTIONS="detect_leaks=1:check_initialization_order=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"

summary=()
status=0
total_passed=0
total_failed=0
script_start=$SECONDS

note() { # phase, seconds, result
  summary+=("$(printf '  %-26s %5d s   %s' "$1" "$2" "$3")")
}

print_summary() {
  echo
  echo "=== Summary ($((SECONDS - script_start)) s in all)"
  printf '%s\n' "${summary[@]}"
  echo "tests: $total_passed passed, $total_failed failed"
}

give_up() {
  status=1
  print_summary
  exit 1
}

phase_start=$SECONDS
echo "=== Installing missing packages"
bash scripts/install-deps.sh || { note "install-deps" $((SECONDS - phase_start)) "FAILED"; give_up; }
note "install-deps" $((SECONDS - phase_start)) "ok"

# build_and_test NAME DIRECTORY CMAKE-ARGUMENTS...
build_and_test() {
  local name="$1" dir="$2"
  shift 2
  local start=$SECONDS
  echo "=== [$name] configure and build in $dir"
  if ! cmake -S "$root" -B "$dir" "$@" || ! cmake --build "$dir" -j "$jobs"; then
    note "build ($name)" $((SECONDS - start)) "FAILED"
    give_up
  fi
  note "build ($name)" $((SECONDS - start)) "ok"

  start=$SECONDS
  echo "=== [$name] ctest"
  local log="$dir/ctest.log"
  local result="ok"
  if ! ctest --test-dir "$dir" -j "$jobs" --output-on-failure --no-tests=error 2>&1 | tee "$log"; then
    result="FAILED"
    status=1
  fi
  count_tests "ctest ($name)" "$log" "$result" "$start"
}

# test_as_nobody DIRECTORY: the build's tests again as user nobody, whom file
# permissions bind as they bind every user but root; the tests that need root
# skip. The build tree stays root's: ctest keeps its logs in a folder of
# nobody's own and enters the tree from there. The install tests are left
# out, as they write into the tree.
test_as_nobody() {
  local dir="$1" start=$SECONDS
  echo "=== [normal, as nobody] ctest"
  if [ "$(id -u)" -ne 0 ]; then
    note "ctest (normal, as nobody)" 0 "skipped: the script does not run as root"
    return
  fi
  # A clone in a folder that only root may enter (such as /root) cannot be run as anybody else.
  if ! setpriv --reuid=nobody --regid=nogroup --clear-groups test -r "$dir/CTestTestfile.cmake" -a -r "$root/CMakeLists.txt"; then
    note "ctest (normal, as nobody)" 0 "skipped: user nobody cannot reach $root (clone it where others may read)"
    return
  fi
  local top log="$dir/ctest-nobody.log" result="ok"
  top="$(mktemp -d)"
  printf 'subdirs("%s")\n' "$dir" >"$top/CTestTestfile.cmake"
  chown -R nobody:nogroup "$top"
  if ! (cd "$top" && setpriv --reuid=nobody --regid=nogroup --clear-groups env HOME="$top" \
    ctest --test-dir "$top" -j "$jobs" --output-on-failure --no-tests=error -LE install) 2>&1 | tee "$log"; then
    result="FAILED"
    status=1
  fi
  rm -rf "$top"
  count_tests "ctest (normal, as nobody)" "$log" "$result" "$start"
}

# count_tests PHASE LOG RESULT START: notes the phase with ctest's summary line in LOG, adds it to the totals.
count_tests() {
  local phase="$1" log="$2" result="$3" start="$4"
  local line
  line="$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1 || true)"
  if [[ "$line" =~ ([0-9]+)\ tests?\ failed\ out\ of\ ([0-9]+) ]]; then
    total_failed=$((total_failed + BASH_REMATCH[1]))
    total_passed=$((total_passed + BASH_REMATCH[2] - BASH_REMATCH[1]))
  else
    line="no ctest summary"
    status=1
  fi
  note "$phase" $((SECONDS - start)) "$result: $line"
}

# test_browser: kym serve in Debian's Chromium, driven by Playwright (tests/browser).
test_browser() {
  local start=$SECONDS log="$build_dir/browser-tests.log" result="ok" node_major
  echo "=== [browser] Playwright with Debian's Chromium"
  node_major="$(node -p 'process.versions.node.split(".")[0]' 2>/dev/null || echo 0)"
  if [ "$node_major" -lt 18 ]; then
    note "browser (Playwright)" 0 "FAILED: Playwright needs Node.js 18 or newer; this machine has $(node --version 2>/dev/null || echo none)"
    status=1
    return
  fi
  # npm trusts the certificates installed on the system too (a site's proxy has its own).
  if [ -z "${NODE_EXTRA_CA_CERTS:-}" ] && [ -r /etc/ssl/certs/ca-certificates.crt ]; then
    export NODE_EXTRA_CA_CERTS=/etc/ssl/certs/ca-certificates.crt
  fi
  if ! (cd tests/browser && npm ci --no-audit --no-fund --loglevel=error &&
    KYM="$build_dir/tools/kym" KYM_BROWSER_OUTPUT="$build_dir/browser-results" \
      KYM_SCREENSHOT_DIR="$build_dir/browser-screenshots" npx playwright test) 2>&1 | tee "$log"; then
    result="FAILED"
    status=1
  fi
  local passed failed
  passed="$(grep -Eo '^ +[0-9]+ passed' "$log" | grep -Eo '[0-9]+' | tail -n 1 || true)"
  failed="$(grep -Eo '^ +[0-9]+ failed' "$log" | grep -Eo '[0-9]+' | tail -n 1 || true)"
  total_passed=$((total_passed + ${passed:-0}))
  total_failed=$((total_failed + ${failed:-0}))
  [ -n "$passed$failed" ] || { result="FAILED"; status=1; }
  note "browser (Playwright)" $((SECONDS - start)) "$result: ${passed:-0} passed, ${failed:-0} failed"
}

build_and_test normal "$build_dir" -DKYM_WERROR=ON
test_as_nobody "$build_dir"
test_browser
build_and_test asan "$asan_dir" -DKYM_SANITIZE=ON -DKYM_WERROR=ON \
  -DCMAKE_BUILD_TYPE=Debug -DKYM_BUILD_BENCH=OFF

start=$SECONDS
echo "=== [windows] build and test under Wine (scripts/test-windows.sh)"
mkdir -p "$KYM_WINDOWS_BUILD_DIR"
windows_log="$KYM_WINDOWS_BUILD_DIR/test-windows.log"
windows_result="ok"
if ! KYM_BUILD_DIR="$build_dir" bash scripts/test-windows.sh 2>&1 | tee "$windows_log"; then
  windows_result="FAILED"
  status=1
fi
count_tests "windows (build, Wine)" "$windows_log" "$windows_result" "$start"

start=$SECONDS
if command -v clang++ >/dev/null; then
  echo "=== Fuzzing, $fuzz_seconds s per target"
  if bash scripts/fuzz.sh "$fuzz_seconds"; then
    note "fuzz" $((SECONDS - start)) "ok"
  else
    note "fuzz" $((SECONDS - start)) "FAILED"
    status=1
  fi
else
  note "fuzz" 0 "skipped: no clang++"
fi

print_summary
exit "$status"
