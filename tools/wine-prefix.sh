#!/usr/bin/env bash
# Throwaway Wine prefixes for tests and scenarios.
#   wine-prefix.sh create DIR [NAME|FOLDER ...]
#                               copy of a cached base prefix (made once per machine),
#                               with heap checking for the programs named (see heap-check)
#   wine-prefix.sh destroy DIR  ends the prefix's wineserver and removes DIR
#   wine-prefix.sh stop DIR     ends the prefix's wineserver only
#   wine-prefix.sh heap-check DIR NAME|FOLDER ...
#                               turns on Wine's heap validation (GlobalFlag 0xF0) for the
#                               programs named, or for every .exe in a folder; the names
#                               are listed in DIR/heap-check.txt. SWL_HEAP_CHECK=0 skips it.
# The base prefix lives in ${SWL_WINE_CACHE:-$HOME/.cache/swllib}; ~/.wine is never used.
set -eu
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$here/wine-env.sh"

cache="${SWL_WINE_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/swllib}"
base="$cache/wine-base-$(wine --version 2>/dev/null | tr -c 'A-Za-z0-9.\n-' '_')"

make_base() {
  mkdir -p "$cache"
  exec 9>"$cache/.lock"
  flock 9
  if [ -f "$base/.ready" ]; then return; fi
  rm -rf "$base.tmp"
  WINEPREFIX="$base.tmp" wineboot -i >/dev/null 2>&1 || true
  WINEPREFIX="$base.tmp" wineserver -w
  # A crash must end the program, not wait in the debugger.
  WINEPREFIX="$base.tmp" wine reg add 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' \
      /v Debugger /d '' /f >/dev/null 2>&1
  WINEPREFIX="$base.tmp" wine reg add 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' \
      /v Auto /d 0 /f >/dev/null 2>&1
  WINEPREFIX="$base.tmp" wineserver -w
  touch "$base.tmp/.ready"
  rm -rf "$base"
  mv "$base.tmp" "$base"
}

case "${1:-}" in
  create)
    dir=${2:?directory}
    make_base
    if [ -d "$dir" ]; then WINEPREFIX="$dir" wineserver -k 2>/dev/null || true; rm -rf "$dir"; fi
    mkdir -p "$(dirname "$dir")"
    cp -a "$base" "$dir"
    shift 2
    [ $# -eq 0 ] || "$0" heap-check "$dir" "$@"
    ;;
  destroy)
    dir=${2:?directory}
    if [ -d "$dir" ]; then
      WINEPREFIX="$dir" wineserver -k 2>/dev/null || true
      WINEPREFIX="$dir" wineserver -w 2>/dev/null || true
      rm -rf "$dir"
    fi
    ;;
  stop)
    dir=${2:?directory}
    WINEPREFIX="$dir" wineserver -k 2>/dev/null || true
    WINEPREFIX="$dir" wineserver -w 2>/dev/null || true
    ;;
  heap-check)
    dir=${2:?directory}; shift 2
    [ "${SWL_HEAP_CHECK:-1}" != 0 ] || exit 0
    names=()
    for item in "$@"; do
      if [ -d "$item" ]; then
        for exe in "$item"/*.exe; do [ -e "$exe" ] && names+=("$(basename "$exe")"); done
      else
        names+=("$(basename "$item")")
      fi
    done
    list="$dir/heap-check.txt"
    touch "$list"
    reg="$dir/heap-check.reg"
    printf 'Windows Registry Editor Version 5.00\r\n' >"$reg"
    added=0
    for name in "${names[@]}"; do
      grep -qixF -- "$name" "$list" && continue
      # Validates every heap block of that program: a write past a block is then
      # reported as "err:heap:... invalid block tail" (the program goes on).
      printf '\r\n[HKEY_LOCAL_MACHINE\\Software\\Microsoft\\Windows NT\\CurrentVersion\\Image File Execution Options\\%s]\r\n"GlobalFlag"=dword:000000f0\r\n' \
        "$name" >>"$reg"
      echo "$name" >>"$list"
      added=1
    done
    if [ "$added" = 1 ]; then
      # On a loaded machine wine has been seen to exit before the program ran: try again, twice.
      for try in 1 2 3; do
        (cd "$dir" && WINEPREFIX="$dir" wine reg import heap-check.reg >"$dir/heap-check.out" 2>&1) && break
        [ "$try" -lt 3 ] || { echo "wine-prefix.sh: cannot turn on heap checking in $dir:" >&2
                              tail -5 "$dir/heap-check.out" >&2; exit 1; }
        WINEPREFIX="$dir" wineserver -k 2>/dev/null || true
        sleep 2
      done
      rm -f "$dir/heap-check.out"
    fi
    rm -f "$reg"
    ;;
  *)
    echo "usage: $0 create|destroy|stop|heap-check DIR ..." >&2; exit 2 ;;
esac
