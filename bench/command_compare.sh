#!/usr/bin/env bash
# Times `kym env` and `kym launch` as whole processes against a bash script
# that exports the same variables in the same order (and for launch execs the
# same program), for a site of 8 layers of 40 and of 400 variables a layer.
# Each launch starts bench_stamp, which prints the time it started, so the
# same runs are also timed from start to started child (bench_time_to_start).
# Then kym's kept tables on and off (KYM_CACHE=off), taking turns.
# Run by hand (not part of the tests):
#   bash bench/command_compare.sh [RESULTS.md]    (default: BUILD/command_compare.md)
# KYM_BUILD_DIR is the build tree (default: build); KYM names the kym program
# (default: BUILD/tools/kym, built if missing); KYM_BENCH_SIZES overrides the
# layer sizes ("40 400"); KYM_BENCH_ROUNDS the rounds of cache on and off (3);
# KYM_BENCH_DIR the scratch directory (default: BUILD/command-compare).
#
# The layers, in merge order: site, base, plugins p1 (Site-wide), p2 (Production,
# internal) and p3 (Site-wide, external), common department, department,
# application. Each layer sets:
#   i = 12, 22, ...   BENCH_L<layer>_V<i> = ${BENCH_L<layer>_V<i-1>}/sub<i>
#   i = 3, 13, ...    BENCH_SHARED_<i> = $BENCH_SHARED_<i>:L<layer>  (every layer extends it)
#   the others        BENCH_L<layer>_V<i> = /opt/bench/layer<layer>/value<i>
#   the last one      PATH = $PATH:/opt/bench/layer<layer>/bin  (unix list, merged after the common one)
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${KYM_BUILD_DIR:-$root/build}"
results="${1:-$build/command_compare.md}"
work="${KYM_BENCH_DIR:-$build/command-compare}"
sizes="${KYM_BENCH_SIZES:-40 400}"
rounds="${KYM_BENCH_ROUNDS:-3}"
kym="${KYM:-$build/tools/kym}"
stamp="$build/bench/started/bench_stamp"
time_to_start="$build/bench/started/bench_time_to_start"

command -v hyperfine >/dev/null || bash "$root/scripts/install-deps.sh"
if [ ! -x "$kym" ] || [ ! -x "$stamp" ] || [ ! -x "$time_to_start" ]; then
  cmake -S "$root" -B "$build" >/dev/null
  cmake --build "$build" -j "$(nproc)" --target kym-command bench_stamp bench_time_to_start
fi
kym="$(cd "$(dirname "$kym")" && pwd)/$(basename "$kym")"

layers=(site base plugin:p1 plugin:p2 plugin:p3 dept:common dept:bench app)

# One line per variable, in merge order: LAYER LIST NAME VALUE.
variables() {
  local count=$1 layer=0 name i
  for name in "${layers[@]}"; do
    layer=$((layer + 1))
    for ((i = 1; i <= count; i++)); do
      if [ "$i" -eq "$count" ]; then
        echo "$name unix PATH \$PATH:/opt/bench/layer$layer/bin"
      elif [ "$i" -gt 10 ] && [ $((i % 10)) -eq 2 ]; then
        echo "$name common BENCH_L${layer}_V$i \${BENCH_L${layer}_V$((i - 1))}/sub$i"
      elif [ $((i % 10)) -eq 3 ]; then
        echo "$name common BENCH_SHARED_$i \$BENCH_SHARED_$i:L$layer"
      else
        echo "$name common BENCH_L${layer}_V$i /opt/bench/layer$layer/value$i"
      fi
    done
  done
}

