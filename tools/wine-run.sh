#!/usr/bin/env bash
# Runs one Windows program under Wine in the prefix named by WINEPREFIX.
# Used as CMAKE_CROSSCOMPILING_EMULATOR, so ctest starts every test program through it.
set -u
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$here/wine-env.sh"
if [ -z "${WINEPREFIX:-}" ] || [ ! -f "$WINEPREFIX/system.reg" ]; then
  echo "wine-run.sh: WINEPREFIX is not set to a ready prefix (tools/wine-prefix.sh create DIR)" >&2
  exit 2
fi
exec wine "$@"
