#!/usr/bin/env bash
# Sets up the machine, builds everything and runs every test: the in-process
# test programs under Wine, the export check and the end-to-end scenarios,
# then the support tool swltrace built natively with its own tests (no Wine).
# Arguments go to the first ctest run. Fails when either run fails.
set -eu
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
tools/setup.sh
cmake --preset mingw-release >/dev/null
cmake --build --preset mingw-release
status=0
ctest --preset mingw-release "$@" || status=$?
cmake --preset native >/dev/null
cmake --build --preset native
ctest --preset native || status=$?
exit $status
