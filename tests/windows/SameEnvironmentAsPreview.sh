#!/usr/bin/env bash
# kym.exe under Wine and the Linux kym previewing the windows conventions
# (--platform windows) read the same demo site with the same process
# environment (the one Wine gives a Windows program) and must print the same
# environment for an application (kept tables stay off, so the prefix keeps
# nothing of it). Only the web browser differs, by design of
# the host services: its short (8.3) form and the case-blind lookup of
# PROGRAMFILES exist on Windows alone.
#   SameEnvironmentAsPreview.sh LINUX-KYM KYM-EXE
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
linux_kym="$1"
kym_exe="$2"
work="$(mktemp -d "${TMPDIR:-/tmp}/kym-preview.XXXXXX")"
trap 'rm -rf "$work"' EXIT

KYM="$linux_kym" bash "$root/demo/make-site.sh" "$work/site" >/dev/null
site="$work/site"
unix_environment=(HOME="$site/home" KYM_BASE_DIR="$site/kym" KYM_UGSITE_DIR="$site/ugsite"
  XDG_CONFIG_HOME="$site/home/.config" PATH=/usr/bin:/bin KYM_CACHE=off
  WINEPREFIX="${WINEPREFIX:-$HOME/.wine}" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=")
# The environment a Windows program sees; the command interpreter adds PROMPT.
mapfile -t windows_environment < <(env -i "${unix_environment[@]}" wine cmd /c set | tr -d '\r' | grep -v '^PROMPT=')

status=0
for application in drafting nx cam; do
  env -i "${windows_environment[@]}" "$linux_kym" --platform windows env design "$application" |
    grep -v '^UGII_HTML_BROWSER=' > "$work/preview" || status=1
  env -i "${unix_environment[@]}" wine "$kym_exe" env design "$application" | tr -d '\r' |
    grep -v '^UGII_HTML_BROWSER=' > "$work/windows" || status=1
  if ! diff -u "$work/preview" "$work/windows"; then
    echo "kym.exe env design $application differs from kym --platform windows (above)" >&2
    status=1
  elif [ ! -s "$work/windows" ]; then
    echo "kym.exe env design $application printed nothing" >&2
    status=1
  else
    echo "design $application: $(wc -l < "$work/windows") variables alike"
  fi
done
exit "$status"
