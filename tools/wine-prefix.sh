#!/usr/bin/env bash
# Throwaway Wine prefixes for tests and scenarios.
#   wine-prefix.sh create DIR   copy of a cached base prefix (made once per machine)
#   wine-prefix.sh destroy DIR  ends the prefix's wineserver and removes DIR
#   wine-prefix.sh stop DIR     ends the prefix's wineserver only
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
  *)
    echo "usage: $0 create|destroy|stop DIR" >&2; exit 2 ;;
esac
