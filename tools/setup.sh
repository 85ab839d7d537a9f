#!/usr/bin/env bash
# Installs what building and testing SWLLib needs on Debian 12. Idempotent and
# quiet: packages already present are not fetched again.
set -eu
pkgs="g++-mingw-w64-x86-64-posix mingw-w64-tools wine64 msitools wixl cmake ninja-build googletest xvfb python3"
missing=""
for p in $pkgs; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
    sudo_cmd=""
    [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
    echo "installing:$missing"
    $sudo_cmd apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends $missing >/dev/null
fi
