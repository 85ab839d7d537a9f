#!/usr/bin/env bash
# The main job: toolchain, build, then the sample package installed and
# removed through the launcher SwlSetup.exe in a throwaway Windows 10 prefix
# with a simulated accelerator (tools/main_job.py), showing the install
# summary, our Installer-log lines, the recorded drivers and services, and
# whether the machine is as it was before.
#
#   tools/main-job.sh                       everything, in build/ (the preset's directory)
#   tools/main-job.sh --machine NAME        another simulated machine: a profile of
#                                           tests/machines, tlmd, hyperv-server2019 or none
#   SWL_SKIP_SETUP=1 tools/main-job.sh      without installing packages
#   SWL_BUILD_DIR=DIR tools/main-job.sh     configure and build in DIR instead
#
# Exits non-zero when the build fails or when a stage does not give what the
# machine should give (tools/main_job.py checks the effects, not just exit codes:
# Wine reports an action whose DLL did not load as a success).
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
  cmake --build "$build" --target sample_package SwlSetup swl_tool_standin
else
  build="$root/build"
  cmake --preset mingw-release
  cmake --build --preset mingw-release --target sample_package SwlSetup swl_tool_standin
fi
# The support tool, built for this machine, reads the trace file at the end.
cmake --preset native >/dev/null
cmake --build --preset native --target swltrace
msi="$build/package/CorvaneSWL.msi"
if [ ! -f "$msi" ]; then
  echo "no sample package at $msi (is wixl installed?)" >&2
  exit 1
fi

. tools/wine-env.sh
section "Install and removal through SwlSetup.exe on a simulated machine"
exec python3 tools/main_job.py --build "$build" --swltrace "$root/build-native/swltrace/swltrace" "$@"
