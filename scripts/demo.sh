#!/usr/bin/env bash
# The demo. Installs what the build needs, builds the kym command (in build/),
# makes the demo site with kym's configure commands (demo/make-site.sh, in
# build/demo-site/) and then uses it as an engineer would: lists the
# departments and the applications of one, explains the environment of an
# application layer by layer, and launches it.
# KYM_BUILD_DIR moves the build directory.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build_dir="${KYM_BUILD_DIR:-$root/build}"
site="$build_dir/demo-site"
kym="$build_dir/tools/kym"

bash "$root/scripts/install-deps.sh"
cmake -S "$root" -B "$build_dir" >/dev/null
cmake --build "$build_dir" -j "$(nproc)" --target kym-command

echo
echo "=== Making the demo site with kym commands (demo/make-site.sh)"
KYM="$kym" bash "$root/demo/make-site.sh" "$site"

# The demo's commands see only the site and a plain login environment, so
# that the explanation below stays short.
clean_env=(env -i "HOME=$site/home" "USER=${USER:-$(id -un)}" "LOGNAME=${LOGNAME:-$(id -un)}"
  "PATH=/usr/local/bin:/usr/bin:/bin" "LANG=C.UTF-8" "KYM_BASE_DIR=$site/kym"
  "KYM_UGSITE_DIR=$site/ugsite" "XDG_CONFIG_HOME=$site/home/.config")

show() {
  echo
  echo "\$ kym $*"
  "${clean_env[@]}" "$kym" "$@"
}

show departments
show apps design
show env --explain design drafting
show launch design drafting --workdir projects
# The program runs on by itself; give it a moment to write its report.
sleep 1
echo
echo "Try it yourself: source $site/environment.sh, then $kym --help."
echo "In the browser: source $site/environment.sh, then $kym serve --open"
echo "(or $kym serve, and open the address it prints): the launcher and the configure program of the site."
