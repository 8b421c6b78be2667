#!/usr/bin/env bash
# The Windows package as a workstation gets it: scripts/package-windows.sh
# makes the zip, which is unpacked into a folder with a blank in its name;
# its kym.exe, run under Wine, shows its help, makes the demo site with its
# own configure commands (demo/make-site.sh), lists the departments and
# launches a Windows program installed under "C:\Program Files", all in a
# fresh Wine prefix.
#   PackageRunsFromZip.sh BUILD-DIR PROBE-EXE
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
build_dir="$1"
probe="$2"
work="$(mktemp -d "${TMPDIR:-/tmp}/kym-package-check.XXXXXX")"
# A Windows of its own, with nothing installed but what Wine brings; its
# services start here, away from the pipes of whoever runs this check.
export WINEPREFIX="$work/wine-prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
trap 'wineserver -k >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
wineboot -i </dev/null >/dev/null 2>&1
cad="$WINEPREFIX/drive_c/Program Files/UGS/NX 4.0"
fail() { echo "package check: $*" >&2; exit 1; }

zip="$(bash "$root/scripts/package-windows.sh" "$build_dir" | tail -n 1)"
mkdir "$work/Kym Tools"
(cd "$work/Kym Tools" && cmake -E tar xf "$zip")
kym="$work/Kym Tools/$(basename "$zip" .zip)/bin/kym.exe"
[ -f "$kym" ] || fail "the zip has no bin/kym.exe"

help="$(wine "$kym" --help | tr -d '\r')"
grep -q '^Usage: kym' <<<"$help" || fail "kym.exe --help printed no usage"

printf '#!/bin/sh\nexec wine "%s" "$@"\n' "$kym" > "$work/kym"
chmod +x "$work/kym"
KYM="$work/kym" KYM_DEMO_WINDOWS_PLUGINS="$work/site/external-plugins" bash "$root/demo/make-site.sh" "$work/site" \
  >/dev/null || fail "kym.exe could not make the demo site"
# shellcheck source=/dev/null
. "$work/site/environment.sh"
departments="$(wine "$kym" departments | tr -d '\r')"
for department in shared design tooling; do
  grep -Eq "^[ *] +$department " <<<"$departments" || fail "kym.exe departments lacks $department:"$'\n'"$departments"
done

# The site's Windows clients find the CAD system at C:\Program Files\UGS\NX 4.0.
mkdir -p "$cad/ugii"
cp "$probe" "$cad/ugii/ugraf.exe"
wine "$kym" app add dept:design nx-windows --description "NX on Windows" --category CAD \
  --program '${UGII_BASE_DIR}\ugii\ugraf.exe' --arguments '-drafting -lang=${UGII_LANG}' >/dev/null
wine "$kym" launch design nx-windows --workdir projects >/dev/null || fail "kym.exe launch failed"
for _ in $(seq 100); do [ -f "$cad/ugii/done" ] && break; sleep 0.1; done
[ -f "$cad/ugii/done" ] || fail "the launched program did not run"
arguments="$(tr '\0' '|' < "$cad/ugii/arguments")"
[ "$arguments" = 'C:\Program Files\UGS\NX 4.0\ugii\ugraf.exe|-drafting|-lang=german|' ] ||
  fail "the program got the arguments $arguments"
directory="$(tr -d '\0' < "$cad/ugii/directory")"
[ "$directory" = "Z:$(tr / '\\' <<<"$work/site/projects/design")" ] || fail "the program ran in $directory"
environment="$(tr '\0' '\n' < "$cad/ugii/environment")"
grep -qx 'UGII_DRAFTING_STANDARD=ISO' <<<"$environment" && fail "an application's variable leaked"
grep -qx 'UGII_LANG=german' <<<"$environment" || fail "the program lacks UGII_LANG=german"
echo "package check: $(basename "$zip") runs from the unpacked zip"
