#!/usr/bin/env bash
# Runs one Windows program under Wine in the prefix named by WINEPREFIX.
# Used as CMAKE_CROSSCOMPILING_EMULATOR, so ctest starts every test program through it.
#
# Heap checking: in a prefix where it is on (wine-prefix.sh heap-check), a
# program not yet listed is added first. Wine reports a damaged heap block with
# an "err:heap" line and lets the program go on, so the run fails here when any
# such line appears, whatever the program's own exit code.
set -u
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$here/wine-env.sh"
if [ -z "${WINEPREFIX:-}" ] || [ ! -f "$WINEPREFIX/system.reg" ]; then
  echo "wine-run.sh: WINEPREFIX is not set to a ready prefix (tools/wine-prefix.sh create DIR)" >&2
  exit 2
fi
if [ -f "$WINEPREFIX/heap-check.txt" ]; then
  "$here/wine-prefix.sh" heap-check "$WINEPREFIX" "$1" || exit 2
fi

# newdev.dll and cfgmgr32.dll native first: a test that puts the doubles on the
# search path (DllDoubles) gets them; otherwise the system32 placeholders make
# Wine load its own.
export WINEDLLOVERRIDES="$WINEDLLOVERRIDES;newdev,cfgmgr32=n,b"

errors=$(mktemp "${TMPDIR:-/tmp}/wine-run.XXXXXX")
trap 'rm -f "$errors"' EXIT
# A file, not a pipe: Wine's service processes may inherit it and outlive the program.
wine "$@" 2>"$errors"
rc=$?
cat "$errors" >&2
if grep -q 'err:heap' "$errors"; then
  echo "wine-run.sh: Wine reported heap damage in $(basename "$1") ($(grep -c 'err:heap' "$errors") err:heap lines)" >&2
  [ "$rc" -ne 0 ] || rc=1
fi
exit "$rc"
