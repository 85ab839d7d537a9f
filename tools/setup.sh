#!/usr/bin/env bash
# Installs what building, testing and the main job need on Debian 12, then
# checks that every command the project's scripts call is on the PATH.
# Idempotent and quiet: packages already present are not fetched again.
set -eu

# pkgs[COMMAND]=PACKAGE: every command the scripts call, and the Debian 12
# package that provides it. The package "wine" matters: "wine64" alone puts its
# loader and server under /usr/lib/wine only, so neither "wine" nor
# "wineserver" would be on the PATH.
declare -A pkgs
pkgs[wine]=wine
pkgs[wineserver]=wine
pkgs[wineboot]=wine
pkgs[x86_64-w64-mingw32-gcc-posix]=gcc-mingw-w64-x86-64-posix
pkgs[x86_64-w64-mingw32-g++-posix]=g++-mingw-w64-x86-64-posix
pkgs[x86_64-w64-mingw32-windres]=binutils-mingw-w64-x86-64
pkgs[x86_64-w64-mingw32-objdump]=binutils-mingw-w64-x86-64
pkgs[x86_64-w64-mingw32-objcopy]=binutils-mingw-w64-x86-64
pkgs[x86_64-w64-mingw32-nm]=binutils-mingw-w64-x86-64
pkgs[x86_64-w64-mingw32-ar]=binutils-mingw-w64-x86-64
pkgs[wixl]=wixl
pkgs[msiinfo]=msitools
pkgs[msibuild]=msitools
pkgs[cmake]=cmake
pkgs[ctest]=cmake
pkgs[ninja]=ninja-build
pkgs[xvfb-run]=xvfb
pkgs[xauth]=xauth          # xvfb-run needs it; it is only a recommendation of xvfb
pkgs[xdotool]=xdotool
pkgs[import]=imagemagick
pkgs[python3]=python3
pkgs[g++]=g++              # the native build of the support tool swltrace
pkgs[chromium]=chromium    # opens swltrace's HTML report in the tests
pkgs[timeout]=coreutils
pkgs[flock]=util-linux
# Packages with no command of their own above.
extra_pkgs="wine64 mingw-w64-tools googletest"

missing=""
for p in $(printf '%s\n' "${pkgs[@]}" | sort -u) $extra_pkgs; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
    sudo_cmd=""
    [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
    echo "installing:$missing"
    $sudo_cmd apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends $missing >/dev/null
fi

# A tool that is missing must stop us here, not deep inside a test run.
absent=""
for cmd in "${!pkgs[@]}"; do
    command -v "$cmd" >/dev/null 2>&1 || absent="$absent
  '$cmd' (Debian package '${pkgs[$cmd]}')"
done
[ -f /usr/src/googletest/CMakeLists.txt ] || absent="$absent
  GoogleTest sources in /usr/src/googletest (Debian package 'googletest')"
if [ -n "$absent" ]; then
    echo "setup: these are still missing after installing packages:$absent" >&2
    echo "setup: install them (apt-get install PACKAGE) and run again" >&2
    exit 1
fi
