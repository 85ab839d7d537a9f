#!/usr/bin/env bash
# Installs the build into a staging folder and builds a small program the way
# another installer component would: against the installed include/ and lib/
# only. Each public header must compile on its own; the program must link
# against the import library and pass its checks under Wine next to the
# installed DLL.
# usage: run-consumer.sh BUILD_DIR CXX STAGE_DIR   (WINEPREFIX names a ready prefix)
set -u
build=$1 cxx=$2 stage=$3
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
tools=$(cd "$here/../../tools" && pwd)

rm -rf "$stage"
cmake --install "$build" --prefix "$stage" >/dev/null || { echo "cmake --install failed"; exit 1; }
for f in bin/SWLLib.dll bin/SWLLib.dll.debug lib/libSWLLib.dll.a include/SwlApi.h include/KesString.h \
         include/KesRegKey.h include/KesDebug.h; do
    [ -f "$stage/$f" ] || { echo "not installed: $f"; exit 1; }
done
# The shipped DLL is stripped and names its debug file; the debug file holds the information.
objdump=${cxx%g++-posix}objdump
sections() { "$objdump" -h "$1" | awk '$2 ~ /^\./ {print $2}'; }
sections "$stage/bin/SWLLib.dll" | grep -q '^\.debug_' && { echo "the installed DLL keeps debug sections"; exit 1; }
sections "$stage/bin/SWLLib.dll" | grep -qx '\.gnu_debuglink' || { echo "the installed DLL names no debug file"; exit 1; }
sections "$stage/bin/SWLLib.dll.debug" | grep -qx '\.debug_info' || { echo "SWLLib.dll.debug has no debug information"; exit 1; }
echo "installed DLL: $(stat -c %s "$stage/bin/SWLLib.dll") bytes, debug file: $(stat -c %s "$stage/bin/SWLLib.dll.debug") bytes"

# Only the staged tree: no source folder is on the include or library path.
flags=(-std=c++17 -Wall -Werror -I "$stage/include")
for header in "$stage"/include/*.h; do
    echo "#include \"$(basename "$header")\"" |
        "$cxx" "${flags[@]}" -fsyntax-only -x c++ - || { echo "does not compile on its own: $header"; exit 1; }
done
"$cxx" "${flags[@]}" "$here/Consumer.cpp" -L "$stage/lib" -l:libSWLLib.dll.a -static -o "$stage/bin/consumer.exe" ||
    { echo "the consumer does not build against the installed tree"; exit 1; }
cd "$stage/bin" && "$tools/wine-run.sh" consumer.exe
