#!/usr/bin/env bash
# Sets up the machine, builds everything and runs every test: the in-process
# test programs under Wine, the export check and the end-to-end scenarios.
set -eu
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
tools/setup.sh
cmake --preset mingw-release >/dev/null
cmake --build --preset mingw-release
ctest --preset mingw-release "$@"