# Builds the site with the kym commands; one command per variable.
make_site() {
  local site=$1 count=$2 layer list name value
  rm -rf "$site"
  mkdir -p "$site"/{kym/config,kym/data/install,ugsite,external,home/.config,release/config}
  export KYM_BASE_DIR="$site/kym" KYM_UGSITE_DIR="$site/ugsite" XDG_CONFIG_HOME="$site/home/.config"
  unset KYM_DEPT_DIR KYM_PLATFORM
  "$kym" sysinfo set CadVersionDirectory NX4 >/dev/null
  tar -czf "$site/kym/data/install/versionFiles.tar.gz" -C "$site/release" config
  "$kym" site set unix-install-path "$root/demo/cad" >/dev/null
  "$kym" site set use-registry off >/dev/null
  "$kym" site set unix-external-plugins "$site/external" >/dev/null
  "$kym" plugin create p1 >/dev/null
  "$kym" plugin create p2 --type Production >/dev/null
  "$kym" plugin create p3 --external >/dev/null
  "$kym" dept create common --type Common --description Common --cleanup off >/dev/null
  "$kym" dept create bench --type Production --description Bench --common common --cleanup off >/dev/null
  "$kym" app add dept:bench app --program "$stamp" --libraries off >/dev/null
  while read -r layer list name value; do
    if [ "$layer" = app ]; then
      "$kym" var set dept:bench "$name" "$value" --list "$list" --app app >/dev/null
    else
      "$kym" var set "$layer" "$name" "$value" --list "$list" >/dev/null
    fi
  done < <(variables "$count")
}

# The same variables as a bash script: exports in merge order, then the
# launcher's own variables, then PROGRAM.
make_script() {
  local site=$1 count=$2 program=$3 layer list name value
  {
    echo '#!/bin/bash'
    echo "export UGII_BASE_DIR=$root/demo/cad UGII_ROOT_DIR=$root/demo/cad/ugii/"
    while read -r layer list name value; do
      echo "export $name=\"$value\""
    done < <(variables "$count")
    echo "export KYM_DEPT_DIR=$site/ugsite/bench KYM_COMMONDEPT_DIR=$site/ugsite/common KYM_UGSITE_DIR=$site/ugsite"
    echo "export UG_VER=NX4 OS=lnx64 OSA=lnx64 SCRIPTx=sh"
    echo "export UGII_SITE_DIR=\$KYM_COMMONDEPT_DIR/\$UG_VER UGII_GROUP_DIR=\$KYM_DEPT_DIR/\$UG_VER"
    if [ "$program" = env ]; then
      echo 'exec env'
    else
      echo 'cd "$HOME"'
      echo 'export UGII_LOCAL_USER_DEFAULTS="$HOME/nx90_user.dpv"'
      echo "exec $program"
    fi
  } >"$site/$( [ "$program" = env ] && echo env.sh || echo launch.sh)"
}

# The user and system means of hyperfine's JSON export as a table.
cpu_table() {
  echo "| Command | User [ms] | System [ms] | User + System [ms] |"
  echo "|:---|---:|---:|---:|"
  awk -F': ' '
    /"command":/ { sub(/^"/, "", $2); sub(/",?$/, "", $2); command = $2 }
    /"user":/    { gsub(/,/, "", $2); user = $2 }
    /"system":/  { gsub(/,/, "", $2); printf "| `%s` | %.1f | %.1f | %.1f |\n", command, user * 1000, $2 * 1000, (user + $2) * 1000 }
  ' "$1"
}

# CACHE METRIC COMMAND VALUE lines of a hyperfine JSON export: wall and
# user + system means in milliseconds.
json_rows() {
  awk -F': ' -v cache="$2" '
    /"command":/ { sub(/^"/, "", $2); sub(/",?$/, "", $2); command = $2 }
    /"mean":/    { gsub(/,/, "", $2); mean = $2 }
    /"user":/    { gsub(/,/, "", $2); user = $2 }
    /"system":/  { gsub(/,/, "", $2)
                   printf "%s\twall\t%s\t%.3f\n", cache, command, mean * 1000
                   printf "%s\tcpu\t%s\t%.3f\n", cache, command, (user + $2) * 1000 }
  ' "$1"
}

