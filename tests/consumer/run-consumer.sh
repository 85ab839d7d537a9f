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
for f in bin/SWLLib.dll lib/libSWLLib.dll.a include/SwlApi.h include/KesString.h include/KesRegKey.h \
         include/KesDebug.h; do
    [ -f "$stage/$f" ] || { echo "not installed: $f"; exit 1; }
done

# Only the staged tree: no source folder is on the include or library path.
flags=(-std=c++17 -Wall -Werror -I "$stage/include")
for header in "$stage"/include/*.h; do
    echo "#include \"$(basename "$header")\"" |
        "$cxx" "${flags[@]}" -fsyntax-only -x c++ - || { echo "does not compile on its own: $header"; exit 1; }
done
"$cxx" "${flags[@]}" "$here/Consumer.cpp" -L "$stage/lib" -l:libSWLLib.dll.a -static -o "$stage/bin/consumer.exe" ||
    { echo "the consumer does not build against the installed tree"; exit 1; }
cd "$stage/bin" && "$tools/wine-run.sh" consumer.exe
