#!/usr/bin/env bash
# The main job: toolchain, build, then the sample package installed and
# removed under Wine in a throwaway Windows 10 prefix, with the relevant parts
# of the verbose logs and the registry state printed.
#
#   tools/main-job.sh                       everything, in build/ (the preset's directory)
#   SWL_SKIP_SETUP=1 tools/main-job.sh      without installing packages
#   SWL_BUILD_DIR=DIR tools/main-job.sh     configure and build in DIR instead
#
# Exits non-zero when the build fails, when msiexec fails, or when no line of
# ours reaches a log (Wine reports an action whose DLL did not load as a success).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

section() { printf '\n==== %s\n' "$*"; }

section "Toolchain"
if [ -n "${SWL_SKIP_SETUP:-}" ]; then
  echo "SWL_SKIP_SETUP set: not installing packages"
elif [ -f tools/setup.sh ]; then
  bash tools/setup.sh
else
  echo "tools/setup.sh not present: using the packages already installed"
fi

section "Build"
if [ -n "${SWL_BUILD_DIR:-}" ]; then
  build=$(realpath -m "$SWL_BUILD_DIR")
  cmake --preset mingw-release -B "$build"
  cmake --build "$build"
else
  build="$root/build"
  cmake --preset mingw-release
  cmake --build --preset mingw-release
fi
msi="$build/package/CorvaneSWL.msi"
if [ ! -f "$msi" ]; then
  echo "no sample package at $msi (is wixl installed?)" >&2
  exit 1
fi

. tools/wine-env.sh
work=$(mktemp -d "${TMPDIR:-/tmp}/swl-main-job.XXXXXX")
export WINEPREFIX="$work/prefix"
cleanup() { "$root/tools/wine-prefix.sh" destroy "$WINEPREFIX"; rm -rf "$work"; }
trap cleanup EXIT

section "Wine prefix (Windows 10) in $WINEPREFIX"
tools/wine-prefix.sh create "$WINEPREFIX"
wine reg add 'HKCU\Software\Wine' /v Version /d win10 /f >/dev/null

# msiinfo writes CR LF line ends.
product_code=$(msiinfo export "$msi" Property | tr -d '\r' | awk -F'\t' '$1 == "ProductCode" { print $2 }')
# Our custom actions, for picking their results out of the log.
actions=$(msiinfo export "$msi" CustomAction | tr -d '\r' | tail -n +4 | cut -f1 | paste -sd'|')
echo "package $msi"
echo "product code $product_code"

# Our log lines (INFO records: the [HH:MM:SS] field comes out empty in Wine's
# log) and the results of our actions.
excerpt() {
  grep -a -E "^1:  2: |^Action ended [0-9:]+: ($actions|INSTALL)\. Return value" "$1" |
    sed -E 's/^1:  2: (.*) 3: /    \1/; s/^1:  2: /    /; s/ $//' || true
}

registry_state() {
  for key in 'HKLM\SOFTWARE\CORVANE\SWL' \
             "HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\$product_code"; do
    echo "-- $key"
    if values=$(wine reg query "$key" 2>/dev/null); then
      printf '%s\n' "$values" | sed -e 's/\r$//' -e '/^$/d' -e '/^HKEY_/d'
    else
      echo "   (no such key)"
    fi
  done
}

status=0
run_msiexec() {  # name, msiexec arguments...
  local name=$1; shift
  local log="$work/$name.log" rc=0
  section "msiexec $* (log: $name.log)"
  wine msiexec "$@" /qn /l*v "$log" || rc=$?
  # Wine hands Linux only the low 8 bits: 1603 arrives as 67, 1602 as 66.
  echo "msiexec exit code $rc"
  excerpt "$log"
  if ! grep -a -q -E '^1:  2: ' "$log"; then
    echo "no line of ours in the log: the custom actions did not run" >&2
    status=1
  fi
  [ "$rc" -eq 0 ] || status=1
  section "Registry after $name"
  registry_state
}

# No launcher yet: ARPREMOVE=1 (what the uninstall entry passes) lets
# IsSetupRunning accept a direct start.
run_msiexec install /i "$msi" ARPREMOVE=1
run_msiexec remove /x "$msi" ARPREMOVE=1

section "Result"
if [ "$status" -eq 0 ]; then echo "install and removal succeeded"; else echo "FAILED"; fi
exit "$status"