# The same of bench_time_to_start's table: mean and median.
started_rows() {
  awk -F'|' -v cache="$1" '
    /^\| `/ { command = $2; gsub(/^ *`|` *$/, "", command); gsub(/ /, "", $3); gsub(/ /, "", $4)
             printf "%s\tstarted mean\t%s\t%s\n%s\tstarted median\t%s\t%s\n", cache, command, $3, cache, command, $4 }
  '
}

# Cache on against off, from the rows of every round: the mean of the
# rounds' values, each round's value, and the ratio.
cache_table() {
  echo "| Measure | Cache on [ms] | KYM_CACHE=off [ms] | On / off | Rounds, on | Rounds, off |"
  echo "|:---|---:|---:|---:|:---|:---|"
  awk -F'\t' '
    { key = $2 "\t" $3
      if (!(key in seen)) { seen[key] = 1; order[++keys] = key }
      sum[$1, key] += $4; count[$1, key]++
      list[$1, key] = list[$1, key] (count[$1, key] > 1 ? ", " : "") $4 }
    END {
      for (i = 1; i <= keys; i++) {
        key = order[i]; split(key, part, "\t")
        on = sum["on", key] / count["on", key]; off = sum["off", key] / count["off", key]
        printf "| `%s`, %s | %.2f | %.2f | %.2f | %s | %s |\n", part[2], part[1], on, off, on / off, list["on", key], list["off", key]
      }
    }
  ' "$1"
}

mkdir -p "$work" "$(dirname "$results")"
{
  echo "# kym against a bash script"
  echo
  echo "$(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores, kym: $kym"
} >"$results"

# kym keeps the checked tables of settings files that have not changed for
# two seconds (in XDG_CACHE_HOME/kym), as on an engineer's workstation
# where the settings change far less often than applications start.
export XDG_CACHE_HOME="$work/cache"
for count in $sizes; do
  site="$work/site-$count"
  echo "=== 8 layers of $count variables: building the site with kym commands"
  start=$SECONDS
  make_site "$site" "$count"
  echo "    built in $((SECONDS - start)) s"
  make_script "$site" "$count" env
  make_script "$site" "$count" "$stamp"
  # Two seconds unchanged, and the check below has kym keep the tables.
  sleep 2
  # The same sanity check a reader would make: both print the layered variables alike.
  diff <("$kym" env bench app | grep -E '^BENCH_' | sort) \
       <(bash "$site/env.sh" | grep -E '^BENCH_' | sort) >/dev/null ||
    { echo "command_compare.sh: kym and the bash script disagree on the BENCH_ variables" >&2; exit 1; }

  table="$work/table-$count.md"
  json="$work/table-$count.json"
  hyperfine -N --warmup 5 --min-runs 100 --export-markdown "$table" --export-json "$json" \
    --command-name "kym env ($count a layer)" "$kym env bench app" \
    --command-name "bash env script ($count a layer)" "bash $site/env.sh" \
    --command-name "kym launch ($count a layer)" "$kym launch bench app" \
    --command-name "bash launch script ($count a layer)" "bash $site/launch.sh"
  {
    echo
    echo "## 8 layers of $count variables"
    echo
    cat "$table"
    echo
    echo "CPU time (user + system) of the same runs, which other load on the machine disturbs less:"
    echo
    cpu_table "$json"
  } >>"$results"
  # Kept tables against every settings file parsed and checked again (as
  # after a change), in turns so that the machine's moods hit both alike.
  echo "=== 8 layers of $count variables: kept tables on and off, $rounds rounds"
  rows="$work/cache-$count.tsv"
  : >"$rows"
  for ((round = 1; round <= rounds; round++)); do
    for cache in on off; do
      KYM_CACHE=$cache hyperfine -N --warmup 5 --min-runs 100 --export-json "$work/cache.json" \
        --command-name "kym env" "$kym env bench app" \
        --command-name "kym launch" "$kym launch bench app" >/dev/null
      json_rows "$work/cache.json" "$cache" >>"$rows"
      KYM_CACHE=$cache "$time_to_start" 300 "kym launch" "$kym launch bench app" | started_rows "$cache" >>"$rows"
    done
  done
  {
    echo
    echo "Kept tables on and with KYM_CACHE=off (every settings file parsed and checked), $rounds rounds each, taking turns (hyperfine means; start to started child over 300 runs):"
    echo
    cache_table "$rows"
  } >>"$results"
  cache_table "$rows"
  echo "=== 8 layers of $count variables: from start to started child"
  started="$work/started-$count.md"
  "$time_to_start" 300 \
    "kym launch ($count a layer)" "$kym launch bench app" \
    "bash launch script ($count a layer)" "$(command -v bash) $site/launch.sh" | tee "$started"
  {
    echo
    echo "From start to started child (the launched program's first moment in main), 300 runs each, taking turns:"
    echo
    cat "$started"
  } >>"$results"
done
echo "Results in $results"
