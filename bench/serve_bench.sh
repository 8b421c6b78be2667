#!/usr/bin/env bash
# kym serve on a site of 500 departments (the demo site and 497 more):
#   - how long the page takes to be usable in Chromium (bench/serve_page.js),
#   - how long a saved edit takes until the file is written (the page's
#     save request, timed by curl, and the file's time stamp checked),
#   - how much processor time the idle server uses in 10 seconds.
# Run by hand (not part of the tests):  bash bench/serve_bench.sh
# KYM names the kym program (default: build/tools/kym); KYM_BENCH_DIR the
# scratch directory (default: build/serve-bench). Needs tests/browser's npm ci.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
kym="${KYM:-$root/build/tools/kym}"
work="${KYM_BENCH_DIR:-$root/build/serve-bench}"
site="$work/site"

KYM="$kym" bash "$root/demo/make-site.sh" "$site" >/dev/null
# shellcheck disable=SC1091
source "$site/environment.sh"
export HOME="$site/home"
for number in $(seq 1 497); do
  "$kym" dept create "dept$number" --description "Department $number" --common shared >/dev/null
done
echo "Departments: $("$kym" departments --json | grep -c '"name"')"

rm -f "$work/serve.out"
"$kym" serve >"$work/serve.out" 2>"$work/serve.err" &
server=$!
trap 'kill -INT $server 2>/dev/null || true' EXIT
until [ -s "$work/serve.out" ]; do sleep 0.05; done
address="$(head -n 1 "$work/serve.out")"

echo "Page usable after (ms, 7 openings): $(node "$root/bench/serve_page.js" "$address" 7)"

file="$("$kym" dept show design --json | grep -o '"settingsFile": "[^"]*"' | cut -d'"' -f4)"
saves=()
for round in $(seq 1 10); do
  document="$(curl -s -X POST -H 'Content-Type: application/json' -d '{"command": ["export", "dept:design"]}' \
    "${address}api/run")"
  revision="$(printf '%s' "$document" | grep -o '"revision": "[^"]*"' | cut -d'"' -f4)"
  edited="${document/\"german\"/\"german$round\"}"
  [ "$round" -gt 1 ] && edited="${document/\"german$((round - 1))\"/\"german$round\"}"
  time="$(curl -s -o /dev/null -w '%{time_total}' -X POST -H 'Content-Type: application/json' \
    -d "{\"layer\": \"dept:design\", \"revision\": \"$revision\", \"document\": $edited}" "${address}api/import")"
  grep -q "german$round" "$file" || { echo "the save of round $round is not in $file" >&2; exit 1; }
  saves+=("$(awk -v seconds="$time" 'BEGIN { printf "%.1f", seconds * 1000 }')")
done
echo "Saved edit on disk after (ms, 10 saves): ${saves[*]}"

ticks() { awk '{ print $14 + $15 }' "/proc/$server/stat"; }
before="$(ticks)"
sleep 10
echo "Idle for 10 s: $(($(ticks) - before)) clock ticks of processor time ($(getconf CLK_TCK) a second)"
