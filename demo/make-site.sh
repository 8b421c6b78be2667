#!/usr/bin/env bash
# Builds the demo site with the kym configure commands, from nothing:
#   make-site.sh [DIR]     (default: build/demo-site; made afresh each run)
# KYM names the kym program (default: build/tools/kym); KYM_DEMO_WINDOWS_PLUGINS
# the Windows clients' plugins folder (a kym that uses the windows conventions
# needs one that exists to make the site). Afterwards source
# DIR/environment.sh to use the site: it sets KYM_BASE_DIR, KYM_UGSITE_DIR
# and XDG_CONFIG_HOME (kym's per-user data stays inside the site).
#
# The site:
#   kym/                  the installation (KYM_BASE_DIR): release constants,
#                         base applications and variables, the release files
#                         archive, the internal plugin "cam" (Production)
#   ugsite/               the departments: "shared" (Common), "design"
#                         (Production) and "tooling" (Development), and the
#                         site settings (CAD at demo/cad, site variables)
#   external-plugins/     the external plugin "checker" (Site-wide)
#   projects/             the departments' work directories
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
site="${1:-$root/build/demo-site}"
kym="${KYM:-$root/build/tools/kym}"
[ -x "$kym" ] || { echo "make-site.sh: no kym program at $kym (build target kym-command, or set KYM)" >&2; exit 1; }
kym="$(cd "$(dirname "$kym")" && pwd)/$(basename "$kym")"

mkdir -p "$(dirname "$site")"
site="$(cd "$(dirname "$site")" && pwd)/$(basename "$site")"
case "$site" in
  / | "$root" | "$root/demo" | "${HOME:-/}") echo "make-site.sh: refusing to replace $site" >&2; exit 1 ;;
esac
rm -rf "$site"
mkdir -p "$site"/{kym/config,kym/data/install,ugsite,external-plugins,home/.config} \
  "$site"/projects/{design,tooling}

cat >"$site/environment.sh" <<EOF
# Source this to work with the demo site.
export KYM_BASE_DIR='$site/kym'
export KYM_UGSITE_DIR='$site/ugsite'
export XDG_CONFIG_HOME='$site/home/.config'
EOF
# shellcheck source=/dev/null
. "$site/environment.sh"
unset KYM_DEPT_DIR KYM_PLATFORM

run() { "$kym" "$@" >/dev/null || { echo "make-site.sh: failed: kym $*" >&2; exit 1; }; }

# The release: the department directories of this installation are NX4.
run sysinfo set CadVersionDirectory NX4
run sysinfo set PreviousCadVersionDirectory NX3
run sysinfo set KymVersionString "demo site"

# Files every department gets for the release, unpacked at 'kym dept create'.
tar -czf "$site/kym/data/install/versionFiles.tar.gz" -C "$root/demo/release-files" config lib startup symbol

# Site settings: where the CAD system is, for either kind of client.
run site set unix-install-path "$root/demo/cad"
run site set windows-install-path 'C:\Program Files\UGS\NX 4.0'
run site set use-registry off
run site set unix-external-plugins "$site/external-plugins"
run site set windows-external-plugins "${KYM_DEMO_WINDOWS_PLUGINS:-\\\\fileserver\\kym\\plugins}"
run var set site UGII_LICENSE_FILE 28000@licserver --comment "license server"
run var set site SITE_DATA "$site/data"
run var set site PATH '$PATH:${SITE_DATA}/bin' --list unix --comment "site tools"

# Base settings: what every site gets.
run var set base UGII_LANG english
run var set base UGII_TMP_DIR '${HOME}/tmp' --list unix
run var set base UGII_TMP_DIR '${USERPROFILE}\temp' --list windows
run var set base UGII_CHECKING_LEVEL 2
run app add base nx --description "NX" --category CAD --program '${UGII_BASE_DIR}/ugii/ugraf'
run app add base viewer --description "Part viewer" --category Viewing \
  --program '${UGII_BASE_DIR}/ugii/ugraf' --arguments '-viewer' --libraries off
run var set base UGII_VIEW_ONLY 1 --app viewer

# Plugins: an internal one for production departments, an external one for all.
run plugin create cam --type Production
run var set plugin:cam UGII_CAM_RESOURCE_DIR '${UGII_BASE_DIR}/mach/resource'
run var set plugin:cam PATH '$PATH:${UGII_BASE_DIR}/mach/bin' --list unix
run app add plugin:cam cam --description "Manufacturing" --category CAM \
  --program '${UGII_BASE_DIR}/ugii/ugraf' --arguments '-cam -resources=${UGII_CAM_RESOURCE_DIR}'
run plugin create checker --type Site-wide --external
run var set plugin:checker UGII_CHECKER_RULES '${KYM_COMMONDEPT_DIR}/rules'

# Departments: the common one first, since the others name it.
run dept create shared --type Common --description "Shared settings" --cleanup off
run var set dept:shared PROJECTS_ROOT "$site/projects"
run var set dept:shared UGII_DEFAULTS_FILE '${KYM_COMMONDEPT_DIR}/${UG_VER}/config/nx_site.dpv'
run var set dept:shared PATH '$PATH:${PROJECTS_ROOT}/bin' --list unix

run dept create design --type Production --description "Design office" --common shared --cleanup off
run var set dept:design PROJECT_DIR '${PROJECTS_ROOT}/design' --comment "the office's project data"
run var set dept:design UGII_LANG german
run var set dept:design UGII_JOURNAL_DIR '${PROJECT_DIR}/journals'
run var set dept:design PATH '$PATH:${PROJECT_DIR}/bin' --list unix
run workdir add design projects '${PROJECT_DIR}'
run app add dept:design drafting --description "NX Drafting" --category CAD \
  --program '${UGII_BASE_DIR}/ugii/ugraf' --arguments '-drafting -lang=${UGII_LANG} -standard=ISO'
run var set dept:design UGII_DRAFTING_STANDARD ISO --app drafting

run dept create tooling --type Development --description "Tool development" --common shared --cleanup off
run var set dept:tooling PROJECT_DIR '${PROJECTS_ROOT}/tooling'
run var set dept:tooling UGII_CHECKING_LEVEL 4
run var set dept:tooling PATH '${PROJECT_DIR}/bin:$PATH' --list unix --comment "own tools first"
run workdir add tooling projects '${PROJECT_DIR}'
run overlay set tooling 'Base KYM' viewer --disabled on

echo "Demo site in $site (source $site/environment.sh to use it)."
